#ifndef GPU_TRACKER_H
#define GPU_TRACKER_H

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// What names a GPU also after a new start of NVML, which can give GPUs other indices; empty when nothing does.
const std::string& LastingName(const GpuDeviceInfo& device);

/// Follows the GPUs from one look to the next, and makes what the feed publishes of each.
///
/// It knows no thread, no clock and no monitor: the caller hands in the histories, and the moment of each call in
/// steady-clock seconds.
class GpuTracker {
public:
    /// Makes the published list of processes from the one in a history.
    using DescribeProcesses = std::function<std::vector<FeedProcess>(const std::vector<GpuProcessMemory>& processes)>;
    using GpuList = std::vector<std::shared_ptr<const FeedGpu>>;

    GpuTracker(std::chrono::milliseconds interval, DescribeProcesses describe);

    /// Measures periods anew, from samples that are not older than `now`.
    void SetInterval(std::chrono::milliseconds interval, double now);

    /// Takes over the whole `histories` when sampling begins or goes on at `now`. What is known of a GPU's samples goes
    /// on, also where the histories before did not have the GPU. Only for a GPU without a lasting name it begins again
    /// when NVML has been started anew: when the history has lost the newest of these samples. No GPU counts as silent
    /// then, and periods are measured anew.
    void Begin(const std::vector<GpuTelemetryHistory>& histories, double now);

    /// Takes over what a look at `now` has found: histories with at least the samples that are newer than
    /// `NewestMoment`. Result: the GPU with the newest sample; null when no sample is new. After an exception,
    /// everything is as before.
    std::shared_ptr<const FeedGpu> Look(const std::vector<GpuTelemetryHistory>& histories, double now);

    /// The timestamp of the newest sample of any GPU; 0 while there is no sample.
    double NewestMoment() const { return NewestSeen; }

    /// In the order of the latest histories.
    const GpuList& Gpus() const { return Published; }

    /// Null when no GPU has this key.
    std::shared_ptr<const FeedGpu> Find(const std::string& key) const;

private:
    /// The GPUs of `histories`, with what is known of them from before. `bWhole`: the histories are whole.
    std::vector<FeedGpu> Follow(const std::vector<GpuTelemetryHistory>& histories, bool bWhole, double now) const;
    /// What is known of a GPU from before, without its device and its processes.
    FeedGpu Recall(const std::string& key) const;
    /// Adds the new ones of `samples`. Result: whether one of them has a reading.
    bool AddNew(const std::deque<GpuTelemetrySample>& samples, double longestPeriod, FeedGpu* gpu) const;
    double PeriodOf(const SampleHistory& samples) const;
    double LongestPeriod(const std::vector<GpuTelemetryHistory>& histories, double now) const;
    /// Result: the GPU with the newest sample; null when no sample is new.
    std::shared_ptr<const FeedGpu> Publish(std::vector<FeedGpu> gpus);

    std::chrono::duration<double> Interval;
    const DescribeProcesses Describe;
    GpuList Published;
    /// As they were last: the GPUs that the latest histories do not have.
    GpuList Missing;
    /// Older samples say nothing about the period.
    double PeriodsSince = 0.0;
    double NewestSeen = 0.0;
    /// The longest interval that was in force since the newest sample.
    std::chrono::duration<double> LongestInterval;
};

}  // namespace gpu_feed

#endif  // GPU_TRACKER_H
