find_package(CLI11 CONFIG REQUIRED)

# Through the simulated loader, which also sees a library that is closed while NVML is up. Where the monitor is a shared
# library its calls go past that loader, and only this one kind of misuse goes unseen.
add_executable(soak soak.cpp)
target_link_libraries(soak PRIVATE nvml_gpu_monitor::nvml_gpu_monitor simulated_loader CLI11::CLI11)
set_target_properties(soak PROPERTIES CXX_EXTENSIONS OFF)
nvml_gpu_monitor_strict_warnings(soak)

# As many rounds as a leak of one small block in each needs to show.
add_test(NAME soak.short COMMAND soak --seconds 2 --boards 3 --cycles 1500)
set_tests_properties(soak.short PROPERTIES LABELS soak)
