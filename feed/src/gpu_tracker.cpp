#include "gpu_tracker.h"

#include <algorithm>
#include <utility>

#include "gpu_feed/readings.h"

namespace gpu_feed {

namespace {

std::string KeyOf(const GpuDeviceInfo& device) {
    if (!device.Uuid.empty()) return device.Uuid;
    return !device.PciBusId.empty() ? device.PciBusId : std::to_string(device.Index);
}

/// A key that none of `others` has: drivers have given several GPUs one UUID.
std::string FreeKey(const GpuDeviceInfo& device, const std::vector<FeedGpu>& others) {
    const std::string key = KeyOf(device);
    const bool bTaken =
        std::any_of(others.begin(), others.end(), [&key](const FeedGpu& gpu) { return gpu.Key == key; });
    return bTaken ? key + ' ' + device.PciBusId + '#' + std::to_string(device.Index) : key;
}

/// Makes the newest sample with a reading the latest one. Result: false when no sample since the last look has any.
bool TakeLatest(FeedGpu* gpu) {
    const auto isKnown = [gpu](const GpuTelemetrySample& sample) {
        return sample.TimestampSeconds <= gpu->Latest.TimestampSeconds;
    };
    const auto firstKnown = std::find_if(gpu->Samples.rbegin(), gpu->Samples.rend(), isKnown);
    const auto newest = std::find_if(gpu->Samples.rbegin(), firstKnown, HasAnyReading);
    if (newest == firstKnown) return false;
    gpu->Latest = *newest;
    return true;
}

}  // namespace

GpuTracker::GpuTracker(std::chrono::milliseconds interval, DescribeProcesses describe)
    : Interval(interval), Describe(std::move(describe)) {}

void GpuTracker::SetInterval(std::chrono::milliseconds interval, double now) {
    Interval = interval;
    PeriodsSince = now;
}

void GpuTracker::Begin(std::vector<GpuTelemetryHistory> histories, double now) {
    PeriodsSince = now;
    std::vector<FeedGpu> gpus = Follow(std::move(histories), now);
    for (FeedGpu& gpu : gpus) gpu.SilentSince = 0.0;
    Publish(std::move(gpus));
}

std::shared_ptr<const FeedGpu> GpuTracker::Look(std::vector<GpuTelemetryHistory> histories, double now) {
    return Publish(Follow(std::move(histories), now));
}

std::vector<FeedGpu> GpuTracker::Follow(std::vector<GpuTelemetryHistory> histories, double now) const {
    const double longestPeriod = LongestPeriod(histories, now);
    std::vector<FeedGpu> gpus;
    for (GpuTelemetryHistory& history : histories) {
        std::string key = FreeKey(history.Device, gpus);
        FeedGpu& gpu = gpus.emplace_back(FollowOne(std::move(history), std::move(key), now));
        gpu.PeriodSeconds = std::min(PeriodOf(gpu.Samples), longestPeriod);
    }
    return gpus;
}

FeedGpu GpuTracker::FollowOne(GpuTelemetryHistory history, std::string key, double now) const {
    FeedGpu gpu;
    gpu.Key = std::move(key);
    gpu.Device = std::move(history.Device);
    for (const GpuTelemetrySample& sample : history.Samples) gpu.Samples.Append(sample);
    gpu.Processes = Describe(history.ProcessMemory);
    const auto before =
        std::find_if(Published.begin(), Published.end(), [&gpu](const auto& each) { return each->Key == gpu.Key; });
    if (before != Published.end()) {
        gpu.Latest = (*before)->Latest;
        gpu.SilentSince = (*before)->SilentSince;
    }
    if (TakeLatest(&gpu)) {
        gpu.SilentSince = 0.0;
    } else if (gpu.SilentSince == 0.0) {
        // Not the moment of the last reading: after the process was suspended, that one is old and nothing is wrong.
        gpu.SilentSince = now;
    }
    return gpu;
}

double GpuTracker::PeriodOf(const SampleHistory& samples) const {
    if (samples.size() < 2) return 0.0;
    const double previous = samples[samples.size() - 2].TimestampSeconds;
    return previous < PeriodsSince ? 0.0 : samples.back().TimestampSeconds - previous;
}

/// The longest period that is possible: the next cycle starts within the interval from now. Two samples lie farther
/// apart when the process was suspended between them.
double GpuTracker::LongestPeriod(const std::vector<GpuTelemetryHistory>& histories, double now) const {
    double cycleStart = now;
    for (const GpuTelemetryHistory& history : histories) {
        if (history.Samples.empty() || history.Samples.back().TimestampSeconds <= NewestSeen) continue;
        cycleStart = std::min(cycleStart, history.Samples.back().TimestampSeconds);
    }
    return now - cycleStart + Interval.count();
}

std::shared_ptr<const FeedGpu> GpuTracker::Publish(std::vector<FeedGpu> gpus) {
    std::vector<std::shared_ptr<const FeedGpu>> published;
    published.reserve(gpus.size());
    for (FeedGpu& gpu : gpus) published.push_back(std::make_shared<const FeedGpu>(std::move(gpu)));
    Published = std::move(published);
    std::shared_ptr<const FeedGpu> newest;
    for (const auto& gpu : Published) {
        if (gpu->Samples.empty() || gpu->Samples.back().TimestampSeconds <= NewestSeen) continue;
        newest = gpu;
        NewestSeen = gpu->Samples.back().TimestampSeconds;
    }
    return newest;
}

}  // namespace gpu_feed
