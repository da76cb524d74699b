#include "gpu_feed/feed_data.h"

#include <algorithm>
#include <iterator>

namespace gpu_feed {

namespace {

/// Readings are overdue after this many periods, but not within the first second.
constexpr double kSilentPeriods = 3.0;
constexpr double kMinimumSilenceSeconds = 1.0;
/// The same while no period is known: a cycle over many GPUs takes seconds.
constexpr double kUnknownPeriodSeconds = 5.0;
/// The driver hangs when it is silent for longer than this and than readings of any GPU may take.
constexpr double kHangSeconds = 5.0;

/// How many seconds may pass without a reading.
double PatienceFor(const FeedGpu& gpu) {
    if (gpu.PeriodSeconds == 0.0) return kUnknownPeriodSeconds;
    return std::max(kSilentPeriods * gpu.PeriodSeconds, kMinimumSilenceSeconds);
}

}  // namespace

std::shared_ptr<const FeedGpu> FeedData::Find(const std::string& key) const {
    const auto gpu = std::find_if(Gpus.begin(), Gpus.end(), [&key](const auto& each) { return each->Key == key; });
    return gpu == Gpus.end() ? nullptr : *gpu;
}

const TuningRecord* FeedData::FindTuning(const std::string& gpuKey, TuningControl control) const {
    const auto record = std::find_if(Tuning.begin(), Tuning.end(), [&](const TuningRecord& each) {
        return each.GpuKey == gpuKey && each.Before.Control() == control;
    });
    return record == Tuning.end() ? nullptr : &*record;
}

const TuningRecord* FeedData::FindOutstanding(const std::string& gpuKey, TuningControl control) const {
    const TuningRecord* record = FindTuning(gpuKey, control);
    return record == nullptr || !record->IsOutstanding() ? nullptr : record;
}

std::vector<TuningRecord> OutstandingChanges(const FeedData& data) {
    std::vector<TuningRecord> records;
    std::copy_if(data.Tuning.begin(), data.Tuning.end(), std::back_inserter(records),
                 [](const TuningRecord& record) { return record.IsOutstanding(); });
    return records;
}

GpuState StateOf(const FeedMoment& moment, const FeedGpu& gpu) {
    const FeedData& data = *moment.Data;
    if (data.State == FeedState::Unavailable) return GpuState::Unavailable;
    const bool bPaused = data.State == FeedState::Paused;
    const double until = bPaused ? data.PausedAt : moment.Now;
    const double silence = gpu.SilentSince == 0.0 ? 0.0 : until - gpu.SilentSince;
    const double wait = bPaused ? 0.0 : moment.DriverSilence;
    if (std::max(silence, wait) >= PatienceFor(gpu)) return GpuState::NoData;
    if (bPaused) return GpuState::Paused;
    return gpu.Latest.TimestampSeconds < data.SamplingSince ? GpuState::Starting : GpuState::Live;
}

double AgeOf(const FeedMoment& moment, const FeedGpu& gpu) {
    return moment.Now - gpu.Latest.TimestampSeconds;
}

bool IsDriverHanging(const FeedMoment& moment) {
    double patience = kHangSeconds;
    for (const auto& gpu : moment.Data->Gpus) patience = std::max(patience, PatienceFor(*gpu));
    return moment.DriverSilence >= patience;
}

}  // namespace gpu_feed
