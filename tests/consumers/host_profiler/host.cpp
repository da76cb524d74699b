// A host as its developer would write it. Exits with 0 when its own frame time is in the sample.

#include <dlfcn.h>
#include <gpu_profiler.h>
#include <nvml_gpu_monitor.h>

#include <cstdio>

int main(int argc, char** argv) {
    // There need not be a GPU: the simulated NVML at this path stands in.
    if (argc != 2 || dlopen(argv[1], RTLD_NOW) == nullptr) return 2;
    GPUProfiler::Get()->FrameTimeMs = 16.5;
    NvmlGpuMonitor monitor;
    GpuTelemetrySample sample;
    const bool bRead = monitor.ReadCurrentSample(&sample);
    std::printf("%s Frame time: %.1f ms\n", monitor.Status().c_str(), sample.FrameTimeMs);
    return bRead && sample.FrameTimeMs == 16.5 ? 0 : 1;
}
