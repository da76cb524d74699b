#ifndef GPU_MONITOR_LIVE_FEED_H
#define GPU_MONITOR_LIVE_FEED_H

#include <chrono>
#include <memory>
#include <optional>

#include "monitor_feed.h"

/// The monitor's feed for a program that waits with `poll`.
class LiveFeed {
public:
    explicit LiveFeed(std::chrono::milliseconds interval);
    ~LiveFeed();

    LiveFeed(const LiveFeed&) = delete;
    LiveFeed& operator=(const LiveFeed&) = delete;

    MonitorFeed* operator->() { return &Feed; }

    /// A descriptor that is readable while `TakeNews` has not been called since the latest change.
    int Descriptor() const { return NewsDescriptor; }
    void TakeNews() const;

    /// Waits until NVML has been started. False: `stopDescriptor` became readable first. Throws `Failure` when there is
    /// no usable driver, or no GPU of the index that is asked for.
    bool WaitForStart(std::optional<unsigned int> onlyGpu, int stopDescriptor);

    /// Once NVML has been started: throws as `WaitForStart`.
    void RequireUsable(std::optional<unsigned int> onlyGpu) const;

private:
    const int NewsDescriptor;
    MonitorFeed Feed;
};

/// Whether a feed ended while its driver hung: its thread still runs, so the program must not run its destructors.
bool IsDriverLeftBehind();

#endif  // GPU_MONITOR_LIVE_FEED_H
