#ifndef GPU_PROFILER_H
#define GPU_PROFILER_H

/// The frame profiler of this program.
class GPUProfiler {
public:
    struct FrameSnapshot {
        double GpuFrameTimeMs = 0.0;
    };

    static GPUProfiler* Get();

    void BeginFrame() {}
    void EndFrame() {}

    bool GetLatestSnapshot(FrameSnapshot* snapshot) const;
};

#endif  // GPU_PROFILER_H
