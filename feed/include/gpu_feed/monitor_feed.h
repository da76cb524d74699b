#ifndef GPU_FEED_MONITOR_FEED_H
#define GPU_FEED_MONITOR_FEED_H

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "gpu_feed/feed_data.h"
#include "gpu_feed/tuning_change.h"
#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// What can be changed on one GPU, as `NvmlGpuMonitor` tells it.
struct TuningCapabilities {
    GpuClockCapabilities Clocks;
    GpuPowerCapabilities Power;
};

struct FeedOptions {
    /// As `NvmlGpuMonitor::SetSampleInterval` takes it.
    std::chrono::milliseconds Interval{1000};
    /// Whether the GPUs are simulated: processes on them are not this system's, so they get no names.
    bool bSimulated = false;
    /// Called on the feed's thread, with a lock of the feed held, when there is something new: data or a result. All it
    /// may do is wake the interface. Once `Stop` has returned it is not called any more.
    std::function<void()> OnChange = [] {};
};

/// Owns the monitor for a program with a user interface, and keeps the interface from ever waiting for the driver.
///
/// A thread of its own starts NVML, takes one snapshot per interval and makes the changes that are asked for. The
/// interface takes copies and results. Requests are carried out in order. One that names no GPU, or that the end of the
/// feed overtakes, has a failure for its result, never an exception; one that the driver never answers has none.
///
/// A change goes back by itself unless it is kept in time, also when the interface hangs: a frozen desktop, the reason
/// for going back, cannot be asked. One that nobody has kept when the feed ends goes back too. What the driver refuses
/// to take back stays, and `TuningRecord::Problem` tells.
///
/// Threads: the interface's, all of it. What `Latest` gives may be handed on to any thread.
class MonitorFeed {
public:
    explicit MonitorFeed(FeedOptions options);

    /// Calls `Stop` with the patience that it has by default.
    ~MonitorFeed();

    MonitorFeed(const MonitorFeed&) = delete;
    MonitorFeed& operator=(const MonitorFeed&) = delete;

    /// Never null.
    std::shared_ptr<const FeedData> Latest() const;

    /// The same with what else a view draws from.
    FeedMoment Moment() const;

    void SetInterval(std::chrono::milliseconds interval);
    void Pause();
    /// Goes on, or tries again to start.
    void Resume();

    std::future<TuningCapabilities> QueryTuning(const std::string& gpuKey);

    /// Makes a change, which goes back after `keepSeconds` if there is a way back: `FeedData::Tuning` tells.
    std::future<TuningResult> Tune(const std::string& gpuKey, const TuningChange& change, double keepSeconds);

    /// Lets the latest change of a setting stay.
    void Keep(const std::string& gpuKey, TuningControl control);

    /// Takes the latest change of a setting back.
    std::future<TuningResult> TakeBack(const std::string& gpuKey, TuningControl control);

    /// Takes everything back. `FeedData::Tuning` tells what could not be; a failure says that it was not tried.
    std::future<TuningResult> TakeAllBack();

    /// Shuts NVML down and ends the thread. Requests that have not begun by then fail.
    ///
    /// Result: false when that has taken longer than `patience`: NVML is being started, or a driver call hangs. It is
    /// left behind then, on its thread, and the program has to end with `std::_Exit`, which runs no destructors under
    /// that thread's feet. A further call gives the same result.
    bool Stop(std::chrono::milliseconds patience = std::chrono::milliseconds(1000));

private:
    class Worker;

    /// Lives as long as its thread, if that hangs.
    std::shared_ptr<Worker> Work;
    std::thread Thread;
    bool bLeftBehind = false;
};

}  // namespace gpu_feed

#endif  // GPU_FEED_MONITOR_FEED_H
