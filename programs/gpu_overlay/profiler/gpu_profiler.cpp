#include "gpu_profiler.h"

GPUProfiler* GPUProfiler::Get() {
    static GPUProfiler profiler;
    return &profiler;
}

bool GPUProfiler::GetLatestSnapshot(FrameSnapshot* /*snapshot*/) const {
    return false;
}
