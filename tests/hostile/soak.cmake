find_package(CLI11 CONFIG REQUIRED)

add_executable(soak soak.cpp)
target_link_libraries(soak PRIVATE monitor_under_test simulated_loader sampler_clock fixed_boards CLI11::CLI11)
set_target_properties(soak PROPERTIES CXX_EXTENSIONS OFF)
nvml_gpu_monitor_strict_warnings(soak)

# As many rounds as a leak of one small block in each needs to show.
add_test(NAME soak.short COMMAND soak --boards 3 --cycles 1500)
set_tests_properties(soak.short PROPERTIES LABELS soak)
