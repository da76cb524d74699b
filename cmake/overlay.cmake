# gpu_overlay needs more than the other programs. Where something is missing, it is left out.
find_package(glfw3 3.3 CONFIG QUIET)
find_package(OpenGL COMPONENTS OpenGL QUIET)
find_package(PNG QUIET)
set(overlay_missing "")
nvml_gpu_monitor_note_missing(overlay_missing
    "nvml_gpu_monitor_imgui Dear ImGui" "glfw GLFW" "OpenGL::OpenGL OpenGL" "PNG::PNG libpng")
# What a host names as its ImGui need not have backends.
if(TARGET nvml_gpu_monitor_imgui AND (NVML_GPU_MONITOR_IMGUI OR
        NOT EXISTS "${NVML_GPU_MONITOR_IMGUI_INCLUDE_DIR}/backends/imgui_impl_glfw.h"))
    list(APPEND overlay_missing "backends of Dear ImGui")
endif()
nvml_gpu_monitor_add_optional_program(gpu_overlay ${overlay_missing})
