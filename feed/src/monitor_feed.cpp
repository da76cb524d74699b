#include "gpu_feed/monitor_feed.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <limits>
#include <mutex>
#include <optional>
#include <utility>

#include "gpu_feed/clock.h"
#include "gpu_feed/readings.h"
#include "gpu_feed/tuning_session.h"
#include "process_names.h"
#include "rhythm.h"

namespace gpu_feed {

namespace {

using std::chrono::milliseconds;

/// What the monitor makes of intervals outside.
constexpr milliseconds kShortestInterval{100};
constexpr milliseconds kLongestInterval{10000};

constexpr const char* kNoSuchGpu = "The GPU is not there any more.";
constexpr const char* kFeedEnded = "The program is ending.";

std::string KeyOf(const GpuDeviceInfo& device) {
    if (!device.Uuid.empty()) return device.Uuid;
    return !device.PciBusId.empty() ? device.PciBusId : std::to_string(device.Index);
}

TuningCapabilities CapabilityFailure(const std::string& sentence) {
    TuningCapabilities failure;
    failure.Clocks.Status = sentence;
    failure.Power.Status = sentence;
    return failure;
}

TuningResult ChangeFailure(const std::string& sentence) {
    return {GpuClockOperationResult::Error, sentence};
}

/// What is wrong when memory or threads have run out; what the driver does wrong is told without exceptions.
std::string Explain(const std::exception& error) {
    return std::string("GPU monitoring has failed: ") + error.what() + '.';
}

/// A steady-clock moment from its seconds.
std::chrono::steady_clock::time_point MomentOf(double seconds) {
    using Clock = std::chrono::steady_clock;
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
}

milliseconds Clamped(milliseconds interval) {
    return std::clamp(interval, kShortestInterval, kLongestInterval);
}

}  // namespace

/// The feed's thread and what it shares with the interface.
class MonitorFeed::Worker {
public:
    /// Something to do with the monitor, which is null when the feed has ended.
    using Task = std::function<void(NvmlGpuMonitor* monitor)>;

    explicit Worker(FeedOptions options)
        : bSimulated(options.bSimulated),
          Options(std::move(options)),
          SamplerRhythm(Clamped(Options.Interval)),
          Data(std::make_shared<const FeedData>()) {
        Next.Interval = Clamped(Options.Interval);
        Publish();
        Post([this](NvmlGpuMonitor* monitor) { Resume(monitor); });
    }

    /// The body of the thread.
    void Run() {
        NvmlGpuMonitor monitor;
        monitor.SetSampleInterval(Next.Interval);
        while (WaitForWork()) Work(&monitor);
        const DriverUse use(this);
        Session.TakeBackOverdue(&monitor, std::numeric_limits<double>::infinity());
        monitor.Stop();
        End();
    }

    void Post(Task task) {
        {
            const std::lock_guard<std::mutex> lock(Mutex);
            if (!bEnded) {
                Tasks.push_back(std::move(task));
                task = nullptr;
            }
        }
        if (task) task(nullptr);
        Wake.notify_all();
    }

    /// Has `operation` carried out; `failure` makes a result from a sentence.
    template <typename Result>
    std::future<Result> Ask(Result (*failure)(const std::string& sentence),
                            std::function<Result(NvmlGpuMonitor* monitor)> operation) {
        auto answer = std::make_shared<std::promise<Result>>();
        Post([answer, failure, operation = std::move(operation)](NvmlGpuMonitor* monitor) {
            try {
                answer->set_value(monitor == nullptr ? failure(kFeedEnded) : operation(monitor));
            } catch (const std::exception& error) {
                answer->set_value(failure(Explain(error)));
            }
        });
        return answer->get_future();
    }

    /// As the other `Ask`, for one GPU.
    template <typename Result>
    std::future<Result> Ask(const std::string& gpuKey, Result (*failure)(const std::string& sentence),
                            std::function<Result(NvmlGpuMonitor* monitor, const FeedGpu& gpu)> operation) {
        return Ask<Result>(failure, [this, gpuKey, failure, operation = std::move(operation)](NvmlGpuMonitor* monitor) {
            const std::shared_ptr<const FeedGpu> gpu = Next.Find(gpuKey);
            return gpu == nullptr ? failure(kNoSuchGpu) : operation(monitor, *gpu);
        });
    }

    std::shared_ptr<const FeedData> Latest() const {
        const std::lock_guard<std::mutex> lock(Mutex);
        return Data;
    }

    double DriverWait() const {
        const double since = DriverUsedSince;
        return since == 0.0 ? 0.0 : NowSeconds() - since;
    }

    bool IsSimulated() const { return bSimulated; }

    // ---- On the feed's thread ----

