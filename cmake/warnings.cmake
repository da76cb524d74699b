if(NVML_GPU_MONITOR_TOP_LEVEL)
    option(NVML_GPU_MONITOR_WARNINGS_AS_ERRORS "Fail on every warning, as the project's own checks do" OFF)
endif()

# A host that embeds the project keeps its own settings.
function(nvml_gpu_monitor_strict_warnings target)
    if(NOT NVML_GPU_MONITOR_TOP_LEVEL)
        return()
    endif()
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
        $<$<BOOL:${NVML_GPU_MONITOR_WARNINGS_AS_ERRORS}>:-Werror>)
endfunction()
