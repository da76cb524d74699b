#ifndef GPU_MONITOR_IDENTITY_H
#define GPU_MONITOR_IDENTITY_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "nvml_gpu_monitor.h"

/// One fact of a GPU's identity, which is either a text or a number.
struct IdentityField {
    /// Name for programs.
    const char* Key;
    /// Name and unit for people.
    const char* Label;
    const char* Unit;
    /// A text, empty when it was not read; null for a number.
    std::string (*Text)(const GpuDeviceInfo& device);
    /// A number in the unit of `Key`, empty when it was not read; null for a text.
    std::optional<uint64_t> (*Number)(const GpuDeviceInfo& device) = nullptr;
    /// A number divided by this is in `Unit`.
    double ShownDivisor = 1.0;
};

/// Every identity field, in the order of output.
const std::vector<IdentityField>& IdentityFields();

#endif  // GPU_MONITOR_IDENTITY_H