    void Pause(NvmlGpuMonitor* monitor) {
        if (Next.State != FeedState::Sampling) return;
        monitor->PauseSampling();
        NextLook.reset();
        Next.PausedAt = NowSeconds();
        PublishState(FeedState::Paused, Next.Status);
    }

    void Resume(NvmlGpuMonitor* monitor) {
        if (monitor == nullptr || Next.State == FeedState::Sampling) return;
        try {
            const bool bSampling = monitor->ResumeSampling();
            if (bSampling) LookSoon();
            Next.SamplingSince = NowSeconds();
            TakeOver(monitor->Snapshot(), 0.0);
            PublishState(bSampling ? FeedState::Sampling : FeedState::Unavailable, monitor->Status());
        } catch (const std::exception& error) {
            PublishState(FeedState::Unavailable, Explain(error));
        }
    }

    void SetInterval(NvmlGpuMonitor* monitor, milliseconds interval) {
        Next.Interval = Clamped(interval);
        monitor->SetSampleInterval(Next.Interval);
        SamplerRhythm = Rhythm(Next.Interval);
        if (NextLook) LookSoon();
        Publish();
    }

    TuningResult Tune(NvmlGpuMonitor* monitor, const FeedGpu& gpu, const TuningChange& change, double keepSeconds) {
        TuningResult result =
            Session.Make(monitor, gpu.Key, gpu.Device, change, keepSeconds, [this] { PublishTuning(); });
        PublishTuning();
        return result;
    }

    void Keep(const std::string& gpuKey, TuningControl control) {
        Session.Keep(gpuKey, control);
        PublishTuning();
    }

    TuningResult TakeBack(NvmlGpuMonitor* monitor, const std::string& gpuKey, TuningControl control) {
        TuningResult result = Session.TakeBack(monitor, gpuKey, control);
        PublishTuning();
        return result;
    }

    TuningResult TakeAllBack(NvmlGpuMonitor* monitor) {
        Session.TakeAllBack(monitor);
        PublishTuning();
        return {GpuClockOperationResult::Success, ""};
    }

    // ---- On the interface's thread ----

    /// Result: false when the thread still runs after `patience`.
    bool Stop(milliseconds patience) {
        std::unique_lock<std::mutex> lock(Mutex);
        bStop = true;
        Wake.notify_all();
        const bool bInTime = Ended.wait_for(lock, patience, [this] { return bEnded; });
        Options.OnChange = [] {};
        return bInTime;
    }

private:
    /// Marks a time in which the driver is at work.
    class DriverUse {
    public:
        explicit DriverUse(Worker* worker) : Owner(worker) { Owner->DriverUsedSince = NowSeconds(); }
        ~DriverUse() { Owner->DriverUsedSince = 0.0; }
        DriverUse(const DriverUse&) = delete;
        DriverUse& operator=(const DriverUse&) = delete;

    private:
        Worker* const Owner;
    };

    /// False: the feed is to end.
    bool WaitForWork() {
        std::unique_lock<std::mutex> lock(Mutex);
        const auto bWork = [this] { return bStop || !Tasks.empty(); };
        if (const std::optional<double> moment = NextMoment()) {
            Wake.wait_until(lock, MomentOf(*moment), bWork);
        } else {
            Wake.wait(lock, bWork);
        }
        return !bStop;
    }

    /// When there is something to do without being asked.
    std::optional<double> NextMoment() const {
        const std::optional<double> deadline = Session.NextDeadline();
        if (!NextLook || !deadline) return NextLook ? NextLook : deadline;
        return std::min(*NextLook, *deadline);
    }

    void Work(NvmlGpuMonitor* monitor) {
        while (const Task task = TakeTask()) {
            const DriverUse use(this);
            task(monitor);
            TellChange();
        }
        if (Session.NextDeadline().value_or(NowSeconds() + 1.0) <= NowSeconds()) {
            const DriverUse use(this);
            Session.TakeBackOverdue(monitor, NowSeconds());
            PublishTuning();
            TellChange();
        }
        if (NextLook && NowSeconds() >= *NextLook) Look(*monitor);
    }

    /// The oldest task; empty when there is none, or none is to be begun any more.
    Task TakeTask() {
        const std::lock_guard<std::mutex> lock(Mutex);
        if (Tasks.empty() || bStop) return nullptr;
        Task task = std::move(Tasks.front());
        Tasks.pop_front();
        return task;
    }

    void LookSoon() {
        PeriodsSince = NowSeconds();
        NextLook = SamplerRhythm.AfterStart(PeriodsSince);
    }

