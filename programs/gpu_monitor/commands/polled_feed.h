#ifndef GPU_MONITOR_POLLED_FEED_H
#define GPU_MONITOR_POLLED_FEED_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

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

    /// A descriptor that is readable after a change until `TakeNews` is called.
    int Descriptor() const { return NewsDescriptor; }
    void TakeNews() const;

    /// Waits for news, but not longer than `timeoutMs`; -1: as long as it takes. False: `stopDescriptor` became
    /// readable before; -1: there is none.
    bool WaitForNews(int timeoutMs, int stopDescriptor) const;

    using Gpus = std::vector<std::shared_ptr<const gpu_feed::FeedGpu>>;

    /// All GPUs, or the one that a selector names that is not empty; none while NVML is being started. Throws `Failure`
    /// when `data` shows that there is no usable driver or no such GPU.
    static Gpus Wanted(const gpu_feed::FeedData& data, const std::string& selector);

    /// Waits until `isKnown` of each wanted GPU. Result: that moment. Throws `Failure`, also when the driver does not
    /// answer.
    gpu_feed::FeedMoment WaitUntil(
        const std::string& selector,
        const std::function<bool(const gpu_feed::FeedMoment&, const gpu_feed::FeedGpu&)>& isKnown);

private:
    const int NewsDescriptor;
    gpu_feed::MonitorFeed Feed;
};

#endif  // GPU_MONITOR_POLLED_FEED_H
