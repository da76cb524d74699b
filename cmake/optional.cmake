# nvml_gpu_monitor_add_optional_program(NAME MISSING...): adds the program, unless something is missing that it needs.
# The names of what is missing are printed.
function(nvml_gpu_monitor_add_optional_program name)
    if(ARGN)
        list(JOIN ARGN ", " missing)
        message(STATUS "${name} is left out: not found: ${missing}")
    else()
        add_subdirectory("programs/${name}")
    endif()
endfunction()

# Appends to the list `missing` the packages whose targets do not exist. Each further argument is a target and, after a
# space, its package.
macro(nvml_gpu_monitor_note_missing missing)
    foreach(target_and_package IN ITEMS ${ARGN})
        string(REGEX MATCH "^([^ ]+) (.+)$" matched "${target_and_package}")
        if(NOT TARGET "${CMAKE_MATCH_1}")
            list(APPEND ${missing} "${CMAKE_MATCH_2}")
        endif()
    endforeach()
endmacro()
