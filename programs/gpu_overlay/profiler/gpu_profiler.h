#ifndef GPU_PROFILER_H
#define GPU_PROFILER_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

class TimerQueries;

/// Measures this program's frames on the GPU, with named nested scopes, and never waits for the GPU: the times of a
/// frame arrive two or three frames later, and frames that the GPU cannot follow are not measured. Once warm, a frame
/// allocates nothing.
///
/// Threads: `Get` and `GetLatestSnapshot` may be called by any thread, also by one that holds the monitor's mutex: the
/// profiler's own lock is taken after it, is held only for a copy, and the profiler never calls the monitor. Everything
/// else belongs to the thread that renders, with the context current to which the queries belong.
class GPUProfiler {
public:
    /// Names live as long as the process, as literals do.
    struct ScopeTime {
        const char* Name = "";
        /// 0 for a scope that is in no other scope.
        int Depth = 0;
        /// Milliseconds on the GPU; 0 when not measured.
        double GpuTimeMs = 0.0;
    };

    struct CounterValue {
        const char* Name = "";
        double Value = 0.0;
    };

    struct FrameSnapshot {
        /// Counts all frames since `Open`, from 1, including those that could not be measured.
        std::uint64_t FrameNumber = 0;
        /// Milliseconds on the GPU from `BeginFrame` to `EndFrame`; 0 when the driver has no timer.
        double GpuFrameTimeMs = 0.0;
        /// Milliseconds that the rendering thread took from `BeginFrame` to `EndFrame`.
        double CpuFrameTimeMs = 0.0;
        /// In the order in which they were opened: an inner scope follows the scope that it is in.
        std::vector<ScopeTime> Scopes;
        /// In the order in which they were first set in this frame.
        std::vector<CounterValue> Counters;
    };

    /// Measures what is drawn during its lifetime. Outside a frame, or in a frame that is not measured, it does
    /// nothing. It ends before its frame does; a frame that ends within a scope is dropped.
    class Scope {
    public:
        explicit Scope(const char* name) : Position(Get()->BeginScope(name)) {}
        ~Scope() { Get()->EndScope(Position); }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        const std::size_t Position;
    };

    /// The profiler of this process, created at the first call. It lives until the process exits.
    static GPUProfiler* Get();

    GPUProfiler(const GPUProfiler&) = delete;
    GPUProfiler& operator=(const GPUProfiler&) = delete;

    /// Copies the latest frame whose times have arrived into `snapshot`. False, with `snapshot` as it was, when there
    /// is no such frame, or no memory for the copy. Never throws.
    bool GetLatestSnapshot(FrameSnapshot* snapshot) const noexcept;

    /// Starts measuring; frames of before are forgotten. Without `queries`, for a driver that has no timer, frames have
    /// their other values and a `GpuFrameTimeMs` of 0.
    void Open(std::unique_ptr<TimerQueries> queries);
    /// Ends measuring and frees the queries. From here on there is no latest frame.
    void Close();

    void BeginFrame();
    void EndFrame();
    /// Keeps one value a frame under this name, the last one that is set.
    void SetCounter(const char* name, double value);

private:
    /// Positions of the two timestamps of a scope among those of its frame.
    struct Span {
        std::size_t Begin = 0;
        std::size_t End = 0;
    };
    struct Frame {
        FrameSnapshot Snapshot;
        /// One per scope.
        std::vector<Span> Spans;
        std::size_t TimestampCount = 0;
        std::chrono::steady_clock::time_point Start;
    };
    static constexpr std::size_t kRingFrames = 4;

    GPUProfiler();
    ~GPUProfiler();

    std::size_t BeginScope(const char* name);
    void EndScope(std::size_t position);
    Frame& InRing(std::uint64_t measuredFrame) { return Ring[measuredFrame % kRingFrames]; }
    std::size_t Slot(std::uint64_t measuredFrame, std::size_t timestamp) const;
    std::size_t IssueTimestamp();
    void CollectFrames();
    bool ReadTimes(std::uint64_t measuredFrame);
    void Publish(FrameSnapshot* snapshot);

    std::unique_ptr<TimerQueries> Queries;
    std::array<Frame, kRingFrames> Ring;
    /// Measured frames that have ended, and those whose results were read or given up. The rest is in the ring.
    std::uint64_t EndedFrames = 0;
    std::uint64_t CollectedFrames = 0;
    std::uint64_t FrameNumber = 0;
    /// The frame between `BeginFrame` and `EndFrame`; null outside it and when it is not measured.
    Frame* Current = nullptr;
    int Depth = 0;

    mutable std::mutex LatestMutex;
    FrameSnapshot Latest;
    bool bLatest = false;
};

#endif  // GPU_PROFILER_H
