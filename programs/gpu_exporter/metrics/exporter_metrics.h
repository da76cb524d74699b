#ifndef EXPORTER_METRICS_H
#define EXPORTER_METRICS_H

#include <prometheus/collectable.h>
#include <prometheus/histogram.h>
#include <prometheus/metric_family.h>

#include <functional>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"

/// The metrics of the exporter itself: `gpu_exporter_...`, and `process_...` for its process.
///
/// Threads: every operation may be called by several threads at once. None waits for the driver.
class ExporterMetrics final : public prometheus::Collectable {
public:
    /// `moment` gives the feed's data at the moment of the call; any thread calls it.
    ExporterMetrics(std::function<gpu_feed::FeedMoment()> moment, std::string version);

    std::vector<prometheus::MetricFamily> Collect() const override;

    /// Counts a scrape that took `seconds`.
    void NoteScrape(double seconds) { ScrapeDurations.Observe(seconds); }

private:
    const std::function<gpu_feed::FeedMoment()> Moment;
    const std::string Version;
    /// Seconds of the time of day.
    const double StartedAt;
    prometheus::Histogram ScrapeDurations;
};

#endif  // EXPORTER_METRICS_H
