# nvml_gpu_monitor_program_dir: the folder from which tests and benchmarks start the programs. Those of a cross build need
# the emulator, so the folder then has scripts of the programs' names.
set(nvml_gpu_monitor_program_dir "${PROJECT_BINARY_DIR}/bin")
if(CMAKE_CROSSCOMPILING_EMULATOR)
    set(nvml_gpu_monitor_program_dir "${PROJECT_BINARY_DIR}/emulated")
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR "' '" emulator)
    foreach(program IN ITEMS gpu_monitor gpu_overlay gpu_exporter)
        if(TARGET ${program})
            file(GENERATE OUTPUT "${nvml_gpu_monitor_program_dir}/${program}"
                CONTENT "#!/bin/sh\nexec '${emulator}' '$<TARGET_FILE:${program}>' \"$@\"\n"
                FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
        endif()
    endforeach()
endif()
