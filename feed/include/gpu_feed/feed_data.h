#ifndef GPU_FEED_FEED_DATA_H
#define GPU_FEED_FEED_DATA_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gpu_feed/sample_history.h"
#include "gpu_feed/tuning_change.h"
#include "nvml_gpu_monitor.h"

/// \file
/// What the feed publishes. All records are plain values; moments are seconds of the steady clock, as
/// `GpuTelemetrySample::TimestampSeconds`, and 0 means that there was no such moment.

namespace gpu_feed {

/// What the feed does.
enum class FeedState {
    /// NVML is being started.
    Starting,
    /// Samples are taken once per interval.
    Sampling,
    /// The host has paused sampling.
    Paused,
    /// NVML, or sampling, could not be started; `FeedData::Status` says why.
    Unavailable,
};

/// What is known of a GPU at one moment.
enum class GpuState {
    /// Sampling has begun or gone on, and there is no reading since.
    Starting,
    /// Readings come in time.
    Live,
    /// Sampling is paused.
    Paused,
    /// Readings are overdue, or were when sampling was paused: the GPU may be lost, or the driver hangs.
    NoData,
    /// Nothing is sampled: `FeedState::Unavailable`.
    Unavailable,
};

/// A process that uses video memory of a GPU.
struct FeedProcess {
    /// As in `GpuProcessMemory`.
    int Pid = 0;
    /// As in `GpuProcessMemory`.
    uint64_t VramUsedBytes = 0;
    /// Name of the program; empty when this system does not know the process, which may run in another container.
    std::string Name;
    /// Name of the user, or the number where the name is not known; empty as `Name`.
    std::string User;
    /// The program with its arguments, without control characters; long ones are cut off. Empty as `Name`, and where
    /// the process has none.
    std::string CommandLine = {};
    /// Processor time between two looks in percent of one processor, so that several threads can take more than 100;
    /// empty as `Name`, and before the second look.
    std::optional<double> CpuPercent = std::nullopt;
    /// Resident memory; empty as `Name`.
    std::optional<uint64_t> MemoryBytes = std::nullopt;
};

/// One GPU at the feed's latest look at it.
struct FeedGpu {
    /// Names the GPU for as long as the program runs: its UUID or, where that was not read, its PCI bus id. The index
    /// is used where both are missing, and with both where several GPUs have the same UUID.
    std::string Key;
    /// Which GPU this is.
    GpuDeviceInfo Device;
    /// The history, without samples that have no moment (`TimestampSeconds` 0). A pause does not empty it, nor does a
    /// new start of NVML, unless only the index names the GPU, which can be that of another one then.
    SampleHistory Samples;
    /// Those that used video memory at the latest look, largest first.
    std::vector<FeedProcess> Processes;
    /// The newest sample with any reading; its `TimestampSeconds` is 0 when there is no such sample.
    GpuTelemetrySample Latest;
    /// Seconds from one sample to the next, as last measured; 0 while there are no two samples since sampling began or
    /// went on, or the interval was changed.
    double PeriodSeconds = 0.0;
    /// Since when the feed has found no new reading; 0 while it finds some.
    double SilentSince = 0.0;
    /// What the GPU has used since the feed began; it goes on over a new start of NVML, also when some starts before
    /// did not find the GPU.
    EnergyCount Energy;
};

/// What the feed publishes. Once published, it does not change.
struct FeedData {
    /// What the feed does.
    FeedState State = FeedState::Starting;
    /// The monitor's `Status`, or why sampling could not be started; empty while NVML is being started.
    std::string Status;
    /// The interval in force.
    std::chrono::milliseconds Interval{0};
    /// When sampling began or went on last.
    double SamplingSince = 0.0;
    /// When sampling was paused last.
    double PausedAt = 0.0;
    /// In the order of NVML's indices; no entry is null.
    std::vector<std::shared_ptr<const FeedGpu>> Gpus;
    /// One for each setting of a GPU that the program has changed or tried to change.
    std::vector<TuningRecord> Tuning;

    /// Null when no GPU has this key.
    std::shared_ptr<const FeedGpu> Find(const std::string& key) const;
    /// Null when the program has not touched this setting.
    const TuningRecord* FindTuning(const std::string& gpuKey, TuningControl control) const;
    /// The same, but null also when there is nothing to take back.
    const TuningRecord* FindOutstanding(const std::string& gpuKey, TuningControl control) const;
};

/// The changes that would outlast the program.
std::vector<TuningRecord> OutstandingChanges(const FeedData& data);

/// Everything that a view draws from: what the feed has published, as seen at one moment. A view that draws from this
/// alone needs neither the feed nor a clock.
struct FeedMoment {
    /// Never null.
    std::shared_ptr<const FeedData> Data = std::make_shared<const FeedData>();
    /// The moment.
    double Now = 0.0;
    /// The same moment as the time of day.
    std::chrono::system_clock::time_point TimeOfDay;
    /// How long the feed's thread has been waiting for the driver, in seconds; 0 while it is not.
    double DriverSilence = 0.0;
    /// `FeedOptions::bSimulated`.
    bool bSimulated = false;
};

/// What is known at that moment of `gpu`, which is one of `moment.Data`.
GpuState StateOf(const FeedMoment& moment, const FeedGpu& gpu);

/// How old the latest reading of `gpu` is, in seconds. Only for a GPU that has one.
double AgeOf(const FeedMoment& moment, const FeedGpu& gpu);

/// Whether the driver has been silent for much longer than cycles over the GPUs take.
bool IsDriverHanging(const FeedMoment& moment);

}  // namespace gpu_feed

#endif  // GPU_FEED_FEED_DATA_H
