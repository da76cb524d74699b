#include "run/exporter.h"

#include <poll.h>

#include <iostream>
#include <memory>
#include <optional>

#include "common/failure.h"
#include "common/left_driver.h"
#include "common/signals.h"
#include "common/simulate.h"
#include "gpu_feed/monitor_feed.h"
#include "metrics/exporter_metrics.h"
#include "metrics/gpu_metrics.h"
#include "run/retry.h"
#include "run/state_log.h"
#include "serve/credentials.h"
#include "serve/server.h"

using namespace gpu_feed;

namespace {

/// How often to look at the state of the driver, for retries and for the log.
constexpr int kLookMs = 250;
/// Nothing has to be finished at the end, so a driver that is slow is left behind.
constexpr auto kStopPatience = std::chrono::milliseconds(500);

/// A feed that is stopped at the end of its scope.
struct ScopedFeed {
    explicit ScopedFeed(const FeedOptions& options) : Feed(options) {}
    ~ScopedFeed() { StopFeed(&Feed, kStopPatience); }
    ScopedFeed(const ScopedFeed&) = delete;
    ScopedFeed& operator=(const ScopedFeed&) = delete;

    MonitorFeed Feed;
};

/// Looks after the feed until the stop is requested.
void WatchDriver(MonitorFeed* feed, const GpuMetrics& metrics, int stopDescriptor) {
    Retry retry;
    StateLog log;
    pollfd stop = {stopDescriptor, POLLIN, 0};
    while (poll(&stop, 1, kLookMs) <= 0) {
        const FeedMoment moment = feed->Moment();
        log.Note(moment);
        metrics.Remember(moment);
        const RetryStep step = retry.Next(moment);
        if (step == RetryStep::Resume) feed->Resume();
        if (step == RetryStep::Rescan) feed->Rescan();
    }
}

}  // namespace

int RunExporter(const ExporterOptions& options) {
    const int stopDescriptor = CatchStopSignals();
    std::optional<Credentials> users;
    if (!options.AuthFile.empty()) users.emplace(options.AuthFile);
    ScopedFeed running(FeedOptions{options.Interval, IsNvmlSimulated()});
    const auto moment = [&running] { return running.Feed.Moment(); };
    const auto own = std::make_shared<ExporterMetrics>(moment, GPU_EXPORTER_VERSION);
    const auto gpus = std::make_shared<GpuMetrics>(moment, options.bProcesses);
    const Server server({options.Listen, users}, {gpus, own}, [own](double seconds) { own->NoteScrape(seconds); });
    std::cerr << "Listening on http://" + ListenAddressText(server.Address()) + "/metrics\n";
    WatchDriver(&running.Feed, *gpus, stopDescriptor);
    return kExitSuccess;
}
