#ifndef GPU_PROFILER_H
#define GPU_PROFILER_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// A host's profiler: a test sets its latest frame and what runs when it is read.
class GPUProfiler {
public:
    struct FrameSnapshot {
        std::string Label;
        std::vector<double> ScopesMs;
        double GpuFrameTimeMs;
    };

    static GPUProfiler* Get() {
        static GPUProfiler profiler;
        return &profiler;
    }

    bool GetLatestSnapshot(FrameSnapshot* snapshot) const {
        if (OnRead) OnRead();
        *snapshot = {"frame", {1.0, 2.0}, FrameTimeMs.value_or(7.0)};
        return FrameTimeMs.has_value();
    }

    std::optional<double> FrameTimeMs;
    std::function<void()> OnRead;
};

#endif  // GPU_PROFILER_H
