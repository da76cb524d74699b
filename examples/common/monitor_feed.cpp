#include "monitor_feed.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <utility>

#include "clock.h"
#include "readings.h"
#include "rhythm.h"

namespace {

/// Readings are overdue after this many periods, but not before this long; the first one takes longer.
constexpr double kSilentPeriods = 3.0;
constexpr double kMinimumSilenceSeconds = 1.0;
constexpr double kFirstReadingSeconds = 5.0;

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

/// A steady-clock moment from its seconds.
std::chrono::steady_clock::time_point MomentOf(double seconds) {
    using Clock = std::chrono::steady_clock;
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
}

}  // namespace

const FeedGpu* FeedData::Find(const std::string& key) const {
    const auto gpu = std::find_if(Gpus.begin(), Gpus.end(), [&key](const auto& each) { return each->Key == key; });
    return gpu == Gpus.end() ? nullptr : gpu->get();
}

/// The feed's thread and what it shares with the interface.
class MonitorFeed::Worker {
public:
    /// Something to do with the monitor, which is null when the feed has ended.
    using Task = std::function<void(NvmlGpuMonitor* monitor)>;

    explicit Worker(FeedOptions options)
        : Options(std::move(options)), SamplerRhythm(Options.Interval), Data(std::make_shared<FeedData>()) {
        Next.Interval = Options.Interval;
        Publish();
    }

