#ifndef EXAMPLES_MONITOR_FEED_H
#define EXAMPLES_MONITOR_FEED_H

#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "nvml_gpu_monitor.h"
#include "gpu_feed/process_names.h"
#include "gpu_feed/tuning_session.h"

enum class FeedState {
    /// NVML is being started.
    Starting,
    Sampling,
    Paused,
    /// NVML, or sampling, could not be started; `FeedData::Status` says why.
    Unavailable,
};

enum class GpuState {
    /// No reading yet since sampling began or went on.
    Starting,
    Live,
    Paused,
    /// Readings are overdue, or were when sampling was paused: the GPU may be lost, or the driver hangs.
    NoData,
    /// As the whole feed.
    Unavailable,
};

/// One GPU as of the latest look at it. Moments are steady-clock seconds, as in samples.
struct FeedGpu {
    /// Names the GPU for as long as the program runs: its UUID. Where that was not read, or another GPU has it too, the
    /// PCI bus id and the index take part.
    std::string Key;
    GpuDeviceInfo Device;
    /// Oldest first.
    std::deque<GpuTelemetrySample> Samples;
    /// Largest first.
    std::vector<FeedProcess> Processes;
    /// The newest sample with any reading; without one, its `TimestampSeconds` is 0.
    GpuTelemetrySample Latest;
    /// From one sample to the next, as last measured; 0 until it can be, also after a pause or with a new interval.
    double PeriodSeconds = 0.0;
    /// Since when looks at the GPU have been in vain; 0 while they are not.
    double SilentSince = 0.0;

    /// Of the latest reading, if there is one.
    double Age(double now) const { return now - Latest.TimestampSeconds; }
};

/// What the feed publishes. Nothing in it changes any more.
struct FeedData {
    FeedState State = FeedState::Starting;
    /// The monitor's `Status`, or why sampling could not be started; empty while NVML is being started.
    std::string Status;
    std::chrono::milliseconds Interval{0};
    /// When sampling began or went on, and when it was paused last.
    double SamplingSince = 0.0;
    double PausedAt = 0.0;
    /// In the order of NVML's indices; none is null.
    std::vector<std::shared_ptr<const FeedGpu>> Gpus;
    /// Of each setting of a GPU that the program has changed, or has tried to.
    std::vector<TuningRecord> Tuning;

    /// Null when there is none.
    std::shared_ptr<const FeedGpu> Find(const std::string& key) const;
    const TuningRecord* FindTuning(const std::string& gpuKey, TuningControl control) const;
};

/// What can be changed on one GPU, as `NvmlGpuMonitor` tells it.
struct TuningCapabilities {
    GpuClockCapabilities Clocks;
    GpuPowerCapabilities Power;
};

struct FeedOptions {
    /// As `NvmlGpuMonitor::SetSampleInterval` takes it.
    std::chrono::milliseconds Interval{1000};
    /// False for simulated GPUs, whose processes are none of this system's.
    bool bNameProcesses = true;
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

    /// What `gpu`, of `data`, does at this moment.
    GpuState StateOf(const FeedData& data, const FeedGpu& gpu) const;

    /// How long the feed's thread has been waiting for the driver, in seconds.
    double DriverWait() const;

    /// Whether that is much longer than cycles over the GPUs of `data` take.
    bool IsDriverHanging(const FeedData& data) const;

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

#endif  // EXAMPLES_MONITOR_FEED_H
