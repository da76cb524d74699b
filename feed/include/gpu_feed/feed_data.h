#ifndef GPU_FEED_FEED_DATA_H
#define GPU_FEED_FEED_DATA_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "gpu_feed/tuning_change.h"
#include "nvml_gpu_monitor.h"

namespace gpu_feed {

enum class FeedState {
    /// NVML is being started.
    Starting,
    Sampling,
    Paused,
    /// NVML, or sampling, could not be started; `FeedData::Status` says why.
    Unavailable,
};

enum class GpuState {
    /// No reading yet since sampling began or went on.
    Starting,
    Live,
    Paused,
    /// Readings are overdue, or were when sampling was paused: the GPU may be lost, or the driver hangs.
    NoData,
    /// As the whole feed.
    Unavailable,
};

/// A process that uses video memory, as people know it.
struct FeedProcess {
    int Pid = 0;
    uint64_t VramUsedBytes = 0;
    /// Empty when this system does not know: the process may be another container's.
    std::string Name;
    std::string User;
};

/// One GPU as of the latest look at it. Moments are steady-clock seconds, as in samples.
struct FeedGpu {
    /// Names the GPU for as long as the program runs: its UUID. Where that was not read, or another GPU has it too, the
    /// PCI bus id and the index take part.
    std::string Key;
    GpuDeviceInfo Device;
    /// Oldest first.
    std::deque<GpuTelemetrySample> Samples;
    /// Largest first.
    std::vector<FeedProcess> Processes;
    /// The newest sample with any reading; without one, its `TimestampSeconds` is 0.
    GpuTelemetrySample Latest;
    /// From one sample to the next, as last measured; 0 until it can be, also after a pause or with a new interval.
    double PeriodSeconds = 0.0;
    /// Since when looks at the GPU have found no reading; 0 while they find some.
    double SilentSince = 0.0;
};

/// What the feed publishes. Nothing in it changes any more.
struct FeedData {
    FeedState State = FeedState::Starting;
    /// The monitor's `Status`, or why sampling could not be started; empty while NVML is being started.
    std::string Status;
    std::chrono::milliseconds Interval{0};
    /// When sampling began or went on, and when it was paused last.
    double SamplingSince = 0.0;
    double PausedAt = 0.0;
    /// In the order of NVML's indices; no entry is null.
    std::vector<std::shared_ptr<const FeedGpu>> Gpus;
    /// Of each setting of a GPU that the program has changed, or has tried to.
    std::vector<TuningRecord> Tuning;

    /// Null when no GPU has this key.
    std::shared_ptr<const FeedGpu> Find(const std::string& key) const;
    /// Null when the program has not touched this setting.
    const TuningRecord* FindTuning(const std::string& gpuKey, TuningControl control) const;
};

/// All that a view draws from: what the feed has published, as seen at one moment. Views take it by reference and call
/// neither the feed nor a clock.
struct FeedMoment {
    /// Never null.
    std::shared_ptr<const FeedData> Data = std::make_shared<const FeedData>();
    /// The moment, in steady-clock seconds and as the time of day.
    double Now = 0.0;
    std::chrono::system_clock::time_point TimeOfDay;
    /// How long the feed's thread has been waiting for the driver, in seconds.
    double DriverSilence = 0.0;
    /// Whether the GPUs are simulated: processes on them are not this system's.
    bool bSimulated = false;
};

/// What `gpu`, of `moment.Data`, does at that moment.
GpuState StateOf(const FeedMoment& moment, const FeedGpu& gpu);

/// How old the latest reading of `gpu` is, in seconds, if it has one.
double AgeOf(const FeedMoment& moment, const FeedGpu& gpu);

/// Whether the driver has been silent for much longer than cycles over the GPUs take.
bool IsDriverHanging(const FeedMoment& moment);

}  // namespace gpu_feed

#endif  // GPU_FEED_FEED_DATA_H
