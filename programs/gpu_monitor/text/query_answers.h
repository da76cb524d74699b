#ifndef GPU_MONITOR_QUERY_ANSWERS_H
#define GPU_MONITOR_QUERY_ANSWERS_H

#include <vector>

#include "gpu_feed/feed_data.h"
#include "nvml_gpu_monitor.h"

// The answers of one GPU to the query commands.

struct GpuReadings {
    GpuDeviceInfo Device;
    GpuTelemetrySample Sample;
    std::vector<gpu_feed::FeedProcess> Processes = {};
};

struct GpuClocks {
    GpuDeviceInfo Device;
    GpuClockCapabilities Capabilities;
};

struct GpuPower {
    GpuDeviceInfo Device;
    GpuPowerCapabilities Capabilities;
};

#endif  // GPU_MONITOR_QUERY_ANSWERS_H
