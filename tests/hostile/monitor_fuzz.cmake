option(NVML_GPU_MONITOR_FUZZER "Link monitor_fuzz with libFuzzer (clang++ only; the preset `fuzz` sets what it needs)"
    OFF)

add_executable(monitor_fuzz monitor_fuzz.cpp)
target_link_libraries(monitor_fuzz PRIVATE monitor_under_test simulated_loader sampler_clock fixed_boards)
target_compile_features(monitor_fuzz PRIVATE cxx_std_17)
set_target_properties(monitor_fuzz PROPERTIES CXX_EXTENSIONS OFF)
nvml_gpu_monitor_strict_warnings(monitor_fuzz)

file(GLOB monitor_fuzz_inputs CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/corpus/*")
if(NVML_GPU_MONITOR_FUZZER)
    # The monitor calls the driver by types of its own, as it has to without NVML's header. The records among their
    # parameters have other names on the driver's side, which this check takes for another function.
    target_compile_options(monitor_under_test PRIVATE -fno-sanitize=function)
    # The sanitizers' own code looks names up through the loader, too, before what they add to code can run.
    target_compile_options(simulated_loader PRIVATE -fno-sanitize=all)
    # The fuzzer is to look for new ways through the monitor, not through the simulator.
    target_compile_options(simulated_nvml PRIVATE -fno-sanitize=fuzzer-no-link)
    # At the link only: the preset compiles everything with the coverage that this needs.
    target_link_options(monitor_fuzz PRIVATE -fsanitize=fuzzer)
    add_test(NAME fuzz.replay COMMAND monitor_fuzz ${monitor_fuzz_inputs})
else()
    target_sources(monitor_fuzz PRIVATE monitor_fuzz_replay.cpp)
    add_test(NAME fuzz.replay COMMAND monitor_fuzz ${monitor_fuzz_inputs})
endif()
