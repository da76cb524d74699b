#ifndef FIXED_BOARDS_H
#define FIXED_BOARDS_H

#include <cstdint>
#include <vector>

#include "simulated_nvml.h"

/// \file
/// Boards of the simulated NVML that always answer the same, for tests that compare what comes out with what went in.

namespace fixed_boards {

/// Every reading has a value of its own, so that a test notices two that are swapped. Some are the highest of their
/// range. Process 10 uses 1000 bytes; process 11 uses 2000 to compute and 3000 to draw.
inline simulated_nvml::Readings DistinctReadings() {
    simulated_nvml::Readings readings;
    readings.TemperatureC = 61;
    readings.GpuPercent = 62;
    readings.MemoryPercent = 63;
    readings.EncoderPercent = 64;
    readings.DecoderPercent = 65;
    readings.PowerMilliwatts = UINT32_MAX;
    readings.FanPercent = 66;
    readings.GraphicsMHz = 2100;
    readings.SmMHz = 2101;
    readings.MemoryMHz = 9501;
    readings.VideoMHz = 1785;
    readings.PerformanceState = 2;
    readings.PcieGeneration = 4;
    readings.PcieWidth = 16;
    readings.PcieReceiveKiBPerSecond = UINT32_MAX;
    readings.PcieTransmitKiBPerSecond = 512;
    readings.LimitReasons = UINT64_MAX;
    readings.VramUsedBytes = 5'000'000'000;
    readings.Bar1UsedBytes = 12'000'000;
    readings.ComputeProcesses = {{10, 1000}, {11, 2000}};
    readings.GraphicsProcesses = {{11, 3000}};
    return readings;
}

/// Memory clock 5001 with graphics clock 1500, and memory clock 810 with 1500, 300 and once more 300.
inline std::vector<simulated_nvml::ClockGroup> FewClocks() {
    return {{5001, {1500}}, {810, {1500, 300, 300}}};
}

/// `count` desktop boards with these readings and clocks.
inline std::vector<simulated_nvml::Board> FixedBoards(
    unsigned int count, const simulated_nvml::Readings& readings = DistinctReadings(),
    const std::vector<simulated_nvml::ClockGroup>& clocks = FewClocks()) {
    std::vector<simulated_nvml::Board> boards;
    for (unsigned int i = 0; i < count; ++i) {
        boards.push_back(simulated_nvml::DesktopBoard(i));
        boards.back().Fixed = readings;
        boards.back().Clocks = clocks;
    }
    return boards;
}

}  // namespace fixed_boards

#endif  // FIXED_BOARDS_H
