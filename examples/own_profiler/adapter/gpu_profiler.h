#ifndef GPU_PROFILER_H
#define GPU_PROFILER_H

#include "../engine/frame_timer.h"

/// What the monitor asks for, made from what the engine has. The engine itself stays as it is.
///
/// Threads: the monitor calls it from its sampler thread and from every thread that reads a sample, while it holds its
/// own mutex. The timer's lock is taken after that mutex, so nothing that holds it may call the monitor.
class GPUProfiler {
public:
    struct FrameSnapshot {
        double GpuFrameTimeMs = 0.0;
    };

    static GPUProfiler* Get() {
        static GPUProfiler profiler;
        return &profiler;
    }

    /// False while the engine has not finished a frame.
    bool GetLatestSnapshot(FrameSnapshot* snapshot) const {
        const std::optional<engine::FrameTimer::Microseconds> time = engine::Timer().LatestGpuTime();
        if (time) snapshot->GpuFrameTimeMs = std::chrono::duration<double, std::milli>(*time).count();
        return time.has_value();
    }
};

#endif  // GPU_PROFILER_H
