// An engine whose profiler has another name and shape than the monitor asks for: adapter/gpu_profiler.h translates. It
// prints frame time against power, which is what the monitor is for.

#include <nvml_gpu_monitor.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "engine/frame_timer.h"

namespace {

/// Takes the place of the engine's renderer, which measures on the GPU how long a frame took.
void RenderFrame() {
    constexpr engine::FrameTimer::Microseconds kFrame(8300.0);
    std::this_thread::sleep_for(kFrame);
    engine::Timer().OnFrame(kFrame);
}

}  // namespace

int main() {
    NvmlGpuMonitor monitor;
    monitor.SetSampleInterval(std::chrono::milliseconds(100));
    if (!monitor.Start()) {
        std::puts(monitor.Status().c_str());
        return 1;
    }
    for (int frame = 0; frame < 60; ++frame) RenderFrame();
    for (const GpuTelemetryHistory& gpu : monitor.Snapshot()) {
        for (const GpuTelemetrySample& sample : gpu.Samples) {
            if (sample.FrameTimeMs < 0.0) continue;  // taken before the first frame
            std::printf("%s: %.1f ms, %.1f W\n", gpu.Device.Name.c_str(), sample.FrameTimeMs, sample.PowerWatts);
        }
    }
    monitor.Stop();
}
