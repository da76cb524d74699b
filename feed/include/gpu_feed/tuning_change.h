#ifndef GPU_FEED_TUNING_CHANGE_H
#define GPU_FEED_TUNING_CHANGE_H

#include <optional>
#include <string>

#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// Which of a GPU's settings is changed.
enum class TuningControl { Clocks, Power };

/// A setting of a GPU, as it is asked of the driver.
struct TuningChange {
    enum class Kind { LockClocks, ResetClocks, SetPower, ResetPower };

    Kind What;
    /// Of a lock.
    GpuClockPair Pair = {};
    /// Of a power limit.
    double Watts = 0.0;

    TuningControl Control() const;
    friend bool operator==(const TuningChange& a, const TuningChange& b);
    friend bool operator!=(const TuningChange& a, const TuningChange& b) { return !(a == b); }
};

/// Whether both are the same limit for the driver, which knows milliwatts.
bool IsSameLimit(double watts, double otherWatts);

bool IsInRange(double watts, const GpuPowerCapabilities& capabilities);

/// What brings the power limit back that is in force when `capabilities` are told; none when it cannot be set or is not
/// known.
std::optional<TuningChange> PowerUndo(const GpuPowerCapabilities& capabilities);

/// What `change` of the power limit is taken back by: `PowerUndo` or, where there is none, the default, as near as one
/// comes. None when the default is not known, or is what `change` sets.
std::optional<TuningChange> PowerWayBack(const TuningChange& change, const GpuPowerCapabilities& capabilities);

/// What a user should know of a lock that failed half-way, once it is released.
constexpr const char* kBothLocksReleased = "Both locks of this GPU were released, an earlier one too.";

/// Whether a lock has failed half-way, as its sentence tells: the graphics clock may be locked still, and an earlier
/// lock is gone.
bool HasFailedHalfWay(const std::string& error);

struct TuningResult {
    GpuClockOperationResult Result = GpuClockOperationResult::Error;
    /// For the user; empty after success.
    std::string Error;
};

/// A setting that the program has changed.
struct TuningRecord {
    std::string GpuKey;
    GpuDeviceInfo Device;
    /// What was in force before the program changed it, as far as that can be told: a lock that another program has set
    /// cannot, and counts as none.
    TuningChange Before;
    /// What the program has set, or is about to.
    TuningChange InForce;
    /// What `InForce` goes back to unless it is kept: what was found before the change or, of several changes that
    /// nobody has kept, before the first one.
    TuningChange Previous;
    /// When it does so by itself, in steady-clock seconds; 0 when it does not, or has.
    double Deadline = 0.0;
    /// Why it could not go back, for the user; empty while it has not failed to.
    std::string Problem = {};

    /// Whether there is anything to take back.
    bool IsOutstanding() const { return InForce != Before; }
};

}  // namespace gpu_feed

#endif  // GPU_FEED_TUNING_CHANGE_H
