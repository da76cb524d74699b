#ifndef GPU_FEED_TUNING_SESSION_H
#define GPU_FEED_TUNING_SESSION_H

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gpu_feed/change_journal.h"
#include "gpu_feed/tuning_change.h"
#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// Changes GPUs, remembers what was in force before, and takes changes back. Belongs to one thread.
///
/// Where memory runs out, a change goes back later: its deadline stays until the driver has answered.
class TuningSession {
public:
    /// `journal` notes each change that can be taken back, until it has gone back.
    explicit TuningSession(ChangeJournal journal = {}) : Notes(std::move(journal)) {}

    /// Makes a change. It can be taken back where there is a way back, and is overdue after `keepSeconds`; without
    /// `keepSeconds` it stays. `onNoted` is called when the change is in `Records` and before the driver, which may
    /// never answer, is asked for it.
    TuningResult Make(
        NvmlGpuMonitor* monitor, const std::string& gpuKey, const GpuDeviceInfo& device, const TuningChange& change,
        std::optional<double> keepSeconds = std::nullopt, const std::function<void()>& onNoted = [] {});

    /// Lets the latest change stay.
    void Keep(const std::string& gpuKey, TuningControl control);

    /// Takes the latest change back.
    TuningResult TakeBack(NvmlGpuMonitor* monitor, const std::string& gpuKey, TuningControl control);

    /// Takes back the changes that are overdue at `now`, in steady-clock seconds.
    void TakeBackOverdue(NvmlGpuMonitor* monitor, double now);

    /// Takes back all changes, those that were kept too. `TuningRecord::Problem` says why one could not go back.
    void TakeAllBack(NvmlGpuMonitor* monitor);

    /// To be called before NVML is started anew: until `FindGpus` finds its GPU, no change is taken back.
    void LoseGpus();

    /// Takes over where the lost GPUs are now. `find` gives the GPU with a key, or null.
    void FindGpus(const std::function<const GpuDeviceInfo*(const std::string& gpuKey)>& find);

    /// When the next change is overdue; empty when all were kept or went back.
    std::optional<double> NextDeadline() const;

    const std::vector<TuningRecord>& Records() const { return Changes; }

    /// Does not change, so any thread may use it.
    const ChangeJournal& Journal() const { return Notes; }

private:
    TuningRecord* Find(const std::string& gpuKey, TuningControl control);
    /// The change that takes `change` back; empty when there is no way back.
    std::optional<TuningChange> WayBack(const std::string& gpuKey, const TuningChange& change,
                                        const GpuPowerCapabilities& powerBefore);
    /// Makes a change that can be taken back. `firstRecord` is its record if the session has not changed this setting
    /// of this GPU before.
    TuningResult MakeNoted(NvmlGpuMonitor* monitor, const TuningRecord& firstRecord, const TuningChange& change,
                           std::optional<double> keepSeconds, const std::function<void()>& onNoted);
    /// Takes a change back to `Previous`.
    TuningResult GoBack(NvmlGpuMonitor* monitor, TuningRecord* record);
    /// Removes the note of a setting that is as it was found.
    void Settle(TuningRecord* record) const;

    const ChangeJournal Notes;
    std::vector<TuningRecord> Changes;
};

/// Whether the process seems to have the rights that drivers ask for before they change a GPU. Only the attempt shows
/// it for sure.
bool HasTuningRights();

}  // namespace gpu_feed

#endif  // GPU_FEED_TUNING_SESSION_H
