#ifndef FOLLOWED_MONITOR_H
#define FOLLOWED_MONITOR_H

#include <cstddef>
#include <cstdint>

#include "feed_exchange.h"
#include "gpu_tracker.h"
#include "nvml_gpu_monitor.h"
#include "process_names.h"
#include "sampler.h"

/// A monitor, and the feed's work on it: what the feed's thread does at a look, when the caller asks for it.
class FollowedMonitor {
public:
    /// Takes `samples` of each of the `boards` that the simulated NVML has, with a look after each.
    FollowedMonitor(int64_t boards, int64_t samples);

    /// One cycle of the sampler.
    void Cycle() { Sampler.Cycle(); }
    /// Looks at the monitor and publishes what has been found.
    void Look();
    /// How many samples the feed keeps of each GPU.
    size_t Kept() const { return Tracker.Gpus().at(0)->Samples.size(); }

private:
    NvmlGpuMonitor Monitor;
    SamplerDriver Sampler;
    gpu_feed::ProcessNames Names;
    gpu_feed::GpuTracker Tracker;
    gpu_feed::FeedExchange Exchange;
};

#endif  // FOLLOWED_MONITOR_H
