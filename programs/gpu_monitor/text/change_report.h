#ifndef GPU_MONITOR_CHANGE_REPORT_H
#define GPU_MONITOR_CHANGE_REPORT_H

#include <string>

#include "gpu_feed/tuning_change.h"
#include "text/tuning_format.h"

/// What a command did to one GPU.
struct GpuChange {
    GpuDeviceInfo Device;
    GpuClockOperationResult Result = GpuClockOperationResult::Error;
    /// Why the change was not made, and what can be done; empty after success, and where nothing is known.
    std::string Error = {};
    std::string Advice = {};
    // After success: the report, and what was read afterwards of the setting that was changed.
    Details Report = {};
    GpuTelemetrySample SampleNow = {};
    GpuPowerCapabilities PowerNow = {};
};

// What the commands that change GPUs print about one GPU. `gpu` and `simulateOption` are those of the commands that the
// user can copy, see `CommandOf`.

/// Whether exactly the clocks of `pair` run.
bool RunsPair(const GpuTelemetrySample& sample, const GpuClockPair& pair);

/// After the clocks were locked to `pair`; `now` was read afterwards.
Details LockReport(const GpuClockPair& pair, const GpuTelemetrySample& now, unsigned int gpu,
                   const std::string& simulateOption);

/// After locked clocks were released; `now` was read afterwards.
Details ReleaseReport(const GpuTelemetrySample& now, unsigned int gpu, const std::string& simulateOption);

/// After a change of the power limit; `before` and `now` are the capabilities before and after it.
Details PowerReport(const gpu_feed::TuningChange& change, const GpuPowerCapabilities& before,
                    const GpuPowerCapabilities& now, unsigned int gpu, const std::string& simulateOption);

/// The limit that `change` asks for; negative when that is a default that was not read.
double AskedWatts(const gpu_feed::TuningChange& change, const GpuPowerCapabilities& capabilities);

/// The remark of a report, and its command that takes the change back; empty when it has none.
std::string NoteOf(const Details& report);
std::string UndoOf(const Details& report);

/// After a lock that failed half-way.
std::string HalfLockAdvice(gpu_feed::HalfLock half, unsigned int gpu, const std::string& simulateOption);

/// What can be locked after the lock to `pair` was refused with `error`; empty when that would not help.
std::string LockAdvice(const GpuClockPair& pair, const std::string& error, const GpuClockCapabilities& capabilities,
                       unsigned int gpu, const std::string& simulateOption);

/// What can be set after a change of the power limit was refused; `before` are the capabilities before it. Empty when
/// that would not help.
std::string PowerAdvice(const gpu_feed::TuningChange& change, const GpuPowerCapabilities& before);

#endif  // GPU_MONITOR_CHANGE_REPORT_H
