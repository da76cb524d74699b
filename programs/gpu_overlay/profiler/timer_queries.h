#ifndef GPU_OVERLAY_TIMER_QUERIES_H
#define GPU_OVERLAY_TIMER_QUERIES_H

#include <cstddef>
#include <cstdint>
#include <memory>

/// The GPU's clock: timestamps that the GPU takes when it gets there, each in a numbered slot. Slots are used from 0
/// on, as many as a frame needs, and again when their results are no longer of interest.
class TimerQueries {
public:
    TimerQueries() = default;
    virtual ~TimerQueries() = default;
    TimerQueries(const TimerQueries&) = delete;
    TimerQueries& operator=(const TimerQueries&) = delete;

    /// Asks for the moment when everything that was drawn so far is finished.
    virtual void Issue(std::size_t slot) = 0;
    /// Never waits. When a slot is ready, so are those that were issued before it.
    virtual bool IsReady(std::size_t slot) = 0;
    /// Asked only when the slot is ready.
    virtual std::uint64_t Nanoseconds(std::size_t slot) = 0;
};

/// The timer of the current OpenGL context, which must be current whenever it is used, also at its end. Null when the
/// driver has no timer.
std::unique_ptr<TimerQueries> MakeOpenGlTimerQueries();

#endif  // GPU_OVERLAY_TIMER_QUERIES_H
