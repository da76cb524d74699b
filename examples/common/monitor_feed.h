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
#include "process_names.h"

enum class FeedState {
    /// NVML is being started.
    Starting,
    Sampling,
    Paused,
    /// NVML could not be started; `FeedData::Status` says why.
    Unavailable,
};

enum class GpuState {
    /// No reading yet.
    Starting,
    Live,
    Paused,
    /// Readings are overdue: the GPU may be lost, or the driver hangs.
    NoData,
};

/// One GPU as of the latest look at it. Moments are steady-clock seconds, as in samples.
struct FeedGpu {
    /// Names the GPU for as long as the program runs: its UUID or, where that was not read, PCI bus id or index.
    std::string Key;
    GpuDeviceInfo Device;
    /// Oldest first.
    std::deque<GpuTelemetrySample> Samples;
    /// Largest first.
    std::vector<FeedProcess> Processes;
    /// The newest sample with any reading; without one, its `TimestampSeconds` is 0.
    GpuTelemetrySample Latest;
    /// From one sample to the next, as last measured; before that, the interval.
    double PeriodSeconds = 0.0;
    /// Since when looks at the GPU have been in vain; 0 while they are not.
    double SilentSince = 0.0;

    double Age(double now) const { return now - Latest.TimestampSeconds; }
};

/// What the feed publishes. Nothing in it changes any more.
struct FeedData {
    FeedState State = FeedState::Starting;
    /// The monitor's `Status`; empty while NVML is being started for the first time.
    std::string Status;
    std::chrono::milliseconds Interval{0};
    /// In the order of NVML's indices; none is null.
    std::vector<std::shared_ptr<const FeedGpu>> Gpus;

    /// Null when there is none.
    const FeedGpu* Find(const std::string& key) const;
};

/// What can be changed on one GPU. Without `bFound` only the sentences in `Status` are filled.
struct TuningCapabilities {
    bool bFound = false;
    GpuClockCapabilities Clocks;
    GpuPowerCapabilities Power;
};

struct TuningResult {
    GpuClockOperationResult Result = GpuClockOperationResult::Error;
    /// For the user; empty after success.
    std::string Error;
};

struct FeedOptions {
    std::chrono::milliseconds Interval{1000};
    /// False for simulated GPUs, whose processes are none of this system's.
    bool bNameProcesses = true;
    /// Called on the feed's thread when there is something new: data or a result. It must not call the feed. Once
    /// `Stop` has returned it is not called any more.
    std::function<void()> OnChange = [] {};
};

/// Owns the monitor for a program with a user interface, and keeps the interface from ever waiting for the driver.
///
/// A thread of its own starts NVML, takes one snapshot per interval and makes the changes that are asked for. The
/// interface takes copies and results. Requests are carried out in order. One that names no GPU, or that the end of the
/// feed overtakes, has a failure for its result, never an exception; one that the driver never answers has none.
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

    /// How long the feed's thread has been waiting for the driver, in seconds.
    double DriverWait() const;

    /// What `gpu`, of the latest data, does at this moment.
    GpuState StateOf(const FeedGpu& gpu) const;

    void SetInterval(std::chrono::milliseconds interval);
    void Pause();
    void Resume();

    std::future<TuningCapabilities> QueryTuning(const std::string& gpuKey);
    std::future<TuningResult> LockClocks(const std::string& gpuKey, const GpuClockPair& pair);
    std::future<TuningResult> ResetClocks(const std::string& gpuKey);
    std::future<TuningResult> SetPowerLimit(const std::string& gpuKey, double watts);
    std::future<TuningResult> ResetPowerLimit(const std::string& gpuKey);

    /// Ends the thread and shuts NVML down, requests that have not begun excepted.
    ///
    /// Result: false when a driver call has not returned for `patience`. It is left behind then, on its thread: the
    /// program has to end with `std::_Exit`, which runs no destructors under that thread's feet.
    bool Stop(std::chrono::milliseconds patience = std::chrono::milliseconds(1000));

private:
    class Worker;
    using Change = GpuClockOperationResult(NvmlGpuMonitor* monitor, unsigned int index, std::string* error);

    std::future<TuningResult> Ask(const std::string& gpuKey, std::function<Change> change);

    /// Lives as long as its thread, if that hangs.
    std::shared_ptr<Worker> Work;
    std::thread Thread;
};

#endif  // EXAMPLES_MONITOR_FEED_H