    void Look(const NvmlGpuMonitor& monitor) {
        try {
            std::vector<GpuTelemetryHistory> histories = SnapshotOf(monitor);
            const double now = NowSeconds();
            const std::shared_ptr<const FeedGpu> newest = TakeOver(std::move(histories), now);
            NextLook = newest == nullptr ? SamplerRhythm.AfterNothing(now)
                                         : SamplerRhythm.AfterNewSample(newest->Samples, now);
            Publish();
            if (newest != nullptr) TellChange();
        } catch (const std::bad_alloc&) {
            NextLook = SamplerRhythm.AfterNothing(NowSeconds());
        }
    }

    std::vector<GpuTelemetryHistory> SnapshotOf(const NvmlGpuMonitor& monitor) {
        const DriverUse use(this);
        return monitor.Snapshot();
    }

    /// Makes `histories`, as seen at `now`, what is published next; 0: not a look that can be in vain. Result: the GPU
    /// with the newest sample; null when none is new.
    std::shared_ptr<const FeedGpu> TakeOver(std::vector<GpuTelemetryHistory> histories, double now) {
        const double longestPeriod = LongestPeriod(histories, now);
        std::vector<std::shared_ptr<const FeedGpu>> gpus;
        for (GpuTelemetryHistory& history : histories) {
            auto gpu = std::make_shared<FeedGpu>();
            gpu->Key = FreeKey(history.Device, gpus);
            if (const std::shared_ptr<const FeedGpu> before = Next.Find(gpu->Key)) {
                gpu->Latest = before->Latest;
                gpu->SilentSince = now == 0.0 ? 0.0 : before->SilentSince;
            }
            gpu->PeriodSeconds = std::min(PeriodOf(history.Samples), longestPeriod);
            Fill(std::move(history), now, gpu.get());
            gpus.push_back(std::move(gpu));
        }
        Next.Gpus = std::move(gpus);
        return NewestGpu();
    }

    /// Drivers have told one UUID for several GPUs.
    static std::string FreeKey(const GpuDeviceInfo& device, const std::vector<std::shared_ptr<const FeedGpu>>& taken) {
        const std::string key = KeyOf(device);
        const bool bTaken =
            std::any_of(taken.begin(), taken.end(), [&key](const auto& gpu) { return gpu->Key == key; });
        return bTaken ? key + ' ' + device.PciBusId + '#' + std::to_string(device.Index) : key;
    }

    void Fill(GpuTelemetryHistory history, double now, FeedGpu* gpu) {
        gpu->Device = std::move(history.Device);
        gpu->Samples = std::move(history.Samples);
        gpu->Processes = Names.Describe(history.ProcessMemory, !bSimulated);
        if (TakeLatest(gpu)) {
            gpu->SilentSince = 0.0;
        } else if (gpu->SilentSince == 0.0) {
            // Not counted from the last reading: that one is old, and all is well, when the process was suspended.
            gpu->SilentSince = now;
        }
    }

    /// The next cycle starts within the interval from now. That bounds periods, which a suspended process would make
    /// as long as it slept.
    double LongestPeriod(const std::vector<GpuTelemetryHistory>& histories, double now) const {
        double cycleStart = now;
        for (const GpuTelemetryHistory& history : histories) {
            if (history.Samples.empty() || history.Samples.back().TimestampSeconds <= NewestSeen) continue;
            cycleStart = std::min(cycleStart, history.Samples.back().TimestampSeconds);
        }
        return now - cycleStart + std::chrono::duration<double>(Next.Interval).count();
    }

    double PeriodOf(const std::deque<GpuTelemetrySample>& samples) const {
        if (samples.size() < 2 || samples[samples.size() - 2].TimestampSeconds < PeriodsSince) return 0.0;
        return samples.back().TimestampSeconds - samples[samples.size() - 2].TimestampSeconds;
    }

    /// False when no sample since the last look has a reading.
    static bool TakeLatest(FeedGpu* gpu) {
        const auto isKnown = [gpu](const GpuTelemetrySample& sample) {
            return sample.TimestampSeconds != 0.0 && sample.TimestampSeconds <= gpu->Latest.TimestampSeconds;
        };
        const auto firstKnown = std::find_if(gpu->Samples.rbegin(), gpu->Samples.rend(), isKnown);
        const auto newest = std::find_if(gpu->Samples.rbegin(), firstKnown, HasAnyReading);
        if (newest == firstKnown) return false;
        gpu->Latest = *newest;
        return true;
    }

    std::shared_ptr<const FeedGpu> NewestGpu() {
        std::shared_ptr<const FeedGpu> newest;
        for (const auto& gpu : Next.Gpus) {
            if (gpu->Samples.empty() || gpu->Samples.back().TimestampSeconds <= NewestSeen) continue;
            newest = gpu;
            NewestSeen = gpu->Samples.back().TimestampSeconds;
        }
        return newest;
    }

