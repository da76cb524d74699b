#ifndef GPU_FEED_LIMIT_REASONS_H
#define GPU_FEED_LIMIT_REASONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace gpu_feed {

/// The bits of `GpuTelemetrySample::PerformanceLimitReasons` that stand for the power drawn, and those for heat.
constexpr uint64_t kPowerReasons = 0x4 | 0x80;
constexpr uint64_t kThermalReasons = 0x8 | 0x20 | 0x40;

/// One reason why the clocks are not higher.
struct LimitReason {
    /// For people.
    std::string Word;
    /// The GPU is idle: nothing limits it.
    bool bIdle = false;
    /// The hardware protects itself from heat, or because the power supply demands it.
    bool bDanger = false;
};

/// A bit of `GpuTelemetrySample::PerformanceLimitReasons`, and the reason that it stands for.
struct NamedLimitReason {
    uint64_t Bit;
    LimitReason Reason;
};

/// Every bit that has a name, in the order of NVML's bits.
const std::vector<NamedLimitReason>& NamedLimitReasons();

/// The reasons in `mask`, which is `GpuTelemetrySample::PerformanceLimitReasons`, in the order of NVML's bits. Bits
/// without a name come last, together, as one hexadecimal number.
std::vector<LimitReason> LimitReasons(uint64_t mask);

}  // namespace gpu_feed

#endif  // GPU_FEED_LIMIT_REASONS_H
