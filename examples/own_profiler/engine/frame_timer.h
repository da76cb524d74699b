#ifndef ENGINE_FRAME_TIMER_H
#define ENGINE_FRAME_TIMER_H

#include <chrono>
#include <mutex>
#include <optional>

namespace engine {

/// The profiler of an engine that does not know the monitor: its name, its unit and its way to say "no frame yet" are
/// the engine's own.
class FrameTimer {
public:
    using Microseconds = std::chrono::duration<double, std::micro>;

    /// Called by the renderer when the GPU has finished a frame.
    void OnFrame(Microseconds gpuTime) {
        const std::lock_guard<std::mutex> lock(Mutex);
        Latest = gpuTime;
    }

    std::optional<Microseconds> LatestGpuTime() const {
        const std::lock_guard<std::mutex> lock(Mutex);
        return Latest;
    }

private:
    mutable std::mutex Mutex;
    std::optional<Microseconds> Latest;
};

/// The engine's only one. It outlives every monitor.
inline FrameTimer& Timer() {
    static FrameTimer timer;
    return timer;
}

}  // namespace engine

#endif  // ENGINE_FRAME_TIMER_H
