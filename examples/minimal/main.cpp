#include <nvml_gpu_monitor.h>

#include <cstdio>
#include <thread>

int main() {
    NvmlGpuMonitor monitor;
    if (!monitor.Start()) std::puts(monitor.Status().c_str());  // harmless without a driver
    std::this_thread::sleep_for(std::chrono::seconds(1));       // a renderer draws its frames here
    // Once per interval, off the render thread:
    for (const GpuTelemetryHistory& gpu : monitor.Snapshot()) {
        if (gpu.Samples.empty()) continue;
        const GpuTelemetrySample& now = gpu.Samples.back();
        std::printf("%s: %d %%, %.1f W\n", gpu.Device.Name.c_str(), now.GpuUtilizationPercent, now.PowerWatts);
    }
}
