#ifndef GPU_MONITOR_FEED_REQUESTS_H
#define GPU_MONITOR_FEED_REQUESTS_H

#include <chrono>
#include <future>
#include <string>

#include "gpu_feed/monitor_feed.h"

/// What the live view asks of the feed when keys are pressed. Each operation is that of `MonitorFeed`.
class FeedRequests {
public:
    FeedRequests() = default;
    virtual ~FeedRequests() = default;
    FeedRequests(const FeedRequests&) = delete;
    FeedRequests& operator=(const FeedRequests&) = delete;

    virtual gpu_feed::FeedMoment Moment() const = 0;
    virtual void SetInterval(std::chrono::milliseconds interval) = 0;
    virtual void Pause() = 0;
    virtual void Resume() = 0;
    virtual std::future<gpu_feed::TuningCapabilities> QueryTuning(const std::string& gpuKey) = 0;
    virtual std::future<gpu_feed::TuningResult> Tune(const std::string& gpuKey, const gpu_feed::TuningChange& change,
                                                     double keepSeconds) = 0;
    virtual void Keep(const std::string& gpuKey, gpu_feed::TuningControl control) = 0;
    virtual std::future<gpu_feed::TuningResult> TakeBack(const std::string& gpuKey,
                                                         gpu_feed::TuningControl control) = 0;
};

#endif  // GPU_MONITOR_FEED_REQUESTS_H
