#include "gpu_feed/monitor_feed.h"

#include <exception>
#include <functional>
#include <utility>

#include "feed_worker.h"
#include "gpu_feed/clock.h"

namespace gpu_feed {

namespace {

using std::chrono::milliseconds;

constexpr const char* kFeedEnded = "The program is ending.";

/// The answer to a request that is not carried out.
template <typename Answer>
Answer Failure(const std::string& sentence);

template <>
TuningCapabilities Failure(const std::string& sentence) {
    TuningCapabilities failure;
    failure.Clocks.Status = sentence;
    failure.Power.Status = sentence;
    return failure;
}

template <>
TuningResult Failure(const std::string& sentence) {
    return {GpuClockOperationResult::Error, sentence};
}

/// Has `operation` carried out, unless the feed has ended.
void Post(FeedWorker& worker, std::function<void(FeedWorker& worker)> operation) {
    worker.Exchange().Post([operation = std::move(operation)](FeedWorker* carrier) {
        if (carrier != nullptr) operation(*carrier);
    });
}

/// Has `operation` carried out, and gives what it answers.
template <typename Answer>
std::future<Answer> Ask(FeedWorker& worker, std::function<Answer(FeedWorker& worker)> operation) {
    auto promise = std::make_shared<std::promise<Answer>>();
    worker.Exchange().Post([promise, operation = std::move(operation)](FeedWorker* carrier) {
        try {
            promise->set_value(carrier == nullptr ? Failure<Answer>(kFeedEnded) : operation(*carrier));
        } catch (const std::exception& error) {
            promise->set_value(Failure<Answer>(ExplainFailure(error)));
        }
    });
    return promise->get_future();
}

/// The same, for one GPU.
template <typename Answer>
std::future<Answer> Ask(FeedWorker& worker, const std::string& gpuKey,
                        std::function<Answer(FeedWorker& worker, const FeedGpu& gpu)> operation) {
    return Ask<Answer>(worker, [gpuKey, operation = std::move(operation)](FeedWorker& carrier) {
        const std::shared_ptr<const FeedGpu> gpu = carrier.Find(gpuKey);
        return gpu == nullptr ? Failure<Answer>(kGpuIsGone) : operation(carrier, *gpu);
    });
}

}  // namespace

MonitorFeed::MonitorFeed(FeedOptions options) : Worker(std::make_shared<FeedWorker>(std::move(options))) {
    Thread = std::thread([worker = Worker] { worker->Run(); });
}

MonitorFeed::~MonitorFeed() {
    Stop();
}

std::shared_ptr<const FeedData> MonitorFeed::Latest() const {
    return Worker->Exchange().Latest();
}

FeedMoment MonitorFeed::Moment() const {
    return {Latest(), NowSeconds(), std::chrono::system_clock::now(), Worker->DriverWait(), Worker->IsSimulated()};
}

void MonitorFeed::SetInterval(milliseconds interval) {
    Post(*Worker, [interval](FeedWorker& worker) { worker.SetInterval(interval); });
}

void MonitorFeed::Pause() {
    Post(*Worker, [](FeedWorker& worker) { worker.Pause(); });
}

void MonitorFeed::Resume() {
    Post(*Worker, [](FeedWorker& worker) { worker.Resume(); });
}

void MonitorFeed::Rescan() {
    Post(*Worker, [](FeedWorker& worker) { worker.Rescan(); });
}

std::future<TuningCapabilities> MonitorFeed::QueryTuning(const std::string& gpuKey) {
    return Ask<TuningCapabilities>(*Worker, gpuKey,
                                   [](FeedWorker& worker, const FeedGpu& gpu) { return worker.QueryTuning(gpu); });
}

std::future<TuningResult> MonitorFeed::Tune(const std::string& gpuKey, const TuningChange& change, double keepSeconds) {
    return Ask<TuningResult>(*Worker, gpuKey, [change, keepSeconds](FeedWorker& worker, const FeedGpu& gpu) {
        return worker.Tune(gpu, change, keepSeconds);
    });
}

void MonitorFeed::Keep(const std::string& gpuKey, TuningControl control) {
    Post(*Worker, [gpuKey, control](FeedWorker& worker) { worker.Keep(gpuKey, control); });
}

std::future<TuningResult> MonitorFeed::TakeBack(const std::string& gpuKey, TuningControl control) {
    return Ask<TuningResult>(*Worker,
                             [gpuKey, control](FeedWorker& worker) { return worker.TakeBack(gpuKey, control); });
}

std::future<TuningResult> MonitorFeed::TakeAllBack() {
    return Ask<TuningResult>(*Worker, [](FeedWorker& worker) { return worker.TakeAllBack(); });
}

std::string MonitorFeed::LeaveChanges() const {
    std::string problem;
    for (const TuningRecord& record : Latest()->Tuning) {
        if (!record.IsOutstanding()) continue;
        const std::string failure = Worker->Journal().Remove(record);
        if (!failure.empty()) problem = failure;
        Worker->Journal().ForgetLeftChanges(record.Device, record.InForce.Control());
    }
    return problem;
}

bool MonitorFeed::Stop(milliseconds patience) {
    if (!Thread.joinable()) return !bLeftBehind;
    bLeftBehind = !Worker->Exchange().Stop(patience);
    if (bLeftBehind) {
        Thread.detach();
    } else {
        Thread.join();
    }
    return !bLeftBehind;
}

}  // namespace gpu_feed
