#ifndef GPU_FEED_LIMIT_REASONS_H
#define GPU_FEED_LIMIT_REASONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace gpu_feed {

/// One reason why the clocks are what they are, as NVML gives it.
struct LimitReason {
    std::string Word;
    /// The GPU idles, which is no limit.
    bool bIdle = false;
    /// The hardware protects itself: from heat, or at the command of the power supply.
    bool bDanger = false;
};

/// The reasons in `mask`, which is `GpuTelemetrySample::PerformanceLimitReasons`, in the order of NVML's bits. Bits
/// without a name are given together as a hexadecimal number.
std::vector<LimitReason> LimitReasons(uint64_t mask);

}  // namespace gpu_feed

#endif  // GPU_FEED_LIMIT_REASONS_H
