#include "gpu_profiler.h"

#include <cstring>
#include <new>
#include <utility>

#include "timer_queries.h"

namespace {

/// A longer time comes from a clock that was set anew between two timestamps.
constexpr double kLongestFrameMs = 60'000.0;
/// The GPU may hardly have begun a younger frame, and a driver that is asked about it may hand its work over early.
constexpr std::uint64_t kLeastFramesLate = 2;
/// When the oldest frame in the ring is this old, its results have been lost.
constexpr std::uint64_t kLostAfterFrames = 600;
/// The position of a scope that is not measured.
constexpr std::size_t kNoScope = static_cast<std::size_t>(-1);

/// The time between two timestamps; negative when the GPU's clock went back.
double Milliseconds(std::uint64_t begin, std::uint64_t end) {
    return static_cast<double>(static_cast<std::int64_t>(end - begin)) / 1e6;
}

}  // namespace

GPUProfiler::GPUProfiler() = default;
GPUProfiler::~GPUProfiler() = default;

GPUProfiler* GPUProfiler::Get() {
    static GPUProfiler profiler;
    return &profiler;
}

bool GPUProfiler::GetLatestSnapshot(FrameSnapshot* snapshot) const noexcept {
    const std::lock_guard<std::mutex> lock(LatestMutex);
    if (!bLatest) return false;
    try {
        // Reserved first, so that the copy cannot fail half-way.
        snapshot->Scopes.reserve(Latest.Scopes.size());
        snapshot->Counters.reserve(Latest.Counters.size());
    } catch (const std::bad_alloc&) {
        return false;
    }
    *snapshot = Latest;
    return true;
}

void GPUProfiler::Open(std::unique_ptr<TimerQueries> queries) {
    Close();
    Queries = std::move(queries);
}

void GPUProfiler::Close() {
    Queries.reset();
    EndedFrames = CollectedFrames = FrameNumber = 0;
    Current = nullptr;
    const std::lock_guard<std::mutex> lock(LatestMutex);
    bLatest = false;
}

void GPUProfiler::BeginFrame() {
    ++FrameNumber;
    CollectFrames();
    Current = EndedFrames - CollectedFrames < kRingFrames ? &InRing(EndedFrames) : nullptr;
    if (Current == nullptr) return;
    Current->Snapshot.FrameNumber = FrameNumber;
    Current->Snapshot.GpuFrameTimeMs = 0.0;
    Current->Snapshot.Scopes.clear();
    Current->Snapshot.Counters.clear();
    Current->Spans.clear();
    Current->TimestampCount = 0;
    Current->Start = std::chrono::steady_clock::now();
    Depth = 0;
    IssueTimestamp();
}

void GPUProfiler::EndFrame() {
    if (Current == nullptr) return;
    IssueTimestamp();
    const auto cpuTime = std::chrono::steady_clock::now() - Current->Start;
    Current->Snapshot.CpuFrameTimeMs = std::chrono::duration<double, std::milli>(cpuTime).count();
    if (Queries != nullptr) {
        ++EndedFrames;
    } else {
        Publish(&Current->Snapshot);
    }
    Current = nullptr;
}

void GPUProfiler::SetCounter(const char* name, double value) {
    if (Current == nullptr) return;
    std::vector<CounterValue>& counters = Current->Snapshot.Counters;
    for (CounterValue& counter : counters) {
        if (std::strcmp(counter.Name, name) != 0) continue;
        counter.Value = value;
        return;
    }
    counters.push_back({name, value});
}

std::size_t GPUProfiler::BeginScope(const char* name) {
    if (Current == nullptr) return kNoScope;
    const std::size_t position = Current->Spans.size();
    Current->Snapshot.Scopes.push_back({name, Depth++, 0.0});
    Current->Spans.push_back({IssueTimestamp(), 0});
    return position;
}

void GPUProfiler::EndScope(std::size_t position) {
    if (Current == nullptr || position >= Current->Spans.size()) return;
    Current->Spans[position].End = IssueTimestamp();
    --Depth;
}

std::size_t GPUProfiler::Slot(std::uint64_t measuredFrame, std::size_t timestamp) const {
    return timestamp * kRingFrames + measuredFrame % kRingFrames;
}

std::size_t GPUProfiler::IssueTimestamp() {
    const std::size_t timestamp = Current->TimestampCount++;
    if (Queries != nullptr) Queries->Issue(Slot(EndedFrames, timestamp));
    return timestamp;
}

// Publishes only the latest of the frames that have arrived.
void GPUProfiler::CollectFrames() {
    Frame* latest = nullptr;
    for (; CollectedFrames < EndedFrames; ++CollectedFrames) {
        Frame& oldest = InRing(CollectedFrames);
        const std::uint64_t framesLate = FrameNumber - oldest.Snapshot.FrameNumber;
        if (framesLate < kLeastFramesLate) break;
        if (Queries->IsReady(Slot(CollectedFrames, oldest.TimestampCount - 1))) {
            if (ReadTimes(CollectedFrames)) latest = &oldest;
        } else if (framesLate < kLostAfterFrames) {
            break;
        }
    }
    if (latest != nullptr) Publish(&latest->Snapshot);
}

// False when the times cannot be true.
bool GPUProfiler::ReadTimes(std::uint64_t measuredFrame) {
    Frame& frame = InRing(measuredFrame);
    const auto between = [&](const Span& span) {
        return Milliseconds(Queries->Nanoseconds(Slot(measuredFrame, span.Begin)),
                            Queries->Nanoseconds(Slot(measuredFrame, span.End)));
    };
    FrameSnapshot& snapshot = frame.Snapshot;
    snapshot.GpuFrameTimeMs = between({0, frame.TimestampCount - 1});
    bool bPlausible = snapshot.GpuFrameTimeMs > 0.0 && snapshot.GpuFrameTimeMs < kLongestFrameMs;
    for (std::size_t i = 0; i < frame.Spans.size(); ++i) {
        snapshot.Scopes[i].GpuTimeMs = between(frame.Spans[i]);
        bPlausible = bPlausible && snapshot.Scopes[i].GpuTimeMs >= 0.0 &&
                     snapshot.Scopes[i].GpuTimeMs <= snapshot.GpuFrameTimeMs;
    }
    return bPlausible;
}

// Swaps, so that the frame's next measurement fills vectors that have their memory already.
void GPUProfiler::Publish(FrameSnapshot* snapshot) {
    const std::lock_guard<std::mutex> lock(LatestMutex);
    std::swap(Latest, *snapshot);
    bLatest = true;
}
