# How nvml_gpu_monitor.cpp is compiled; installed, too, for hosts with a profiler of their own.

# A host may name the folder relative to its top-level source folder.
if(NVML_GPU_MONITOR_PROFILER_DIR)
    get_filename_component(NVML_GPU_MONITOR_PROFILER_DIR "${NVML_GPU_MONITOR_PROFILER_DIR}" ABSOLUTE
        BASE_DIR "${CMAKE_SOURCE_DIR}")
endif()

# Prints for a host's developer where the frame time of samples comes from.
function(nvml_gpu_monitor_report_profiler)
    if(NVML_GPU_MONITOR_PROFILER_DIR)
        message(STATUS "nvml_gpu_monitor: samples get their frame time from "
            "${NVML_GPU_MONITOR_PROFILER_DIR}/gpu_profiler.h")
    else()
        message(STATUS "nvml_gpu_monitor: samples have no frame time. To give them yours, set "
            "NVML_GPU_MONITOR_PROFILER_DIR to the folder of your gpu_profiler.h before this point.")
    endif()
endfunction()

# Gives `target` everything that is needed to compile nvml_gpu_monitor.cpp: the public header in `include_dir`, and the
# gpu_profiler.h of `profiler_dir`.
function(nvml_gpu_monitor_configure target include_dir profiler_dir)
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
