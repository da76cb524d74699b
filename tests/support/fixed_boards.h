#ifndef FIXED_BOARDS_H
#define FIXED_BOARDS_H

#include <vector>

#include "simulated_nvml.h"

/// \file
/// Boards of the simulated NVML that always answer the same, for tests that compare what comes out with what went in.

namespace fixed_boards {

/// Every reading has a value of its own, so that a test notices two that are swapped. Some are the highest of their
/// range. Process 10 uses 1000 bytes, process 11 uses 2000 to compute and 3000 to draw.
simulated_nvml::Readings DistinctReadings();

/// 5001 MHz of memory with graphics clock 1500, and 810 MHz with 1500, 300 and once more 300.
std::vector<simulated_nvml::ClockGroup> FewClocks();

/// `count` desktop boards with these readings and clocks.
std::vector<simulated_nvml::Board> FixedBoards(unsigned int count,
                                               const simulated_nvml::Readings& readings = DistinctReadings(),
                                               const std::vector<simulated_nvml::ClockGroup>& clocks = FewClocks());

}  // namespace fixed_boards

#endif  // FIXED_BOARDS_H
