# Gives `target` everything that is needed to compile nvml_gpu_monitor.cpp: the public header in `include_dir`, and the
# gpu_profiler.h of `profiler_dir`, which may be relative to the top-level source folder. It is installed, too, for hosts
# with a profiler of their own.
function(nvml_gpu_monitor_configure target include_dir profiler_dir)
    get_filename_component(profiler_dir "${profiler_dir}" ABSOLUTE BASE_DIR "${CMAKE_SOURCE_DIR}")
    if(NOT EXISTS "${profiler_dir}/gpu_profiler.h")
        message(FATAL_ERROR "NVML_GPU_MONITOR_PROFILER_DIR is ${profiler_dir}: no folder with a gpu_profiler.h in it.")
    endif()
    target_compile_features(${target} PUBLIC cxx_std_17)
    target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${include_dir}>")
    # BEFORE, so that no other header of this name is found first.
    target_include_directories(${target} BEFORE PRIVATE "${profiler_dir}")
    target_link_libraries(${target} PUBLIC Threads::Threads PRIVATE ${CMAKE_DL_LIBS})
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
endfunction()
