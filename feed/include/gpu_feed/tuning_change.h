#ifndef GPU_FEED_TUNING_CHANGE_H
#define GPU_FEED_TUNING_CHANGE_H

#include <optional>
#include <string>

#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// The settings of a GPU that can be changed.
enum class TuningControl { Clocks, Power };

/// One change of a GPU's setting.
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

/// Whether the driver lets the power limit be set, and whether it has a default to go back to.
bool CanSetPower(const GpuPowerCapabilities& capabilities);
bool CanSetDefaultPower(const GpuPowerCapabilities& capabilities);

bool IsInRange(double watts, const GpuPowerCapabilities& capabilities);

/// The change that sets the power limit of `capabilities` again; empty when it is not known or cannot be set.
std::optional<TuningChange> PowerUndo(const GpuPowerCapabilities& capabilities);

/// The change that takes `change` of the power limit back: `PowerUndo` or else the default. Empty when the default is
/// not known, or is what `change` sets.
std::optional<TuningChange> PowerWayBack(const TuningChange& change, const GpuPowerCapabilities& capabilities);

/// How a lock ended whose first half, the graphics clock, was made and whose second half failed.
enum class HalfLock {
    /// No lock failed in this way.
    None,
    /// Both clocks were released, and with them an earlier lock.
    Released,
    /// The release failed too.
    MayRemain,
};

/// The result of a change.
struct TuningResult {
    GpuClockOperationResult Result = GpuClockOperationResult::Error;
    /// The monitor's sentence for the user; empty after success.
    std::string Error = {};
    HalfLock Half = HalfLock::None;
    /// Before a change of the power limit, as the driver gave it. Not read for changes of clocks.
    GpuPowerCapabilities PowerBefore = {};
};

/// The answer to a request for a GPU that was not found.
constexpr const char* kGpuIsGone = "The GPU is not there any more.";

/// A setting that the program has changed.
struct TuningRecord {
    std::string GpuKey;
    GpuDeviceInfo Device;
    /// What was in force before the program changed it. NVML does not show the locks of other programs, so clocks count
    /// as released then.
    TuningChange Before;
    /// What the program has set, or is about to.
    TuningChange InForce;
    /// What `InForce` goes back to unless it is kept: what was found before the change or, of several changes that
    /// nobody has kept, before the first one.
    TuningChange Previous;
    /// When it goes back without being asked, in steady-clock seconds; 0 when it was kept or has gone back.
    double Deadline = 0.0;
    /// Why it could not go back, for the user; empty unless that has failed.
    std::string Problem = {};
    /// A warning of the journal about the latest change, for the user; usually empty. See `ChangeJournal`.
    std::string Warning = {};
    /// Whether NVML was started anew and did not find the GPU. Nothing is asked of it then, because its index may be
    /// that of another one now.
    bool bGpuGone = false;

    /// Whether there is anything to take back.
    bool IsOutstanding() const { return InForce != Before; }
};

}  // namespace gpu_feed

#endif  // GPU_FEED_TUNING_CHANGE_H