    /// The body of the thread.
    void Run() {
        try {
            NvmlGpuMonitor monitor;
            monitor.SetSampleInterval(Options.Interval);
            Post([this](NvmlGpuMonitor* started) { Resume(started); });
            while (WaitForWork()) Work(&monitor);
            const DriverUse use(this);
            monitor.Stop();
        } catch (const std::exception& error) {
            // Out of memory or threads; what the driver does wrong is told without exceptions.
            PublishState(FeedState::Unavailable, std::string("GPU monitoring has failed: ") + error.what() + '.');
        }
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

    /// Has `operation` carried out with the index of a GPU; `failure` makes a result from a sentence.
    template <typename Result>
    std::future<Result> Ask(const std::string& gpuKey, Result (*failure)(const std::string& sentence),
                            std::function<Result(NvmlGpuMonitor* monitor, unsigned int index)> operation) {
        auto answer = std::make_shared<std::promise<Result>>();
        Post([this, answer, gpuKey, failure, operation = std::move(operation)](NvmlGpuMonitor* monitor) {
            const std::shared_ptr<const FeedData> data = Latest();
            const FeedGpu* gpu = data->Find(gpuKey);
            if (monitor == nullptr || gpu == nullptr) {
                answer->set_value(failure(monitor == nullptr ? kFeedEnded : kNoSuchGpu));
            } else {
                answer->set_value(operation(monitor, gpu->Device.Index));
            }
        });
        return answer->get_future();
    }

    std::shared_ptr<const FeedData> Latest() const {
        const std::lock_guard<std::mutex> lock(Mutex);
        return Data;
    }

    double DriverWait() const {
        const double since = DriverUsedSince;
        return since == 0.0 ? 0.0 : NowSeconds() - since;
    }

    void Pause(NvmlGpuMonitor* monitor) {
        if (Next.State != FeedState::Sampling) return;
        monitor->PauseSampling();
        NextLook.reset();
        PublishState(FeedState::Paused, Next.Status);
    }

    void Resume(NvmlGpuMonitor* monitor) {
        if (Next.State == FeedState::Sampling) return;
        const bool bSampling = monitor->ResumeSampling();
        if (bSampling) LookSoon();
        // Silence begins anew, with the next look.
        Next.Gpus.clear();
        TakeOver(monitor->Snapshot(), 0.0);
        PublishState(bSampling ? FeedState::Sampling : FeedState::Unavailable, monitor->Status());
    }

    void SetInterval(NvmlGpuMonitor* monitor, std::chrono::milliseconds interval) {
        monitor->SetSampleInterval(interval);
        Next.Interval = interval;
        SamplerRhythm = Rhythm(interval);
        if (NextLook) LookSoon();
        Publish();
    }

    /// Result: false when the thread still runs after `patience`.
    bool Stop(std::chrono::milliseconds patience) {
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
        if (NextLook) {
            Wake.wait_until(lock, MomentOf(*NextLook), bWork);
        } else {
            Wake.wait(lock, bWork);
        }
        return !bStop;
    }

    void Work(NvmlGpuMonitor* monitor) {
        const DriverUse use(this);
        while (const Task task = TakeTask()) {
            task(monitor);
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
        SamplingSince = NowSeconds();
        NextLook = SamplerRhythm.AfterStart(SamplingSince);
    }

    void Look(const NvmlGpuMonitor& monitor) {
        std::vector<GpuTelemetryHistory> histories = monitor.Snapshot();
        const double now = NowSeconds();
        const FeedGpu* newest = TakeOver(std::move(histories), now);
        NextLook =
            newest == nullptr ? SamplerRhythm.AfterNothing(now) : SamplerRhythm.AfterNewSample(newest->Samples, now);
        Publish();
        if (newest != nullptr) TellChange();
    }

    /// Makes `histories` what is published next. Result: the GPU with the newest sample; null when none is new.
    const FeedGpu* TakeOver(std::vector<GpuTelemetryHistory> histories, double now) {
        std::vector<std::shared_ptr<const FeedGpu>> gpus;
        for (GpuTelemetryHistory& history : histories) {
            auto gpu = std::make_shared<FeedGpu>();
            gpu->Key = KeyOf(history.Device);
            if (const FeedGpu* before = Next.Find(gpu->Key)) {
                gpu->Latest = before->Latest;
                gpu->SilentSince = before->SilentSince;
            }
            Fill(std::move(history), now, gpu.get());
            gpus.push_back(std::move(gpu));
        }
        Next.Gpus = std::move(gpus);
        return NewestGpu();
    }

    void Fill(GpuTelemetryHistory history, double now, FeedGpu* gpu) {
        gpu->Device = std::move(history.Device);
        gpu->Samples = std::move(history.Samples);
        gpu->Processes = Names.Describe(history.ProcessMemory, Options.bNameProcesses);
        gpu->PeriodSeconds = PeriodOf(gpu->Samples);
        if (TakeLatest(gpu)) {
            gpu->SilentSince = 0.0;
        } else if (gpu->SilentSince == 0.0) {
            // Not counted from the last reading: that one is old, and all is well, when the process was suspended.
            gpu->SilentSince = now;
        }
    }

    double PeriodOf(const std::deque<GpuTelemetrySample>& samples) const {
        const double interval = std::chrono::duration<double>(Next.Interval).count();
        if (samples.size() < 2 || samples[samples.size() - 2].TimestampSeconds < SamplingSince) return interval;
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

    const FeedGpu* NewestGpu() {
        const FeedGpu* newest = nullptr;
        for (const auto& gpu : Next.Gpus) {
            if (gpu->Samples.empty() || gpu->Samples.back().TimestampSeconds <= NewestSeen) continue;
            newest = gpu.get();
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

    // The thread's own.
    FeedOptions Options;
    Rhythm SamplerRhythm;
    FeedData Next;
    ProcessNames Names;
    std::optional<double> NextLook;
    double SamplingSince = 0.0;
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

double MonitorFeed::DriverWait() const {
    return Work->DriverWait();
}

GpuState MonitorFeed::StateOf(const FeedGpu& gpu) const {
    const std::shared_ptr<const FeedData> data = Latest();
    if (data->State == FeedState::Paused) return GpuState::Paused;
    const bool bStarting = gpu.Latest.TimestampSeconds == 0.0;
    const double minimum = bStarting ? kFirstReadingSeconds : kMinimumSilenceSeconds;
    const double patience = std::max(kSilentPeriods * gpu.PeriodSeconds, minimum);
    const double silence = gpu.SilentSince == 0.0 ? 0.0 : NowSeconds() - gpu.SilentSince;
    if (std::max(silence, DriverWait()) >= patience) return GpuState::NoData;
    return bStarting ? GpuState::Starting : GpuState::Live;
}

void MonitorFeed::SetInterval(std::chrono::milliseconds interval) {
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
    Work->Post([work = Work.get()](NvmlGpuMonitor* monitor) {
        if (monitor != nullptr) work->Resume(monitor);
    });
}

std::future<TuningCapabilities> MonitorFeed::QueryTuning(const std::string& gpuKey) {
    return Work->Ask<TuningCapabilities>(gpuKey, CapabilityFailure, [](NvmlGpuMonitor* monitor, unsigned int index) {
        TuningCapabilities answer;
        answer.bFound = monitor->GetClockCapabilities(index, &answer.Clocks);
        answer.bFound = monitor->GetPowerCapabilities(index, &answer.Power) && answer.bFound;
        return answer;
    });
}

std::future<TuningResult> MonitorFeed::LockClocks(const std::string& gpuKey, const GpuClockPair& pair) {
    return Ask(gpuKey, [pair](NvmlGpuMonitor* monitor, unsigned int index, std::string* error) {
        return monitor->SetLockedClock(index, pair, error);
    });
}

std::future<TuningResult> MonitorFeed::ResetClocks(const std::string& gpuKey) {
    return Ask(gpuKey, [](NvmlGpuMonitor* monitor, unsigned int index, std::string* error) {
        return monitor->RestoreDefaultClocks(index, error);
    });
}

std::future<TuningResult> MonitorFeed::SetPowerLimit(const std::string& gpuKey, double watts) {
    return Ask(gpuKey, [watts](NvmlGpuMonitor* monitor, unsigned int index, std::string* error) {
        return monitor->SetPowerLimit(index, watts, error);
    });
}

std::future<TuningResult> MonitorFeed::ResetPowerLimit(const std::string& gpuKey) {
    return Ask(gpuKey, [](NvmlGpuMonitor* monitor, unsigned int index, std::string* error) {
        return monitor->RestoreDefaultPowerLimit(index, error);
    });
}

std::future<TuningResult> MonitorFeed::Ask(const std::string& gpuKey, std::function<Change> change) {
    return Work->Ask<TuningResult>(gpuKey, ChangeFailure,
                                   [change = std::move(change)](NvmlGpuMonitor* monitor, unsigned int index) {
                                       TuningResult answer;
                                       answer.Result = change(monitor, index, &answer.Error);
                                       return answer;
                                   });
}

bool MonitorFeed::Stop(std::chrono::milliseconds patience) {
    if (!Thread.joinable()) return true;
    const bool bEnded = Work->Stop(patience);
    if (bEnded) {
        Thread.join();
    } else {
        Thread.detach();
    }
    return bEnded;
}
