#ifndef GPU_MONITOR_GPU_DISCOVERY_H
#define GPU_MONITOR_GPU_DISCOVERY_H

#include <cstddef>
#include <string>
#include <vector>

#include "commands/silent_driver.h"
#include "nvml_gpu_monitor.h"

/// Throws `Failure` unless NVML is available. Its text is `status`, the sentence of the monitor, and advice.
void RequireDriver(bool bAvailable, const std::string& status);

/// Empty when `selector` can name a GPU: by its NVML index, or by its UUID or a beginning of it, with or without
/// "GPU-", in capital letters or small ones. Otherwise why not. A number is always an index.
std::string SelectorError(const std::string& selector);

/// The position in `gpus` of the one that `selector` names. Throws `Failure` when it names none or several.
size_t SelectGpu(const std::vector<GpuDeviceInfo>& gpus, const std::string& selector);

/// Starts NVML without the sampler. Result: at least one GPU: all, or the one that a selector names that is not empty.
/// Throws `Failure`.
std::vector<GpuDeviceInfo> DiscoverGpus(const std::string& selector, PatientMonitor* monitor);

/// A sentence for each GPU that the driver counts but that is not among `found`, all that could be read. Throws
/// `Failure` when the driver does not answer.
std::vector<std::string> UnreadableGpus(const std::vector<GpuDeviceInfo>& found, PatientMonitor* monitor);

/// A sentence for each GPU that the kernel's driver has but that is not among `found`. In a container, GPUs of others
/// can be among them.
std::vector<std::string> UnlistedGpus(const std::vector<GpuDeviceInfo>& found);

#endif  // GPU_MONITOR_GPU_DISCOVERY_H
