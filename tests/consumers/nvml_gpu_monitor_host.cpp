// A host as its developer would write it, built in every way that a host can be. Exits with 0 when its frame time is in
// the sample, or -1 if it has no profiler.

#include <dlfcn.h>
#include <nvml_gpu_monitor.h>

#include <cstdio>

#if __has_include(<gpu_profiler.h>)
#include <gpu_profiler.h>
#endif

int main(int argc, char** argv) {
    // There need not be a GPU: the simulated NVML at this path takes the driver's place.
    if (argc != 2 || dlopen(argv[1], RTLD_NOW) == nullptr) return 2;
    double frameTimeMs = -1.0;
#if __has_include(<gpu_profiler.h>)
    GPUProfiler::Get()->FrameTimeMs = frameTimeMs = 16.5;
#endif
    NvmlGpuMonitor monitor;
    GpuTelemetrySample sample;
    const bool bRead = monitor.ReadCurrentSample(&sample);
    std::printf("%s Frame time: %.1f ms\n", monitor.Status().c_str(), sample.FrameTimeMs);
    return bRead && sample.FrameTimeMs == frameTimeMs ? 0 : 1;
}
