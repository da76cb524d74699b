option(NVML_GPU_MONITOR_WARNINGS_AS_ERRORS "Fail on every warning, as the project's own checks do" OFF)

# For the project's own targets; a host that embeds the library keeps its own settings.
function(nvml_gpu_monitor_strict_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
        $<$<BOOL:${NVML_GPU_MONITOR_WARNINGS_AS_ERRORS}>:-Werror>)
endfunction()
