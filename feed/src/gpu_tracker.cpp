#include "gpu_tracker.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "gpu_feed/readings.h"

namespace gpu_feed {

namespace {

/// Null when no GPU of `gpus` has this key.
std::shared_ptr<const FeedGpu> FindIn(const GpuTracker::GpuList& gpus, const std::string& key) {
    const auto gpu = std::find_if(gpus.begin(), gpus.end(), [&key](const auto& each) { return each->Key == key; });
    return gpu == gpus.end() ? nullptr : *gpu;
}

/// A key that no other GPU of `histories` has: drivers have given several GPUs one UUID.
std::string KeyOf(const GpuDeviceInfo& device, const std::vector<GpuTelemetryHistory>& histories) {
    const std::string& name = LastingName(device);
    if (name.empty()) return std::to_string(device.Index);
    const auto hasName = [&name](const GpuTelemetryHistory& each) { return LastingName(each.Device) == name; };
    const bool bShared = std::count_if(histories.begin(), histories.end(), hasName) > 1;
    return bShared ? name + ' ' + device.PciBusId + '#' + std::to_string(device.Index) : name;
}

/// Whether a history, which begins empty when NVML is started, still has the newest of the samples that are known.
bool GoesOn(const SampleHistory& known, const std::deque<GpuTelemetrySample>& history) {
    return !known.empty() && std::any_of(history.rbegin(), history.rend(), [&known](const GpuTelemetrySample& sample) {
        return sample.TimestampSeconds == known.back().TimestampSeconds;
    });
}

}  // namespace

const std::string& LastingName(const GpuDeviceInfo& device) {
    return device.Uuid.empty() ? device.PciBusId : device.Uuid;
}

GpuTracker::GpuTracker(std::chrono::milliseconds interval, DescribeProcesses describe)
    : Interval(interval), Describe(std::move(describe)), LongestInterval(interval) {}

void GpuTracker::SetInterval(std::chrono::milliseconds interval, double now) {
    Interval = interval;
    LongestInterval = std::max(LongestInterval, Interval);
    PeriodsSince = now;
}

void GpuTracker::Begin(const std::vector<GpuTelemetryHistory>& histories, double now) {
    PeriodsSince = now;
    std::vector<FeedGpu> gpus = Follow(histories, true, now);
    for (FeedGpu& gpu : gpus) gpu.SilentSince = 0.0;
    Publish(std::move(gpus));
}

std::shared_ptr<const FeedGpu> GpuTracker::Look(const std::vector<GpuTelemetryHistory>& histories, double now) {
    return Publish(Follow(histories, false, now));
}

std::vector<FeedGpu> GpuTracker::Follow(const std::vector<GpuTelemetryHistory>& histories, bool bWhole,
                                        double now) const {
    const double longestPeriod = LongestPeriod(histories, now);
    std::vector<FeedGpu> gpus;
    gpus.reserve(histories.size());
    for (const GpuTelemetryHistory& history : histories) {
        FeedGpu& gpu = gpus.emplace_back(Recall(KeyOf(history.Device, histories)));
        gpu.Device = history.Device;
        gpu.Processes = Describe(history.ProcessMemory);
        const bool bSameGpu = !bWhole || !LastingName(gpu.Device).empty() || GoesOn(gpu.Samples, history.Samples);
        if (!bSameGpu) gpu.Samples = {};
        if (AddNew(history.Samples, longestPeriod, &gpu)) {
            gpu.SilentSince = 0.0;
        } else if (gpu.SilentSince == 0.0) {
            // Not the moment of the last reading: after the process was suspended, that one is old and nothing is
            // wrong.
            gpu.SilentSince = now;
        }
        gpu.PeriodSeconds =
            std::min(PeriodOf(gpu.Samples), history.Samples.empty() ? gpu.PeriodSeconds : longestPeriod);
    }
    return gpus;
}

std::shared_ptr<const FeedGpu> GpuTracker::Find(const std::string& key) const {
    return FindIn(Published, key);
}

FeedGpu GpuTracker::Recall(const std::string& key) const {
    FeedGpu gpu;
    gpu.Key = key;
    std::shared_ptr<const FeedGpu> before = Find(key);
    if (before == nullptr) before = FindIn(Missing, key);
    if (before == nullptr) return gpu;
    gpu.Samples = before->Samples;
    gpu.Latest = before->Latest;
    gpu.PeriodSeconds = before->PeriodSeconds;
    gpu.SilentSince = before->SilentSince;
    gpu.Energy = before->Energy;
    return gpu;
}

bool GpuTracker::AddNew(const std::deque<GpuTelemetrySample>& samples, double longestPeriod, FeedGpu* gpu) const {
    // A known period counts, because the longest one that is possible contains a driver call that has hung.
    const double usual = gpu->PeriodSeconds > 0.0 ? gpu->PeriodSeconds : longestPeriod;
    const double period = std::max(usual, LongestInterval.count());
    const double known = gpu->Samples.empty() ? 0.0 : gpu->Samples.back().TimestampSeconds;
    bool bRead = false;
    for (const GpuTelemetrySample& sample : samples) {
        if (sample.TimestampSeconds <= known) continue;
        if (!gpu->Samples.empty()) gpu->Energy = CountEnergy(gpu->Energy, gpu->Samples.back(), sample, period);
        gpu->Samples.Append(sample, gpu->Energy);
        if (!HasAnyReading(sample)) continue;
        gpu->Latest = sample;
        bRead = true;
    }
    return bRead;
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
    GpuList published;
    published.reserve(gpus.size());
    for (FeedGpu& gpu : gpus) published.push_back(std::make_shared<const FeedGpu>(std::move(gpu)));
    GpuList missing;
    for (const GpuList* list : {&Published, &Missing}) {
        std::copy_if(list->begin(), list->end(), std::back_inserter(missing),
                     [&published](const auto& gpu) { return FindIn(published, gpu->Key) == nullptr; });
    }
    Published = std::move(published);
    Missing = std::move(missing);
    std::shared_ptr<const FeedGpu> newest;
    for (const auto& gpu : Published) {
        if (gpu->Samples.empty() || gpu->Samples.back().TimestampSeconds <= NewestSeen) continue;
        newest = gpu;
        NewestSeen = gpu->Samples.back().TimestampSeconds;
        LongestInterval = Interval;
    }
    return newest;
}

}  // namespace gpu_feed
