#ifndef GPU_FEED_CLOCK_GROUPS_H
#define GPU_FEED_CLOCK_GROUPS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
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
    // Wide enough for the difference of any two numbers that a driver gives.
    const auto distance = [wanted](int clock) { return std::abs(int64_t{clock} - wanted); };
    const auto nearest =
        std::min_element(clocks.begin(), clocks.end(), [&distance](int a, int b) { return distance(a) < distance(b); });
    return static_cast<size_t>(nearest - clocks.begin());
}

}  // namespace gpu_feed

#endif  // GPU_FEED_CLOCK_GROUPS_H