    void PublishState(FeedState state, const std::string& status) {
        Next.State = state;
        Next.Status = status;
        Publish();
        TellChange();
    }

    void PublishTuning() {
        Next.Tuning = Session.Records();
        Publish();
    }

    void Publish() {
        auto data = std::make_shared<const FeedData>(Next);
        const std::lock_guard<std::mutex> lock(Mutex);
        Data.swap(data);
    }

    void TellChange() {
        const std::lock_guard<std::mutex> lock(Mutex);
        Options.OnChange();
    }

    void End() {
        std::deque<Task> left;
        {
            const std::lock_guard<std::mutex> lock(Mutex);
            bEnded = true;
            left.swap(Tasks);
        }
        for (const Task& task : left) task(nullptr);
        Ended.notify_all();
    }

    const bool bSimulated;

    // The thread's own.
    FeedOptions Options;
    Rhythm SamplerRhythm;
    FeedData Next;
    TuningSession Session;
    ProcessNames Names;
    std::optional<double> NextLook;
    /// Samples before this moment tell nothing of the period.
    double PeriodsSince = 0.0;
    double NewestSeen = 0.0;

    std::atomic<double> DriverUsedSince{0.0};

    // Mutex guards what follows, and OnChange; it is never held while the driver is at work.
    mutable std::mutex Mutex;
    std::condition_variable Wake;
    std::condition_variable Ended;
    std::shared_ptr<const FeedData> Data;
    std::deque<Task> Tasks;
    bool bStop = false;
    bool bEnded = false;
};

MonitorFeed::MonitorFeed(FeedOptions options) : Work(std::make_shared<Worker>(std::move(options))) {
    Thread = std::thread([work = Work] { work->Run(); });
}

MonitorFeed::~MonitorFeed() {
    Stop();
}

std::shared_ptr<const FeedData> MonitorFeed::Latest() const {
    return Work->Latest();
}

FeedMoment MonitorFeed::Moment() const {
    return {Work->Latest(), NowSeconds(), std::chrono::system_clock::now(), Work->DriverWait(), Work->IsSimulated()};
}

void MonitorFeed::SetInterval(milliseconds interval) {
    Work->Post([work = Work.get(), interval](NvmlGpuMonitor* monitor) {
        if (monitor != nullptr) work->SetInterval(monitor, interval);
    });
}

void MonitorFeed::Pause() {
    Work->Post([work = Work.get()](NvmlGpuMonitor* monitor) {
        if (monitor != nullptr) work->Pause(monitor);
    });
}

void MonitorFeed::Resume() {
    Work->Post([work = Work.get()](NvmlGpuMonitor* monitor) { work->Resume(monitor); });
}

std::future<TuningCapabilities> MonitorFeed::QueryTuning(const std::string& gpuKey) {
    return Work->Ask<TuningCapabilities>(gpuKey, CapabilityFailure, [](NvmlGpuMonitor* monitor, const FeedGpu& gpu) {
        TuningCapabilities answer;
        monitor->GetClockCapabilities(gpu.Device.Index, &answer.Clocks);
        monitor->GetPowerCapabilities(gpu.Device.Index, &answer.Power);
        return answer;
    });
}

std::future<TuningResult> MonitorFeed::Tune(const std::string& gpuKey, const TuningChange& change, double keepSeconds) {
    return Work->Ask<TuningResult>(
        gpuKey, ChangeFailure, [work = Work.get(), change, keepSeconds](NvmlGpuMonitor* monitor, const FeedGpu& gpu) {
            return work->Tune(monitor, gpu, change, keepSeconds);
        });
}

void MonitorFeed::Keep(const std::string& gpuKey, TuningControl control) {
    Work->Post([work = Work.get(), gpuKey, control](NvmlGpuMonitor* monitor) {
        if (monitor != nullptr) work->Keep(gpuKey, control);
    });
}

std::future<TuningResult> MonitorFeed::TakeBack(const std::string& gpuKey, TuningControl control) {
    return Work->Ask<TuningResult>(ChangeFailure, [work = Work.get(), gpuKey, control](NvmlGpuMonitor* monitor) {
        return work->TakeBack(monitor, gpuKey, control);
    });
}

std::future<TuningResult> MonitorFeed::TakeAllBack() {
    return Work->Ask<TuningResult>(ChangeFailure,
                                   [work = Work.get()](NvmlGpuMonitor* monitor) { return work->TakeAllBack(monitor); });
}

bool MonitorFeed::Stop(milliseconds patience) {
    if (!Thread.joinable()) return !bLeftBehind;
    bLeftBehind = !Work->Stop(patience);
    if (bLeftBehind) {
        Thread.detach();
    } else {
        Thread.join();
    }
    return !bLeftBehind;
}

}  // namespace gpu_feed
