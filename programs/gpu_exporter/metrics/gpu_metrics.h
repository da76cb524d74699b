#ifndef GPU_METRICS_H
#define GPU_METRICS_H

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "gpu_feed/feed_data.h"

struct GpuRoster;

/// The metrics of the GPUs: `gpu_...`, in base units.
///
/// A value that was not read has no series, and a family without a series is left out. A GPU whose readings are overdue
/// has only `gpu_up` 0 and the age of its latest reading. It keeps both when NVML no longer lists it.
///
/// Threads: `Collect` may be called by several threads at once. It never waits for the driver.
class GpuMetrics final : public prometheus::Collectable {
public:
    /// `moment` gives the feed's data at the moment of the call; any thread calls it. `bProcesses`: with the video
    /// memory of each process.
    GpuMetrics(std::function<gpu_feed::FeedMoment()> moment, bool bProcesses);

    std::vector<prometheus::MetricFamily> Collect() const override;

    /// Remembers the GPUs of a moment; each page does the same. Without it, a GPU that goes missing while nobody asks
    /// for a page would be unknown.
    void Remember(const gpu_feed::FeedMoment& moment) const { RosterOf(moment.Data); }

private:
    std::shared_ptr<const GpuRoster> RosterOf(const std::shared_ptr<const gpu_feed::FeedData>& data) const;

    const std::function<gpu_feed::FeedMoment()> Moment;
    const bool bWithProcesses;
    mutable std::mutex Mutex;
    /// Guarded by `Mutex`; what it points to does not change.
    mutable std::shared_ptr<const GpuRoster> Roster;
};

#endif  // GPU_METRICS_H
