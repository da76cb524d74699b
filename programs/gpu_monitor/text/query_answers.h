#ifndef GPU_MONITOR_QUERY_ANSWERS_H
#define GPU_MONITOR_QUERY_ANSWERS_H

#include "nvml_gpu_monitor.h"

// What a query command gets from one GPU.

struct GpuReadings {
    GpuDeviceInfo Device;
    GpuTelemetrySample Sample;
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
