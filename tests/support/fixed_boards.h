#ifndef FIXED_BOARDS_H
#define FIXED_BOARDS_H

#include <cstdint>
#include <vector>

#include "simulated_nvml.h"

/// \file
/// Boards of the simulated NVML that always answer the same, for tests that compare exact values.

namespace fixed_boards {

/// Nearly all readings differ, so that a test notices two that are swapped. Some are the highest possible value.
/// Process 10 uses 1000 bytes; process 11 uses 2000 to compute and 3000 to draw.
inline simulated_nvml::Readings DistinctReadings() {
    // In the order of the members.
    // clang-format off
    return {61, 62, 63, 64, 65, UINT32_MAX, 66, 2100, 2101, 9501, 1785, 2, 4, 16, UINT32_MAX, 512, UINT64_MAX,
            5'000'000'000, 12'000'000, {{10, 1000}, {11, 2000}}, {{11, 3000}}};
    // clang-format on
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
