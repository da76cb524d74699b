#ifndef GPU_FEED_LIMIT_REASONS_H
#define GPU_FEED_LIMIT_REASONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace gpu_feed {

// ---- The bits of GpuTelemetrySample::PerformanceLimitReasons, as NVML has them ----
//
//     if ((sample.PerformanceLimitReasons & gpu_feed::kThermalReasons) != 0) LowerTheQuality();

/// The GPU is idle, which is no limit.
constexpr uint64_t kIdleReason = 0x1;
/// The clocks are those that somebody has set for applications.
constexpr uint64_t kApplicationClocksReason = 0x2;
/// The driver keeps the board within its power limit.
constexpr uint64_t kPowerCapReason = 0x4;
/// The hardware has lowered the clocks by itself, for heat or power.
constexpr uint64_t kHardwareSlowdownReason = 0x8;
/// The GPU keeps to the clocks of the others in its group.
constexpr uint64_t kSyncBoostReason = 0x10;
/// The driver lowers the clocks for heat.
constexpr uint64_t kDriverThermalReason = 0x20;
/// The hardware lowers the clocks for heat.
constexpr uint64_t kHardwareThermalReason = 0x40;
/// The power supply demands lower clocks.
constexpr uint64_t kPowerBrakeReason = 0x80;
/// The clocks are those that the display needs.
constexpr uint64_t kDisplayClocksReason = 0x100;

/// All that stand for the power drawn.
constexpr uint64_t kPowerReasons = kPowerCapReason | kPowerBrakeReason;
/// All that stand for heat; the hardware's slowdown is among them, although it can also come from power.
constexpr uint64_t kThermalReasons = kHardwareSlowdownReason | kDriverThermalReason | kHardwareThermalReason;

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
