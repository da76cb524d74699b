# Gives `target` everything that compiling nvml_gpu_monitor.cpp takes: the public header in `include_dir`, and the
# gpu_profiler.h of `profiler_dir`, which may be relative to the top-level source folder. Also part of the installed
# package, for hosts with a profiler of their own.
function(nvml_gpu_monitor_configure target include_dir profiler_dir)
    get_filename_component(profiler_dir "${profiler_dir}" ABSOLUTE BASE_DIR "${CMAKE_SOURCE_DIR}")
    if(NOT EXISTS "${profiler_dir}/gpu_profiler.h")
        message(FATAL_ERROR "NVML_GPU_MONITOR_PROFILER_DIR is ${profiler_dir}: no folder with a gpu_profiler.h in it.")
    endif()
    target_compile_features(${target} PUBLIC cxx_std_17)
    target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${include_dir}>")
    # First, so that no other header of this name comes before it.
    target_include_directories(${target} BEFORE PRIVATE "${profiler_dir}")
    target_link_libraries(${target} PUBLIC Threads::Threads PRIVATE ${CMAKE_DL_LIBS})
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
endfunction()
