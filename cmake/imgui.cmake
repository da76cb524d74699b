# The Dear ImGui that the panel is compiled with, as the target nvml_gpu_monitor_imgui: core only, no backend. Without
# it there is no panel. The host names its ImGui with NVML_GPU_MONITOR_IMGUI: a CMake target or the folder of its
# sources; empty: the one that this system has. It is no cache entry, because making one would hide a host's variable.
if(TARGET "${NVML_GPU_MONITOR_IMGUI}")
    add_library(nvml_gpu_monitor_imgui INTERFACE)
    target_link_libraries(nvml_gpu_monitor_imgui INTERFACE "${NVML_GPU_MONITOR_IMGUI}")
elseif(NVML_GPU_MONITOR_IMGUI)
    get_filename_component(imgui_dir "${NVML_GPU_MONITOR_IMGUI}" ABSOLUTE BASE_DIR "${CMAKE_SOURCE_DIR}")
    if(NOT EXISTS "${imgui_dir}/imgui.cpp")
        message(FATAL_ERROR "NVML_GPU_MONITOR_IMGUI is ${NVML_GPU_MONITOR_IMGUI}: neither a CMake target that exists "
            "by now nor a folder with an imgui.cpp in it.")
    endif()
    add_library(nvml_gpu_monitor_imgui STATIC EXCLUDE_FROM_ALL
        "${imgui_dir}/imgui.cpp" "${imgui_dir}/imgui_draw.cpp"
        "${imgui_dir}/imgui_tables.cpp" "${imgui_dir}/imgui_widgets.cpp")
    target_include_directories(nvml_gpu_monitor_imgui SYSTEM PUBLIC "${imgui_dir}")
    set_target_properties(nvml_gpu_monitor_imgui PROPERTIES POSITION_INDEPENDENT_CODE ON)
else()
    find_path(NVML_GPU_MONITOR_IMGUI_INCLUDE_DIR imgui.h PATH_SUFFIXES imgui)
    find_library(NVML_GPU_MONITOR_IMGUI_LIBRARY imgui)
    # Debian's ImGui takes its fonts' code from a library of its own.
    find_library(NVML_GPU_MONITOR_STB_LIBRARY stb)
    mark_as_advanced(NVML_GPU_MONITOR_IMGUI_INCLUDE_DIR NVML_GPU_MONITOR_IMGUI_LIBRARY NVML_GPU_MONITOR_STB_LIBRARY)
    if(NVML_GPU_MONITOR_IMGUI_INCLUDE_DIR AND NVML_GPU_MONITOR_IMGUI_LIBRARY)
        add_library(nvml_gpu_monitor_imgui INTERFACE)
        target_include_directories(nvml_gpu_monitor_imgui SYSTEM INTERFACE "${NVML_GPU_MONITOR_IMGUI_INCLUDE_DIR}")
        target_link_libraries(nvml_gpu_monitor_imgui INTERFACE "${NVML_GPU_MONITOR_IMGUI_LIBRARY}")
        if(NVML_GPU_MONITOR_STB_LIBRARY)
            target_link_libraries(nvml_gpu_monitor_imgui INTERFACE "${NVML_GPU_MONITOR_STB_LIBRARY}")
        endif()
    endif()
endif()
