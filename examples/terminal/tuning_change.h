#ifndef GPU_MONITOR_TUNING_CHANGE_H
#define GPU_MONITOR_TUNING_CHANGE_H

#include <future>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "monitor_feed.h"

/// What every refusal for lack of rights is followed by, as a line.
constexpr const char* kRightsAdvice =
    "Changing GPUs needs root: run the same command with sudo, or in a container with CAP_SYS_ADMIN.";

/// A setting of a GPU, as it is asked of the driver.
struct TuningChange {
    enum class Kind { LockClocks, ResetClocks, SetPower, ResetPower };

    Kind What;
    /// Of a lock.
    GpuClockPair Pair = {};
    /// Of a power limit.
    double Watts = 0.0;
};

bool operator==(const TuningChange& a, const TuningChange& b);

/// Which of a GPU's settings a change is of.
enum class TuningControl { Clocks, Power };
TuningControl ControlOf(const TuningChange& change);

/// What a change does, as the rest of a sentence: "lock the clocks to ...".
std::string ActionText(const TuningChange& change);

/// A command line of this program for one GPU; `values` and `simulateOption` may be empty.
std::string CommandLineFor(const std::string& command, unsigned int gpu, const std::string& values,
                           const std::string& simulateOption);

/// The command line of this program that makes a change.
std::string CommandOf(const TuningChange& change, unsigned int gpu, const std::string& simulateOption);

/// Whether both are the same limit for the driver, which knows milliwatts.
bool IsSameLimit(double watts, double otherWatts);

bool IsInRange(double watts, const GpuPowerCapabilities& capabilities);

/// What brings the power limit back that was in force when `before` was told. None when that cannot be set: the default
/// is as near as one comes.
std::optional<TuningChange> PowerUndo(const GpuPowerCapabilities& before);

std::future<TuningResult> Request(MonitorFeed* feed, const std::string& gpuKey, const TuningChange& change);

/// What this program has changed and not taken back, so that it can be.
class ChangeLedger {
public:
    struct Entry {
        GpuDeviceInfo Device;
        /// What was in force before the first change, and what is now.
        TuningChange Before;
        TuningChange InForce;
    };
    using Place = std::pair<std::string, TuningControl>;

    /// What takes `change` back: an earlier change of this program or, before the first one, `original`.
    TuningChange UndoOf(const std::string& gpuKey, const TuningChange& change, const TuningChange& original) const;

    /// Notes a change before it is asked for: from then on it can be in force. `original` is what was in force before,
    /// if this is the first one.
    void Note(const FeedGpu& gpu, const TuningChange& change, const TuningChange& original);

    const std::map<Place, Entry>& Entries() const { return Changes; }

private:
    std::map<Place, Entry> Changes;
};

#endif  // GPU_MONITOR_TUNING_CHANGE_H
