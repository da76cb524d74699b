#ifndef GPU_MONITOR_GPU_ON_PAGE_H
#define GPU_MONITOR_GPU_ON_PAGE_H

#include <memory>
#include <optional>
#include <string>

#include "gpu_feed/feed_data.h"

/// One GPU as it is to be shown.
struct GpuOnPage {
    std::shared_ptr<const gpu_feed::FeedGpu> Gpu;
    /// Its readings now; without any while it gives no data.
    GpuTelemetrySample Now;
    /// What it does, in words.
    std::string State;
    bool bSilent = false;
    bool bSimulated = false;
    /// What this program has locked the clocks to.
    std::optional<GpuClockPair> Locked;
    /// Whether this program has changed the power limit.
    bool bLimitChanged = false;

    bool IsChanged() const { return Locked || bLimitChanged; }
};

/// `gpu` of `moment.Data`, with its state in words and what the program has changed.
GpuOnPage OnPage(const gpu_feed::FeedMoment& moment, const std::shared_ptr<const gpu_feed::FeedGpu>& gpu);

#endif  // GPU_MONITOR_GPU_ON_PAGE_H
