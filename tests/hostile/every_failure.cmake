add_test_program(every_failure every_failure.cpp
    LIBRARIES monitor_under_test simulated_loader failing_memory fixed_boards sampler_clock)
