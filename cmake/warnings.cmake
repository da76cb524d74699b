# The project's own targets build without a single warning; a host that embeds the library keeps its own settings.
function(nvml_gpu_monitor_strict_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
endfunction()
