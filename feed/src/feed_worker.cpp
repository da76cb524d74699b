#include "feed_worker.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <new>
#include <utility>

#include "gpu_feed/clock.h"

namespace gpu_feed {

namespace {

using std::chrono::milliseconds;

/// The monitor brings other intervals into this range.
constexpr milliseconds kShortestInterval{100};
constexpr milliseconds kLongestInterval{10000};

/// How long to wait for memory before publishing again.
constexpr double kMemoryWaitSeconds = 0.1;

milliseconds Clamped(milliseconds interval) {
    return std::clamp(interval, kShortestInterval, kLongestInterval);
}

bool IsDue(const std::optional<double>& moment) {
    return moment && *moment <= NowSeconds();
}

/// Carries `step` out. Where memory runs out, the rest of it is left out, and the thread goes on.
template <typename Step>
void Attempt(const Step& step) {
    try {
        step();
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace

std::string ExplainFailure(const std::exception& error) {
    return std::string("GPU monitoring has failed: ") + error.what() + '.';
}

/// Marks a time in which the driver is at work.
class FeedWorker::DriverUse {
public:
    explicit DriverUse(FeedWorker* worker) : Worker(worker) { Worker->DriverUsedSince = NowSeconds(); }
    ~DriverUse() { Worker->DriverUsedSince = 0.0; }
    DriverUse(const DriverUse&) = delete;
    DriverUse& operator=(const DriverUse&) = delete;

private:
    FeedWorker* const Worker;
};

FeedWorker::FeedWorker(FeedOptions options)
    : bSimulated(options.bSimulated),
      Shared(std::move(options.OnChange)),
      Tracker(Clamped(options.Interval),
              [this](const std::vector<GpuProcessMemory>& processes) { return Names.Describe(processes); }),
      SamplerRhythm(Clamped(options.Interval)),
      Session(ChangeJournal(std::move(options.JournalFolder))) {
    Next.Interval = Clamped(options.Interval);
    Publish();
    Shared.Post([](FeedWorker* worker) {
        if (worker != nullptr) worker->Resume();
    });
}

double FeedWorker::DriverWait() const {
    const double since = DriverUsedSince;
    return since == 0.0 ? 0.0 : NowSeconds() - since;
}

void FeedWorker::Run() {
    Monitor.SetSampleInterval(Next.Interval);
    while (Shared.WaitForRequest(NextMoment())) {
        CarryOutRequest();
        DoWhatIsDue();
    }
    const DriverUse use(this);
    TakeBackOverdue(std::numeric_limits<double>::infinity());
    Monitor.Stop();
    Shared.End();
}

// ---- The loop ----

/// When there is something to do without a request.
std::optional<double> FeedWorker::NextMoment() const {
    std::optional<double> next;
    for (const std::optional<double>& moment : {NextLook, NextPublication, Session.NextDeadline()}) {
        if (moment) next = std::min(next.value_or(*moment), *moment);
    }
    return next;
}

/// One only, so that requests do not keep what is due from being done.
void FeedWorker::CarryOutRequest() {
    const FeedExchange::Request request = Shared.TakeRequest();
    if (!request) return;
    const DriverUse use(this);
    Attempt([&] { request(this); });
    Shared.SignalChange();
}

void FeedWorker::DoWhatIsDue() {
    if (IsDue(Session.NextDeadline())) {
        const DriverUse use(this);
        TakeBackOverdue(NowSeconds());
        Shared.SignalChange();
    }
    if (IsDue(NextLook)) Look();
    if (IsDue(NextPublication)) {
        Publish();
        Shared.SignalChange();
    }
}

void FeedWorker::TakeBackOverdue(double now) {
    Attempt([&] { Session.TakeBackOverdue(&Monitor, now); });
    Publish();
}

void FeedWorker::LookSoon() {
    NextLook = SamplerRhythm.AfterStart(NowSeconds());
}

void FeedWorker::Look() {
    std::shared_ptr<const FeedGpu> newest;
    Attempt([&] {
        const std::vector<GpuTelemetryHistory> histories = TakeNews();
        newest = Tracker.Look(histories, NowSeconds());
    });
    const double now = NowSeconds();
    NextLook = newest == nullptr
                   ? SamplerRhythm.AfterNothing(now)
                   : SamplerRhythm.AfterNewSample(newest->Samples.back().TimestampSeconds, newest->PeriodSeconds, now);
    Publish();
    if (newest != nullptr) Shared.SignalChange();
}

std::vector<GpuTelemetryHistory> FeedWorker::TakeNews() {
    const DriverUse use(this);
    return Monitor.SnapshotSince(Tracker.NewestMoment());
}

// ---- What requests ask for ----

std::shared_ptr<const FeedGpu> FeedWorker::Find(const std::string& gpuKey) const {
    // The monitor may start NVML for a request, and nothing is known of the GPUs' indices then.
    const bool bFound = Next.State == FeedState::Sampling || Next.State == FeedState::Paused;
    return bFound ? Tracker.Find(gpuKey) : nullptr;
}

void FeedWorker::Pause() {
    if (Next.State != FeedState::Sampling) return;
    Monitor.PauseSampling();
    NextLook.reset();
    Next.PausedAt = NowSeconds();
    PublishState(FeedState::Paused, Next.Status);
}

void FeedWorker::Resume() {
    if (Next.State == FeedState::Sampling) return;
    try {
        Next.SamplingSince = NowSeconds();
        const bool bSampling = Monitor.ResumeSampling();
        if (bSampling) LookSoon();
        Tracker.Begin(Monitor.Snapshot(), Next.SamplingSince);
        if (bSampling) FindGpus();
        PublishState(bSampling ? FeedState::Sampling : FeedState::Unavailable, Monitor.Status());
    } catch (const std::exception& error) {
        PublishState(FeedState::Unavailable, ExplainFailure(error));
    }
}

void FeedWorker::FindGpus() {
    Session.FindGpus([this](const std::string& gpuKey) {
        const std::shared_ptr<const FeedGpu> gpu = Tracker.Find(gpuKey);
        return gpu == nullptr || LastingName(gpu->Device).empty() ? nullptr : &gpu->Device;
    });
}

void FeedWorker::Rescan() {
    Session.LoseGpus();
    NextLook.reset();
    // From here on, earlier readings are not current any more.
    Next.SamplingSince = NowSeconds();
    PublishState(FeedState::Starting, "");
    Shared.SignalChange();
    Monitor.Stop();
    Resume();
}

void FeedWorker::SetInterval(milliseconds interval) {
    Next.Interval = Clamped(interval);
    Monitor.SetSampleInterval(Next.Interval);
    SamplerRhythm = Rhythm(Next.Interval);
    Tracker.SetInterval(Next.Interval, NowSeconds());
    if (NextLook) LookSoon();
    Publish();
}

TuningCapabilities FeedWorker::QueryTuning(const FeedGpu& gpu) {
    TuningCapabilities answer;
    Monitor.GetClockCapabilities(gpu.Device.Index, &answer.Clocks);
    Monitor.GetPowerCapabilities(gpu.Device.Index, &answer.Power);
    answer.bRights = HasTuningRights();
    return answer;
}

TuningResult FeedWorker::Tune(const FeedGpu& gpu, const TuningChange& change, double keepSeconds) {
    TuningResult result = Session.Make(&Monitor, gpu.Key, gpu.Device, change, keepSeconds, [this] { Publish(); });
    Publish();
    return result;
}

void FeedWorker::Keep(const std::string& gpuKey, TuningControl control) {
    Session.Keep(gpuKey, control);
    Publish();
}

TuningResult FeedWorker::TakeBack(const std::string& gpuKey, TuningControl control) {
    TuningResult result = Session.TakeBack(&Monitor, gpuKey, control);
    Publish();
    return result;
}

TuningResult FeedWorker::TakeAllBack() {
    Session.TakeAllBack(&Monitor);
    Publish();
    return {GpuClockOperationResult::Success, ""};
}

// ---- Publishing ----

void FeedWorker::PublishState(FeedState state, const std::string& status) {
    Next.State = state;
    Next.Status = status;
    Publish();
}

void FeedWorker::Publish() {
    NextPublication = NowSeconds() + kMemoryWaitSeconds;
    Attempt([this] {
        Next.Gpus = Tracker.Gpus();
        Next.Tuning = Session.Records();
        Shared.Publish(std::make_shared<const FeedData>(Next));
        NextPublication.reset();
    });
}

}  // namespace gpu_feed
