#ifndef GPU_ROSTER_H
#define GPU_ROSTER_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "metrics/families.h"

/// One GPU that the exporter has seen.
struct RosterGpu {
    /// One of the roster's data, and valid as long as that; null when that does not have the GPU any more.
    const gpu_feed::FeedGpu* Gpu = nullptr;
    /// `FeedGpu::Key`.
    std::string Key;
    /// The labels of every series of this GPU: its index and UUID. No other GPU of the roster has the same ones.
    MetricLabels Labels;
    /// The same, and what describes the GPU.
    MetricLabels InfoLabels;
    /// The timestamp of its latest reading; 0 while there is no reading.
    double LatestReading = 0.0;
};

/// The GPUs that the feed's data has, and behind them those that only earlier data had.
struct GpuRoster {
    /// Does not keep the data, whose histories are large, beyond the scrapes that use it.
    std::weak_ptr<const gpu_feed::FeedData> Data;
    std::vector<RosterGpu> Gpus;
};

/// The roster that follows `before` once the feed has published `data`. `before` is null for the first one.
GpuRoster NextRoster(const GpuRoster* before, const std::shared_ptr<const gpu_feed::FeedData>& data);

/// Whether readings of `gpu` come in time; empty while its first reading is awaited.
std::optional<bool> IsUp(const gpu_feed::FeedMoment& moment, const RosterGpu& gpu);

#endif  // GPU_ROSTER_H
