# gpu_exporter needs more than the other programs. Where something is missing, it is left out.
find_package(civetweb CONFIG QUIET)
find_package(prometheus-cpp CONFIG QUIET)
set(exporter_missing "")
nvml_gpu_monitor_note_missing(exporter_missing
    "prometheus-cpp::core prometheus-cpp" "prometheus-cpp::pull the pull library of prometheus-cpp"
    "civetweb::civetweb-cpp CivetWeb for C++")
nvml_gpu_monitor_add_optional_program(gpu_exporter ${exporter_missing})
