#ifndef FEED_WORKER_H
#define FEED_WORKER_H

#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "feed_exchange.h"
#include "gpu_feed/monitor_feed.h"
#include "gpu_feed/tuning_session.h"
#include "gpu_tracker.h"
#include "process_names.h"
#include "rhythm.h"

namespace gpu_feed {

/// The sentence for an exception: memory or threads have run out. What the driver does wrong throws nothing.
std::string ExplainFailure(const std::exception& error);

/// What the feed's thread does: it owns the monitor, looks at the GPUs in the sampler's rhythm, carries requests out
/// and takes changes back in time.
class FeedWorker {
public:
    explicit FeedWorker(FeedOptions options);

    // ---- Any thread ----

    FeedExchange& Exchange() { return Shared; }
    const FeedExchange& Exchange() const { return Shared; }
    /// How long the driver has been at work, in seconds.
    double DriverWait() const;
    bool IsSimulated() const { return bSimulated; }
    const ChangeJournal& Journal() const { return Session.Journal(); }

    /// The body of the feed's thread.
    void Run();

    // ---- What requests ask for, on the feed's thread ----

    /// Null when no GPU has this key, or NVML has not found its GPUs.
    std::shared_ptr<const FeedGpu> Find(const std::string& gpuKey) const;
    void Pause();
    void Resume();
    void Rescan();
    void SetInterval(std::chrono::milliseconds interval);
    TuningCapabilities QueryTuning(const FeedGpu& gpu);
    TuningResult Tune(const FeedGpu& gpu, const TuningChange& change, double keepSeconds);
    void Keep(const std::string& gpuKey, TuningControl control);
    TuningResult TakeBack(const std::string& gpuKey, TuningControl control);
    TuningResult TakeAllBack();

private:
    class DriverUse;

    std::optional<double> NextMoment() const;
    void CarryOutRequest();
    void DoWhatIsDue();
    void TakeBackOverdue(double now);
    void FindGpus();
    void LookSoon();
    void Look();
    std::vector<GpuTelemetryHistory> TakeNews();
    void PublishState(FeedState state, const std::string& status);
    void Publish();

    const bool bSimulated;
    FeedExchange Shared;
    /// Since when the driver has been at work; 0 while it is not.
    std::atomic<double> DriverUsedSince{0.0};

    // Used only by the feed's thread.
    NvmlGpuMonitor Monitor;
    ProcessNames Names;
    GpuTracker Tracker;
    Rhythm SamplerRhythm;
    TuningSession Session;
    /// What is published next.
    FeedData Next;
    std::optional<double> NextLook;
    /// When to publish again, after memory ran out.
    std::optional<double> NextPublication;
};

}  // namespace gpu_feed

#endif  // FEED_WORKER_H
