find_package(Threads REQUIRED)
include(cmake/configure.cmake)

if(NVML_GPU_MONITOR_PROFILER_DIR)
    # Part of the host: a shared library hides its inline functions, and would so have another GPUProfiler than the host.
    add_library(nvml_gpu_monitor STATIC src/nvml_gpu_monitor.cpp)
    set(profiler_dir "${NVML_GPU_MONITOR_PROFILER_DIR}")
else()
    add_library(nvml_gpu_monitor src/nvml_gpu_monitor.cpp)
    set(profiler_dir "${CMAKE_CURRENT_SOURCE_DIR}/profiler")
endif()
add_library(nvml_gpu_monitor::nvml_gpu_monitor ALIAS nvml_gpu_monitor)
nvml_gpu_monitor_configure(nvml_gpu_monitor "${CMAKE_CURRENT_SOURCE_DIR}/include" "${profiler_dir}")
if(NOT NVML_GPU_MONITOR_TOP_LEVEL)
    nvml_gpu_monitor_report_profiler()
endif()

# A shared library exports its class and nothing else: neither its internals nor templates of the standard library.
# All versions with one major number have one binary interface, so the soname has that number alone.
set_target_properties(nvml_gpu_monitor PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
get_target_property(NVML_GPU_MONITOR_LIBRARY_TYPE nvml_gpu_monitor TYPE)
if(NVML_GPU_MONITOR_LIBRARY_TYPE STREQUAL "SHARED_LIBRARY")
    target_compile_definitions(nvml_gpu_monitor PRIVATE "NVML_GPU_MONITOR_API=__attribute__((visibility(\"default\")))")
    target_link_options(nvml_gpu_monitor PRIVATE
        "LINKER:--version-script=${CMAKE_CURRENT_SOURCE_DIR}/cmake/exports.map")
    set_target_properties(nvml_gpu_monitor PROPERTIES
        LINK_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/cmake/exports.map")
endif()

nvml_gpu_monitor_strict_warnings(nvml_gpu_monitor)
