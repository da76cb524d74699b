#ifndef GPU_FEED_TUNING_SESSION_H
#define GPU_FEED_TUNING_SESSION_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "gpu_feed/tuning_change.h"
#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// Changes GPUs and knows how to take that back. Belongs to one thread.
class TuningSession {
public:
    /// Makes a change, which goes back after `keepSeconds` if there is a way back. `onNoted` is called before the
    /// driver is asked, which may never answer.
    TuningResult Make(NvmlGpuMonitor* monitor, const std::string& gpuKey, const GpuDeviceInfo& device,
                      const TuningChange& change, double keepSeconds, const std::function<void()>& onNoted);

    /// Lets a change stay that would go back.
    void Keep(const std::string& gpuKey, TuningControl control);

    /// Takes the latest change back.
    TuningResult TakeBack(NvmlGpuMonitor* monitor, const std::string& gpuKey, TuningControl control);

    /// Takes the changes back that nobody has kept until `now`.
    void TakeBackOverdue(NvmlGpuMonitor* monitor, double now);

    /// Takes everything back that is outstanding; `Records` tell what could not be.
    void TakeAllBack(NvmlGpuMonitor* monitor);

    /// The moment of the next change to go back; none when none will.
    std::optional<double> NextDeadline() const;

    const std::vector<TuningRecord>& Records() const { return Changes; }

private:
    TuningRecord* Find(const std::string& gpuKey, TuningControl control);
    /// What is in force before a change; none when it could not be brought back.
    std::optional<TuningChange> InForceNow(NvmlGpuMonitor* monitor, const std::string& gpuKey, unsigned int index,
                                           const TuningChange& change);
    /// What is in force after a change that failed; `before` is the record as it was.
    static void NoteFailure(NvmlGpuMonitor* monitor, const TuningRecord& before, TuningRecord* record,
                            TuningResult* result);
    static TuningResult GoBack(NvmlGpuMonitor* monitor, const TuningChange& to, TuningRecord* record);

    std::vector<TuningRecord> Changes;
};

}  // namespace gpu_feed

#endif  // GPU_FEED_TUNING_SESSION_H
