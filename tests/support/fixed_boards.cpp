#include "fixed_boards.h"

namespace fixed_boards {

using namespace simulated_nvml;

Readings DistinctReadings() {
    Readings readings;
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

std::vector<ClockGroup> FewClocks() {
    return {{5001, {1500}}, {810, {1500, 300, 300}}};
}

std::vector<Board> FixedBoards(unsigned int count, const Readings& readings, const std::vector<ClockGroup>& clocks) {
    std::vector<Board> boards;
    for (unsigned int i = 0; i < count; ++i) {
        boards.push_back(DesktopBoard(i));
        boards.back().Fixed = readings;
        boards.back().Clocks = clocks;
    }
    return boards;
}

}  // namespace fixed_boards
