#ifndef GPU_MONITOR_POLLED_FEED_H
#define GPU_MONITOR_POLLED_FEED_H

#include <chrono>
#include <memory>
#include <optional>

#include "gpu_feed/monitor_feed.h"

/// The monitor's feed for a program that waits with `poll`.
class PolledFeed {
public:
    explicit PolledFeed(std::chrono::milliseconds interval);
    ~PolledFeed();

    PolledFeed(const PolledFeed&) = delete;
    PolledFeed& operator=(const PolledFeed&) = delete;

    gpu_feed::MonitorFeed* operator->() { return &Feed; }
    gpu_feed::MonitorFeed* Get() { return &Feed; }

    /// A descriptor that is readable while `TakeNews` has not been called since the latest change.
    int Descriptor() const { return NewsDescriptor; }
    void TakeNews() const;

    /// Waits for news, but not longer than `timeoutMs`; -1: as long as it takes. False: `stopDescriptor` became
    /// readable before; -1: there is none.
    bool WaitForNews(int timeoutMs, int stopDescriptor) const;

    /// Throws `Failure` when `data` shows that there is no usable driver, or no GPU of the index that is asked for.
    static void RequireUsable(const gpu_feed::FeedData& data, std::optional<unsigned int> onlyGpu);

    /// Ends the feed at once, because the driver does not answer.
    void LeaveDriverBehind();

private:
    const int NewsDescriptor;
    gpu_feed::MonitorFeed Feed;
};

/// Whether a feed ended while its driver hung: its thread still runs, so the program must not run its destructors.
bool IsDriverLeftBehind();

#endif  // GPU_MONITOR_POLLED_FEED_H
