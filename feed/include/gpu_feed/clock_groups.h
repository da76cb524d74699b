#ifndef GPU_FEED_CLOCK_GROUPS_H
#define GPU_FEED_CLOCK_GROUPS_H

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <map>
#include <vector>

#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// For each memory clock, the highest first, its graphics clocks in ascending order. MHz.
using ClockGroups = std::map<int, std::vector<int>, std::greater<>>;

/// Groups `pairs`, which are in the order of `GpuClockCapabilities::SupportedPairs`.
inline ClockGroups GroupByMemoryClock(const std::vector<GpuClockPair>& pairs) {
    ClockGroups groups;
    for (const GpuClockPair& pair : pairs) groups[pair.MemoryClockMHz].push_back(pair.GraphicsClockMHz);
    return groups;
}

/// Where in `clocks`, which is not empty, the one nearest to `wanted` is.
inline size_t NearestPlace(const std::vector<int>& clocks, int wanted) {
    const auto nearest = std::min_element(
        clocks.begin(), clocks.end(), [wanted](int a, int b) { return std::abs(a - wanted) < std::abs(b - wanted); });
    return static_cast<size_t>(nearest - clocks.begin());
}

}  // namespace gpu_feed

#endif  // GPU_FEED_CLOCK_GROUPS_H
