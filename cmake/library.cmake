find_package(Threads REQUIRED)

# Gives `target` everything that compiling src/nvml_gpu_monitor.cpp takes, with the gpu_profiler.h of `profiler_dir`.
function(nvml_gpu_monitor_configure target profiler_dir)
    get_filename_component(profiler_dir "${profiler_dir}" ABSOLUTE BASE_DIR "${CMAKE_SOURCE_DIR}")
    if(NOT EXISTS "${profiler_dir}/gpu_profiler.h")
        message(FATAL_ERROR "NVML_GPU_MONITOR_PROFILER_DIR is ${profiler_dir}, which holds no gpu_profiler.h.")
    endif()
    target_compile_features(${target} PUBLIC cxx_std_17)
    target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>")
    # Warnings in a host's header are the host's affair.
    target_include_directories(${target} SYSTEM PRIVATE "${profiler_dir}")
    target_link_libraries(${target} PUBLIC Threads::Threads PRIVATE ${CMAKE_DL_LIBS})
    set_target_properties(${target} PROPERTIES CXX_STANDARD 17 CXX_EXTENSIONS OFF POSITION_INDEPENDENT_CODE ON)
endfunction()

add_library(nvml_gpu_monitor src/nvml_gpu_monitor.cpp)
add_library(nvml_gpu_monitor::nvml_gpu_monitor ALIAS nvml_gpu_monitor)
nvml_gpu_monitor_configure(nvml_gpu_monitor "${NVML_GPU_MONITOR_PROFILER_DIR}")
if(NVML_GPU_MONITOR_TOP_LEVEL)
    include(cmake/warnings.cmake)
    nvml_gpu_monitor_strict_warnings(nvml_gpu_monitor)
endif()
