#ifndef GPU_FEED_MONITOR_FEED_H
#define GPU_FEED_MONITOR_FEED_H

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "gpu_feed/feed_data.h"
#include "gpu_feed/feed_requests.h"
#include "gpu_feed/tuning_change.h"
#include "nvml_gpu_monitor.h"

/// \file
/// The monitor for a program with a user interface: the interface never waits for the driver.
///
///     gpu_feed::FeedOptions options;
///     options.OnChange = [] { WakeInterface(); };
///     gpu_feed::MonitorFeed feed(options);
///     ...
///     const gpu_feed::FeedMoment moment = feed.Moment();
///     for (const auto& gpu : moment.Data->Gpus) Draw(*gpu, gpu_feed::StateOf(moment, *gpu));

namespace gpu_feed {

class FeedWorker;

struct FeedOptions {
    /// As `NvmlGpuMonitor::SetSampleInterval` takes it.
    std::chrono::milliseconds Interval{1000};
    /// Whether the GPUs are simulated: interfaces then say so and ask for no rights.
    bool bSimulated = false;
    /// Called when there is something new: data or an answer. It runs on the feed's thread with a lock of the feed
    /// held, so it must not call the feed, nor wait for a thread that does; let it wake the interface. It must not
    /// throw. After `Stop` has returned it is not called any more.
    std::function<void()> OnChange = [] {};
    /// Where changes are noted that are to go back, for after the program was killed: usually `DefaultJournalFolder()`.
    /// Empty: nowhere. See `ChangeJournal`.
    std::filesystem::path JournalFolder = {};
};

/// Owns the monitor, and keeps a user interface from ever waiting for the driver.
///
/// A thread of its own starts NVML, copies the histories once per interval and carries requests out, one after the
/// other. The interface takes what is published and gets answers as futures.
///
/// Answers: a request for a GPU that does not exist fails, and so does one that has not begun when the feed ends. The
/// answer then has a sentence for the user; no future holds an exception. While the driver hangs, nothing is answered:
/// ask a future whether it is ready instead of waiting for it.
///
/// Tuning: a change goes back by itself unless it is kept in time, also when the interface hangs: a change can freeze
/// the desktop, and then nobody can take it back. A change that was not kept goes back when the feed ends, too. What
/// the driver refuses to take back stays in force, and `TuningRecord::Problem` says why.
///
/// Threads: the destructor and `Stop` belong to one thread at a time. Everything else may be called from any thread,
/// and never waits for the driver.
///
/// Failure: only the standard library's exceptions pass out of an operation, when the caller's thread runs out of
/// memory or no thread can be started. The feed's own thread survives a lack of memory.
class MonitorFeed final : public FeedRequests {
public:
    /// Returns at once; `FeedData::State` shows when NVML has been started.
    explicit MonitorFeed(FeedOptions options);

    /// Calls `Stop` with its default patience. When that gives false, the program must end as `Stop` says.
    ~MonitorFeed() override;

    /// What was published last. Never null, and it does not change any more: the caller may keep it and hand it to any
    /// thread.
    std::shared_ptr<const FeedData> Latest() const;

    /// What was published last, and what else a view draws from.
    FeedMoment Moment() const override;

    /// Sets `FeedOptions::Interval`.
    void SetInterval(std::chrono::milliseconds interval) override;

    /// Stops sampling. The histories stay.
    void Pause() override;

    /// Goes on sampling; where that could not be started, tries again.
    void Resume() override;

    /// Looks anew for the driver and its GPUs: shuts NVML down and starts it again, as a user wants it who has plugged
    /// a GPU in or installed a driver. Sampling goes on, also when it was paused or could not be started.
    ///
    /// The histories of the GPUs that are found again go on, also when they have other indices now: see
    /// `FeedGpu::Samples`. So do their changes, which can be taken back as before. The changes of a GPU that is missing
    /// stay outstanding: taking them back gives a sentence, until another rescan finds the GPU. The data shows the GPUs
    /// of before until NVML has been started.
    void Rescan() override;

    /// Asks what can be changed on a GPU. `gpuKey` is a `FeedGpu::Key`. After a failure, both records hold their
    /// defaults, and their `Status` says why.
    std::future<TuningCapabilities> QueryTuning(const std::string& gpuKey) override;

    /// Makes a change that goes back after `keepSeconds`, if there is a way back: `FeedData::Tuning` then has a record
    /// of it.
    std::future<TuningResult> Tune(const std::string& gpuKey, const TuningChange& change, double keepSeconds) override;

    /// Lets the latest change of a setting stay.
    void Keep(const std::string& gpuKey, TuningControl control) override;

    /// Takes the latest change of a setting back.
    std::future<TuningResult> TakeBack(const std::string& gpuKey, TuningControl control) override;

    /// Takes all changes back, those that were kept too. Result: `Success` when that was tried; `TuningRecord::Problem`
    /// then says what could not go back. Otherwise nothing was tried.
    std::future<TuningResult> TakeAllBack();

    /// Lets the program's changes outlast it: removes the journal's notes of the settings that it has changed, also the
    /// notes that ended programs have left of them. Call it at the end, before `Stop`. Result: empty, or a sentence for
    /// the user.
    std::string LeaveChanges() const;

    /// Takes back what was not kept, shuts NVML down and ends the thread.
    ///
    /// Result: false when that takes longer than `patience`: NVML is being started, or a driver call hangs. The thread
    /// is then left behind, and the program has to end with `std::_Exit`, which destroys nothing that this thread
    /// still uses. Another call gives the same result.
    bool Stop(std::chrono::milliseconds patience = std::chrono::milliseconds(1000));

private:
    /// Shared with its thread, which may hang and outlive the feed.
    std::shared_ptr<FeedWorker> Worker;
    std::thread Thread;
    bool bLeftBehind = false;
};

}  // namespace gpu_feed

#endif  // GPU_FEED_MONITOR_FEED_H
