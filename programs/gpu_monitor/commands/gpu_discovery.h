#ifndef GPU_MONITOR_GPU_DISCOVERY_H
#define GPU_MONITOR_GPU_DISCOVERY_H

#include <optional>
#include <string>
#include <vector>

#include "nvml_gpu_monitor.h"

/// Throws `Failure` with what the monitor says about the driver, its `status`, and what the user can do about it,
/// unless NVML is up.
void RequireDriver(bool bAvailable, const std::string& status);

/// Throws `Failure` unless one of `gpus` has this NVML index.
void RequireGpu(const std::vector<GpuDeviceInfo>& gpus, unsigned int index);

/// Starts NVML without the sampler. Result: every GPU or, with `only`, the one with that index; at least one. Throws
/// `Failure`.
std::vector<GpuDeviceInfo> DiscoverGpus(std::optional<unsigned int> only, NvmlGpuMonitor* monitor);

#endif  // GPU_MONITOR_GPU_DISCOVERY_H
