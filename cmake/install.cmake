include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

if(NVML_GPU_MONITOR_PROFILER_DIR)
    message(WARNING "The library that gets installed needs this host's GPUProfiler wherever it is linked.")
endif()

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/nvml_gpu_monitor")
set(source_dir "${CMAKE_INSTALL_DATADIR}/nvml_gpu_monitor")

# ---- The library, for hosts ----

install(TARGETS nvml_gpu_monitor EXPORT nvml_gpu_monitor
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
    INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(FILES include/nvml_gpu_monitor.h DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)
# For hosts that compile the library with the header of their own profiler.
install(FILES src/nvml_gpu_monitor.cpp DESTINATION "${source_dir}" COMPONENT development)
install(FILES profiler/gpu_profiler.h DESTINATION "${source_dir}/profiler" COMPONENT development)

# ---- The feed, for hosts with a user interface ----

install(TARGETS nvml_gpu_monitor_feed EXPORT nvml_gpu_monitor_feed
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
    INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(DIRECTORY feed/include/ DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)

# ---- find_package ----

install(EXPORT nvml_gpu_monitor NAMESPACE nvml_gpu_monitor:: FILE nvml_gpu_monitorTargets.cmake
    DESTINATION "${package_dir}" COMPONENT development)
# Apart from the library, which a host with a profiler of its own compiles itself.
install(EXPORT nvml_gpu_monitor_feed NAMESPACE nvml_gpu_monitor:: FILE nvml_gpu_monitorFeedTargets.cmake
    DESTINATION "${package_dir}" COMPONENT development)
configure_package_config_file(cmake/nvml_gpu_monitorConfig.cmake.in
    "${CMAKE_CURRENT_BINARY_DIR}/package/nvml_gpu_monitorConfig.cmake"
    INSTALL_DESTINATION "${package_dir}"
    PATH_VARS CMAKE_INSTALL_INCLUDEDIR source_dir)
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/package/nvml_gpu_monitorConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES
    "${CMAKE_CURRENT_BINARY_DIR}/package/nvml_gpu_monitorConfig.cmake"
    "${CMAKE_CURRENT_BINARY_DIR}/package/nvml_gpu_monitorConfigVersion.cmake"
    cmake/configure.cmake
    DESTINATION "${package_dir}" COMPONENT development)

# ---- pkg-config ----

# A host that links a static library also links what that needs.
set(pkg_config_libs "")
set(pkg_config_private_libs "-l${CMAKE_DL_LIBS} -pthread")
if(NVML_GPU_MONITOR_LIBRARY_TYPE STREQUAL "STATIC_LIBRARY")
    set(pkg_config_libs " ${pkg_config_private_libs}")
endif()
file(RELATIVE_PATH pkg_config_prefix
    "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" pkg_config_prefix "${pkg_config_prefix}")
# Relative to the prefix, so that an installation can be moved. A folder that is given absolutely stays absolute.
foreach(folder LIBDIR INCLUDEDIR)
    set(pkg_config_${folder} "${CMAKE_INSTALL_${folder}}")
    if(NOT IS_ABSOLUTE "${pkg_config_${folder}}")
        set(pkg_config_${folder} "\${prefix}/${pkg_config_${folder}}")
    endif()
endforeach()
configure_file(cmake/nvml_gpu_monitor.pc.in "${CMAKE_CURRENT_BINARY_DIR}/package/nvml_gpu_monitor.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/package/nvml_gpu_monitor.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

# ---- The programs and the simulator ----

file(RELATIVE_PATH library_from_programs "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
if(TARGET gpu_monitor)
    set_target_properties(gpu_monitor PROPERTIES INSTALL_RPATH "$ORIGIN/${library_from_programs}")
    install(TARGETS gpu_monitor RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    install(FILES programs/gpu_monitor/install/gpu_monitor.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tools)
    install(FILES programs/gpu_monitor/install/gpu_monitor.bash
        DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME gpu_monitor COMPONENT tools)
    install(FILES programs/gpu_monitor/install/gpu_monitor.fish
        DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d" COMPONENT tools)
    # Debian's zsh looks in one folder for what packages install and in another for what is in /usr/local.
    set(zsh_folder site-functions)
    if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        set(zsh_folder vendor-completions)
    endif()
    install(FILES programs/gpu_monitor/install/_gpu_monitor
        DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/${zsh_folder}" COMPONENT tools)
endif()
if(TARGET gpu_overlay)
    # It has the library in it, compiled with its own profiler.
    install(TARGETS gpu_overlay RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT overlay)
    install(FILES programs/gpu_overlay/install/gpu_overlay.1
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT overlay)
    install(FILES programs/gpu_overlay/install/gpu_overlay.desktop
        DESTINATION "${CMAKE_INSTALL_DATADIR}/applications" COMPONENT overlay)
endif()
if(TARGET gpu_exporter)
    set(exporter_dir programs/gpu_exporter)
    set_target_properties(gpu_exporter PROPERTIES INSTALL_RPATH "$ORIGIN/${library_from_programs}")
    install(TARGETS gpu_exporter RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT exporter)
    install(FILES ${exporter_dir}/install/gpu_exporter.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT exporter)
    # systemd looks for units and users below /usr and /usr/local alike.
    configure_file(${exporter_dir}/install/gpu-exporter.service.in
        "${CMAKE_CURRENT_BINARY_DIR}/package/gpu-exporter.service" @ONLY)
    install(FILES "${CMAKE_CURRENT_BINARY_DIR}/package/gpu-exporter.service"
        DESTINATION lib/systemd/system COMPONENT exporter)
    install(FILES ${exporter_dir}/install/gpu-exporter.sysusers
        DESTINATION lib/sysusers.d RENAME gpu-exporter.conf COMPONENT exporter)
    # Outside the prefix, so only packages bring it. The unit does without it.
    install(FILES ${exporter_dir}/install/gpu-exporter.default
        DESTINATION /etc/default RENAME gpu-exporter COMPONENT exporter EXCLUDE_FROM_ALL)
    install(FILES
        ${exporter_dir}/prometheus/scrape.yml
        ${exporter_dir}/prometheus/gpu_rules.yml
        ${exporter_dir}/prometheus/dashboard.json
        DESTINATION "${CMAKE_INSTALL_DATADIR}/gpu_exporter" COMPONENT exporter)
endif()
if(TARGET simulated_nvml)
    # In a folder of its own, where no loader looks by itself: it must never replace a driver by accident. With the link
    # libnvidia-ml.so, because some clients open that name.
    install(TARGETS simulated_nvml
        LIBRARY DESTINATION lib/nvml_gpu_monitor/simulator COMPONENT simulator)
endif()

if(NVML_GPU_MONITOR_PACKAGES)
    include(cmake/packages.cmake)
endif()
