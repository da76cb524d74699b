#ifndef GPU_FEED_TUNING_TEXT_H
#define GPU_FEED_TUNING_TEXT_H

#include <string>

#include "gpu_feed/tuning_change.h"
#include "nvml_gpu_monitor.h"

/// \file
/// Settings of GPUs and their changes in words. These texts have no line break.

namespace gpu_feed {

/// Follows every refusal for lack of rights.
constexpr const char* kRightsAdvice =
    "Changing GPUs needs root: run the same command with sudo, or in a container with CAP_SYS_ADMIN.";

/// Shown before a change where `TuningCapabilities::bRights` is false.
constexpr const char* kNoRights =
    "This program lacks root's rights (CAP_SYS_ADMIN), so the driver will probably refuse changes.";

// ---- Settings; a value that was not read shows as a dash ----

/// A pair of clocks.
std::string ClocksText(int graphicsMHz, int memoryMHz);

/// Watts to the milliwatt, without zeros at the end. As a value of `gpu_monitor set-power` it sets the same limit
/// again.
std::string WattsNumber(double watts);

std::string WattsText(double watts);

/// The driver gives both ends of a range or neither.
std::string RangeText(double minimumWatts, double maximumWatts);
std::string RangeText(const GpuPowerCapabilities& capabilities);

/// The clocks that run: "Running ...".
std::string RunningText(const GpuClockCapabilities& capabilities);

/// The limit in force and what else it could be: "In force ...".
std::string PowerText(const GpuPowerCapabilities& capabilities);

/// Whether the setting can be changed, and otherwise why not, as a sentence.
std::string CanLockText(const GpuClockCapabilities& capabilities);
std::string CanSetText(const GpuPowerCapabilities& capabilities);

// ---- Changes ----

/// What a change does: "lock the clocks to ...".
std::string ActionText(const TuningChange& change);

/// What the user is asked to agree to, as a sentence.
std::string IntentText(const TuningChange& change);

/// What the driver has agreed to, as a sentence.
std::string TakenText(const TuningChange& change);

/// What is in force after a change: "clocks locked to ...".
std::string OutcomeText(const TuningChange& change);

/// A sentence for the user after a lock that failed half-way; empty when no lock did.
std::string HalfLockText(HalfLock half);

/// A command line of gpu_monitor for one GPU; `values` and `simulateOption` may be empty.
std::string CommandLineFor(const std::string& command, unsigned int gpu, const std::string& values,
                           const std::string& simulateOption);

/// The command line of gpu_monitor that makes a change.
std::string CommandOf(const TuningChange& change, unsigned int gpu, const std::string& simulateOption);

/// What the user can do about a change that did not go back to `back`: the command that makes `back`. Empty when the
/// GPU is gone, because its index may be that of another one now.
std::string TryAgainText(const TuningRecord& record, const TuningChange& back, const std::string& simulateOption);

}  // namespace gpu_feed

#endif  // GPU_FEED_TUNING_TEXT_H
