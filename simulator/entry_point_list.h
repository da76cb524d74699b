#ifndef ENTRY_POINT_LIST_H
#define ENTRY_POINT_LIST_H

#include <array>
#include <cstddef>
#include <optional>
#include <string>

/// \file
/// Every name that the simulator exports, once. Lists and look-up tables are made from this one.

// clang-format off
#define SIMULATED_NVML_ENTRY_POINTS(X)             \
    X(nvmlInit_v2)                                 \
    X(nvmlInit)                                    \
    X(nvmlShutdown)                                \
    X(nvmlErrorString)                             \
    X(nvmlSystemGetDriverVersion)                  \
    X(nvmlDeviceGetCount_v2)                       \
    X(nvmlDeviceGetCount)                          \
    X(nvmlDeviceGetHandleByIndex_v2)               \
    X(nvmlDeviceGetHandleByIndex)                  \
    X(nvmlDeviceGetName)                           \
    X(nvmlDeviceGetUUID)                           \
    X(nvmlDeviceGetVbiosVersion)                   \
    X(nvmlDeviceGetPciInfo_v3)                     \
    X(nvmlDeviceGetArchitecture)                   \
    X(nvmlDeviceGetBAR1MemoryInfo)                 \
    X(nvmlDeviceGetMemoryInfo)                     \
    X(nvmlDeviceGetTemperature)                    \
    X(nvmlDeviceGetTemperatureThreshold)           \
    X(nvmlDeviceGetUtilizationRates)               \
    X(nvmlDeviceGetEncoderUtilization)             \
    X(nvmlDeviceGetDecoderUtilization)             \
    X(nvmlDeviceGetFanSpeed)                       \
    X(nvmlDeviceGetClockInfo)                      \
    X(nvmlDeviceGetMaxClockInfo)                   \
    X(nvmlDeviceGetPerformanceState)               \
    X(nvmlDeviceGetPowerState)                     \
    X(nvmlDeviceGetCurrPcieLinkGeneration)         \
    X(nvmlDeviceGetCurrPcieLinkWidth)              \
    X(nvmlDeviceGetMaxPcieLinkGeneration)          \
    X(nvmlDeviceGetMaxPcieLinkWidth)               \
    X(nvmlDeviceGetPcieThroughput)                 \
    X(nvmlDeviceGetCurrentClocksThrottleReasons)   \
    X(nvmlDeviceGetPowerUsage)                     \
    X(nvmlDeviceGetEnforcedPowerLimit)             \
    X(nvmlDeviceGetPowerManagementLimit)           \
    X(nvmlDeviceGetPowerManagementDefaultLimit)    \
    X(nvmlDeviceGetPowerManagementLimitConstraints)\
    X(nvmlDeviceSetPowerManagementLimit)           \
    X(nvmlDeviceGetSupportedMemoryClocks)          \
    X(nvmlDeviceGetSupportedGraphicsClocks)        \
    X(nvmlDeviceSetGpuLockedClocks)                \
    X(nvmlDeviceResetGpuLockedClocks)              \
    X(nvmlDeviceSetMemoryLockedClocks)             \
    X(nvmlDeviceResetMemoryLockedClocks)           \
    X(nvmlDeviceGetComputeRunningProcesses_v3)     \
    X(nvmlDeviceGetComputeRunningProcesses_v2)     \
    X(nvmlDeviceGetComputeRunningProcesses)        \
    X(nvmlDeviceGetGraphicsRunningProcesses_v3)    \
    X(nvmlDeviceGetGraphicsRunningProcesses_v2)    \
    X(nvmlDeviceGetGraphicsRunningProcesses)
// clang-format on

namespace simulated_nvml {

enum class EntryPoint : unsigned int {
#define SIMULATED_NVML_ENUMERATOR(name) name,
    SIMULATED_NVML_ENTRY_POINTS(SIMULATED_NVML_ENUMERATOR)
#undef SIMULATED_NVML_ENUMERATOR
};

constexpr const char* kEntryPointNames[] = {
#define SIMULATED_NVML_NAME(name) #name,
    SIMULATED_NVML_ENTRY_POINTS(SIMULATED_NVML_NAME)
#undef SIMULATED_NVML_NAME
};

constexpr unsigned int kEntryPointCount = sizeof kEntryPointNames / sizeof kEntryPointNames[0];

/// One value for each entry point.
template <typename T>
using PerEntryPoint = std::array<T, kEntryPointCount>;

constexpr size_t IndexOf(EntryPoint name) {
    return static_cast<size_t>(name);
}

std::optional<EntryPoint> FindEntryPoint(const std::string& name);

/// The entry point of this name; throws `std::invalid_argument` when there is none.
EntryPoint EntryPointOf(const std::string& name);

}  // namespace simulated_nvml

#endif  // ENTRY_POINT_LIST_H
