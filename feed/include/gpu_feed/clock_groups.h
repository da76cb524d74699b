#ifndef GPU_FEED_CLOCK_GROUPS_H
#define GPU_FEED_CLOCK_GROUPS_H

#include <functional>
#include <map>
#include <vector>

#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// Graphics clocks in ascending order for each memory clock, the highest memory clock first. MHz.
using ClockGroups = std::map<int, std::vector<int>, std::greater<>>;

/// `pairs`, which are in the order of `GpuClockCapabilities::SupportedPairs`, in groups.
inline ClockGroups GroupByMemoryClock(const std::vector<GpuClockPair>& pairs) {
    ClockGroups groups;
    for (const GpuClockPair& pair : pairs) groups[pair.MemoryClockMHz].push_back(pair.GraphicsClockMHz);
    return groups;
}

}  // namespace gpu_feed

#endif  // GPU_FEED_CLOCK_GROUPS_H
