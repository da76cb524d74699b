#ifndef GPU_FEED_FEED_REQUESTS_H
#define GPU_FEED_FEED_REQUESTS_H

#include <chrono>
#include <future>
#include <string>

#include "gpu_feed/feed_data.h"
#include "gpu_feed/tuning_change.h"
#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// What can be changed on one GPU.
struct TuningCapabilities {
    /// As `NvmlGpuMonitor::GetClockCapabilities` fills it.
    GpuClockCapabilities Clocks;
    /// As `NvmlGpuMonitor::GetPowerCapabilities` fills it.
    GpuPowerCapabilities Power;
    /// Whether this process seems to have the rights to make a change.
    bool bRights = true;
};

/// What a user interface asks of the feed while its user acts. Each operation is described at `MonitorFeed`, which
/// carries it out; tests of an interface can give it scripted answers instead.
class FeedRequests {
public:
    FeedRequests() = default;
    virtual ~FeedRequests() = default;
    FeedRequests(const FeedRequests&) = delete;
    FeedRequests& operator=(const FeedRequests&) = delete;

    virtual FeedMoment Moment() const = 0;
    virtual void SetInterval(std::chrono::milliseconds interval) = 0;
    virtual void Pause() = 0;
    virtual void Resume() = 0;
    virtual void Rescan() = 0;
    virtual std::future<TuningCapabilities> QueryTuning(const std::string& gpuKey) = 0;
    virtual std::future<TuningResult> Tune(const std::string& gpuKey, const TuningChange& change,
                                           double keepSeconds) = 0;
    virtual void Keep(const std::string& gpuKey, TuningControl control) = 0;
    virtual std::future<TuningResult> TakeBack(const std::string& gpuKey, TuningControl control) = 0;
};

}  // namespace gpu_feed

#endif  // GPU_FEED_FEED_REQUESTS_H
