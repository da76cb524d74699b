# `cpack` makes Debian packages of what is built: the library when it is shared, the development files, the programs, and
# the simulator. The target `packaged` builds all of it.
add_custom_target(packaged)
add_dependencies(packaged nvml_gpu_monitor nvml_gpu_monitor_feed)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "nvml_gpu_monitor")
set(CPACK_PACKAGE_CONTACT "nvml_gpu_monitor developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where the program's shared library is, which no installed package contains.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_CURRENT_BINARY_DIR}")

set(CPACK_COMPONENTS_ALL development)
if(NVML_GPU_MONITOR_LIBRARY_TYPE STREQUAL "SHARED_LIBRARY")
    list(APPEND CPACK_COMPONENTS_ALL runtime)
    set(library_package "libnvml-gpu-monitor${PROJECT_VERSION_MAJOR}")
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library_package} (= ${PROJECT_VERSION})")
    set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library_package} (>= ${PROJECT_VERSION})")
    set(CPACK_DEBIAN_EXPORTER_PACKAGE_DEPENDS "${library_package} (>= ${PROJECT_VERSION}), ")
endif()
if(TARGET gpu_monitor)
    list(APPEND CPACK_COMPONENTS_ALL tools)
    add_dependencies(packaged gpu_monitor)
endif()
if(TARGET gpu_overlay)
    list(APPEND CPACK_COMPONENTS_ALL overlay)
    add_dependencies(packaged gpu_overlay)
endif()
if(TARGET gpu_exporter)
    list(APPEND CPACK_COMPONENTS_ALL exporter)
    add_dependencies(packaged gpu_exporter)
endif()
if(TARGET simulated_nvml)
    list(APPEND CPACK_COMPONENTS_ALL simulator)
    add_dependencies(packaged simulated_nvml)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${library_package}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Telemetry and tuning of NVIDIA GPUs, shared library
Reads every NVIDIA GPU into bounded histories for a program that embeds it,
and changes clocks and power limits. Harmless where there is no driver.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libnvml-gpu-monitor-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "Telemetry and tuning of NVIDIA GPUs, development files
Headers, CMake package, pkg-config file, the feed for programs with a user
interface, and the source for programs that compile it with their own frame
profiler.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME gpu-monitor)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS nvml-gpu-monitor-simulator)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Shows and tunes the NVIDIA GPUs of this machine
A live view for the terminal, readings as text, JSON and CSV, and changes of
clocks and power limits.")

set(CPACK_DEBIAN_OVERLAY_PACKAGE_NAME gpu-overlay)
set(CPACK_DEBIAN_OVERLAY_PACKAGE_SECTION utils)
# Opened by name at run time.
set(CPACK_DEBIAN_OVERLAY_PACKAGE_DEPENDS libgl1)
# What a killed program has left is undone by gpu_monitor.
set(CPACK_DEBIAN_OVERLAY_PACKAGE_RECOMMENDS gpu-monitor)
set(CPACK_DEBIAN_OVERLAY_PACKAGE_SUGGESTS nvml-gpu-monitor-simulator)
set(CPACK_DEBIAN_OVERLAY_DESCRIPTION "Shows how NVIDIA GPUs follow a scene that is drawn
Draws a scene whose work a slider sets, and shows the GPU time of its frames
over power, temperature, clocks and limits, which can be changed.")

set(CPACK_DEBIAN_EXPORTER_PACKAGE_NAME gpu-exporter)
set(CPACK_DEBIAN_EXPORTER_PACKAGE_SECTION net)
# The user is made by systemd-sysusers.
string(APPEND CPACK_DEBIAN_EXPORTER_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_EXPORTER_PACKAGE_SUGGESTS "prometheus, nvml-gpu-monitor-simulator")
set(exporter_control_dir "${CMAKE_CURRENT_SOURCE_DIR}/programs/gpu_exporter/install/debian")
set(CPACK_DEBIAN_EXPORTER_PACKAGE_CONTROL_EXTRA
    "${exporter_control_dir}/conffiles;${exporter_control_dir}/postinst"
    "${exporter_control_dir}/prerm;${exporter_control_dir}/postrm")
set(CPACK_DEBIAN_EXPORTER_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_EXPORTER_DESCRIPTION "Exports the telemetry of NVIDIA GPUs to Prometheus
Serves the readings of all GPUs of this machine over HTTP, as a service with a
user of its own. Brings rules, alerts and a dashboard for Grafana.")

set(CPACK_DEBIAN_SIMULATOR_PACKAGE_NAME nvml-gpu-monitor-simulator)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_SIMULATOR_DESCRIPTION "Simulated NVIDIA management library
A libnvidia-ml.so.1 without hardware, whose boards behave like real ones, for
programs that ask for it.")

include(CPack)
