#ifndef GPU_FEED_GPU_SUMMARY_H
#define GPU_FEED_GPU_SUMMARY_H

#include <memory>
#include <optional>
#include <string>

#include "gpu_feed/feed_data.h"

namespace gpu_feed {

/// One GPU as it is to be shown.
struct GpuSummary {
    std::shared_ptr<const FeedGpu> Gpu;
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
GpuSummary SummaryOf(const FeedMoment& moment, const std::shared_ptr<const FeedGpu>& gpu);

}  // namespace gpu_feed

#endif  // GPU_FEED_GPU_SUMMARY_H
