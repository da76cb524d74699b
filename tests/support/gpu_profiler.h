#ifndef GPU_PROFILER_H
#define GPU_PROFILER_H

#include <optional>
#include <string>
#include <vector>

/// A host's profiler whose latest frame a test sets.
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
        *snapshot = {"frame", {1.0, 2.0}, FrameTimeMs.value_or(7.0)};
        return FrameTimeMs.has_value();
    }

    std::optional<double> FrameTimeMs;
};

#endif  // GPU_PROFILER_H
