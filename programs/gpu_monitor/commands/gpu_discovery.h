#ifndef GPU_MONITOR_GPU_DISCOVERY_H
#define GPU_MONITOR_GPU_DISCOVERY_H

#include <optional>
#include <string>
#include <vector>

#include "nvml_gpu_monitor.h"

/// Throws `Failure` unless NVML is available. Its text is `status`, the sentence of the monitor, and advice.
void RequireDriver(bool bAvailable, const std::string& status);

/// Throws `Failure` unless one of `gpus` has this NVML index.
void RequireGpu(const std::vector<GpuDeviceInfo>& gpus, unsigned int index);

/// Starts NVML without the sampler. Result: at least one GPU: all or, with `only`, the one with that NVML index. Throws
/// `Failure`.
std::vector<GpuDeviceInfo> DiscoverGpus(std::optional<unsigned int> only, NvmlGpuMonitor* monitor);

#endif  // GPU_MONITOR_GPU_DISCOVERY_H
