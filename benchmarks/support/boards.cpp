#include "boards.h"

#include <utility>
#include <vector>

#include "simulated_nvml.h"

void UseBoards(int64_t count, int64_t processes) {
    simulated_nvml::Readings readings;
    for (unsigned int pid = 1; pid <= static_cast<unsigned int>(processes); ++pid) {
        readings.ComputeProcesses.push_back({pid, uint64_t{pid} << 20});
    }
    readings.GraphicsProcesses = readings.ComputeProcesses;

    std::vector<simulated_nvml::Board> boards;
    for (unsigned int i = 0; i < static_cast<unsigned int>(count); ++i) {
        boards.push_back(simulated_nvml::DesktopBoard(i));
        boards.back().Fixed = readings;
    }
    auto& simulator = simulated_nvml::SimulatedNvml::Get();
    simulator.Reset();
    // Then the simulator does not read the clock in each call: the less time it takes, the more a comparison shows.
    simulator.HoldTimeAt(0.0);
    simulator.SetBoards(std::move(boards));
}
