#ifndef GPU_PROFILER_H
#define GPU_PROFILER_H

/// For a host without a frame profiler: this one never has a frame, so samples have no frame time.
///
/// A host with its own profiler supplies a header of this name with the same three members, and the monitor is
/// compiled against that one. The monitor asks it from its sampler thread and from every thread that reads a sample,
/// while it holds its own mutex: `GetLatestSnapshot` must be safe to call from them and may take a lock, but must not
/// throw and must never call into the monitor. `Get` must give a profiler whenever the monitor reads, never null.
class GPUProfiler {
public:
    /// The latest frame. A host's record may hold more; the monitor makes one without arguments and reads this field.
    struct FrameSnapshot {
        /// GPU time of the frame in milliseconds; 0 or less when it was not measured.
        double GpuFrameTimeMs = 0.0;
    };

    /// The profiler of this process, created at the first call.
    static GPUProfiler* Get() {
        static GPUProfiler profiler;
        return &profiler;
    }

    /// Copies the latest frame into `snapshot`; false when there is no frame.
    bool GetLatestSnapshot(FrameSnapshot* snapshot) const {
        static_cast<void>(snapshot);
        return false;
    }
};

#endif  // GPU_PROFILER_H
