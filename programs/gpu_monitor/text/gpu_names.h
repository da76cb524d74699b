#ifndef GPU_MONITOR_GPU_NAMES_H
#define GPU_MONITOR_GPU_NAMES_H

#include <string>

#include "nvml_gpu_monitor.h"

/// A product name in at most `columns` characters: first without the maker, then without the family ("RTX 3070
/// Laptop"). The shortest of these where none of them fits.
std::string ShortName(const std::string& name, int columns);

/// As `GpuTitle`, with its name shortened so that the title has at most `columns` characters if possible.
std::string ShortGpuTitle(const GpuDeviceInfo& device, int columns);

#endif  // GPU_MONITOR_GPU_NAMES_H
