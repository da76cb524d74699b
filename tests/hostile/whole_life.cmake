add_test_program(whole_life whole_life.cpp
    LIBRARIES monitor_under_test simulated_loader failing_memory fixed_boards sampler_clock)
