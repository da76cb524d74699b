#ifndef ENTRY_POINT_LIST_H
#define ENTRY_POINT_LIST_H

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#define SIMULATED_NVML_EXPORT __attribute__((visibility("default")))

/// \file
/// Every name that the simulator exports and the shape of its call, once. Lists and look-up tables are made from this
/// one; nvml_abi.h says what each shape looks like.

// clang-format off
#define SIMULATED_NVML_ENTRY_POINTS(X)                              \
    X(nvmlInit_v2, Init)                                            \
    X(nvmlInit, Init)                                               \
    X(nvmlShutdown, Shutdown)                                       \
    X(nvmlErrorString, ErrorText)                                   \
    X(nvmlSystemGetDriverVersion, SystemText)                       \
    X(nvmlDeviceGetCount_v2, SystemValue)                           \
    X(nvmlDeviceGetCount, SystemValue)                              \
    X(nvmlDeviceGetHandleByIndex_v2, Handle)                        \
    X(nvmlDeviceGetHandleByIndex, Handle)                           \
    X(nvmlDeviceGetName, Text)                                      \
    X(nvmlDeviceGetUUID, Text)                                      \
    X(nvmlDeviceGetVbiosVersion, Text)                              \
    X(nvmlDeviceGetPciInfo_v3, Pci)                                 \
    X(nvmlDeviceGetArchitecture, Value)                             \
    X(nvmlDeviceGetBAR1MemoryInfo, Memory)                          \
    X(nvmlDeviceGetMemoryInfo, Memory)                              \
    X(nvmlDeviceGetTemperature, Selected)                           \
    X(nvmlDeviceGetTemperatureThreshold, Selected)                  \
    X(nvmlDeviceGetUtilizationRates, Utilization)                   \
    X(nvmlDeviceGetEncoderUtilization, Pair)                        \
    X(nvmlDeviceGetDecoderUtilization, Pair)                        \
    X(nvmlDeviceGetFanSpeed, Value)                                 \
    X(nvmlDeviceGetClockInfo, Selected)                             \
    X(nvmlDeviceGetMaxClockInfo, Selected)                          \
    X(nvmlDeviceGetPerformanceState, Value)                         \
    X(nvmlDeviceGetPowerState, Value)                               \
    X(nvmlDeviceGetCurrPcieLinkGeneration, Value)                   \
    X(nvmlDeviceGetCurrPcieLinkWidth, Value)                        \
    X(nvmlDeviceGetMaxPcieLinkGeneration, Value)                    \
    X(nvmlDeviceGetMaxPcieLinkWidth, Value)                         \
    X(nvmlDeviceGetPcieThroughput, Selected)                        \
    X(nvmlDeviceGetCurrentClocksThrottleReasons, LongValue)         \
    X(nvmlDeviceGetPowerUsage, Value)                               \
    X(nvmlDeviceGetEnforcedPowerLimit, Value)                       \
    X(nvmlDeviceGetPowerManagementLimit, Value)                     \
    X(nvmlDeviceGetPowerManagementDefaultLimit, Value)              \
    X(nvmlDeviceGetPowerManagementLimitConstraints, Pair)           \
    X(nvmlDeviceSetPowerManagementLimit, SetLimit)                  \
    X(nvmlDeviceGetSupportedMemoryClocks, MemoryClocks)             \
    X(nvmlDeviceGetSupportedGraphicsClocks, GraphicsClocks)         \
    X(nvmlDeviceSetGpuLockedClocks, Lock)                           \
    X(nvmlDeviceResetGpuLockedClocks, Reset)                        \
    X(nvmlDeviceSetMemoryLockedClocks, Lock)                        \
    X(nvmlDeviceResetMemoryLockedClocks, Reset)                     \
    X(nvmlDeviceGetComputeRunningProcesses_v3, Processes)           \
    X(nvmlDeviceGetComputeRunningProcesses_v2, Processes)           \
    X(nvmlDeviceGetComputeRunningProcesses, Processes)              \
    X(nvmlDeviceGetGraphicsRunningProcesses_v3, Processes)          \
    X(nvmlDeviceGetGraphicsRunningProcesses_v2, Processes)          \
    X(nvmlDeviceGetGraphicsRunningProcesses, Processes)             \
    X(nvmlInitWithFlags, FlaggedInit)                               \
    X(nvmlSystemGetNVMLVersion, SystemText)                         \
    X(nvmlSystemGetCudaDriverVersion_v2, SystemValue)               \
    X(nvmlSystemGetCudaDriverVersion, SystemValue)                  \
    X(nvmlDeviceGetHandleByPciBusId_v2, NamedHandle)                \
    X(nvmlDeviceGetHandleByUUID, NamedHandle)                       \
    X(nvmlDeviceGetSerial, Text)                                    \
    X(nvmlDeviceGetPciInfo_v2, Pci)                                 \
    X(nvmlDeviceGetPciInfo, Pci)                                    \
    X(nvmlDeviceGetIndex, Value)                                    \
    X(nvmlDeviceGetMinorNumber, Value)                              \
    X(nvmlDeviceGetBrand, Value)                                    \
    X(nvmlDeviceGetComputeMode, Value)                              \
    X(nvmlDeviceGetNumFans, Value)                                  \
    X(nvmlDeviceGetFanSpeed_v2, Selected)                           \
    X(nvmlDeviceGetClock, Clock)                                    \
    X(nvmlDeviceGetMemoryInfo_v2, VersionedMemory)                  \
    X(nvmlDeviceGetTotalEnergyConsumption, LongValue)               \
    X(nvmlDeviceGetProcessUtilization, ProcessUtilization)          \
    X(nvmlDeviceGetMigMode, Unsupported)                            \
    X(nvmlDeviceGetMaxMigDeviceCount, Unsupported)                  \
    X(nvmlDeviceGetMigDeviceHandleByIndex, Unsupported)             \
    X(nvmlDeviceGetDeviceHandleFromMigDeviceHandle, Unsupported)    \
    X(nvmlDeviceIsMigDeviceHandle, Unsupported)                     \
    X(nvmlDeviceGetGpuInstanceId, Unsupported)                      \
    X(nvmlDeviceGetComputeInstanceId, Unsupported)                  \
    X(nvmlDeviceGetNvLinkState, Unsupported)                        \
    X(nvmlDeviceGetNvLinkVersion, Unsupported)                      \
    X(nvmlDeviceGetNvLinkCapability, Unsupported)                   \
    X(nvmlDeviceGetNvLinkRemotePciInfo_v2, Unsupported)             \
    X(nvmlDeviceGetNvLinkErrorCounter, Unsupported)                 \
    X(nvmlDeviceGetNvLinkUtilizationCounter, Unsupported)           \
    X(nvmlDeviceGetEccMode, Unsupported)                            \
    X(nvmlDeviceGetTotalEccErrors, Unsupported)                     \
    X(nvmlDeviceGetDetailedEccErrors, Unsupported)                  \
    X(nvmlDeviceGetMemoryErrorCounter, Unsupported)                 \
    X(nvmlDeviceGetApplicationsClock, Unsupported)                  \
    X(nvmlDeviceGetDefaultApplicationsClock, Unsupported)           \
    X(nvmlDeviceSetApplicationsClocks, Unsupported)                 \
    X(nvmlDeviceResetApplicationsClocks, Unsupported)               \
    X(nvmlDeviceGetSamples, Unsupported)                            \
    X(nvmlUnitGetFanSpeedInfo, Unsupported)                         \
    X(nvmlDeviceGetCpuAffinity, Unsupported)                        \
    X(nvmlDeviceSetCpuAffinity, Unsupported)                        \
    X(nvmlDeviceClearCpuAffinity, Unsupported)                      \
    X(nvmlDeviceGetAttributes_v2, Unsupported)                      \
    X(nvmlDeviceGetAccountingPids, Unsupported)                     \
    X(nvmlDeviceGetAccountingStats, Unsupported)                    \
    X(nvmlDeviceSetAccountingMode, Unsupported)                     \
    X(nvmlDeviceSetPersistenceMode, Unsupported)
// clang-format on

namespace simulated_nvml {

enum class EntryPoint : unsigned int {
#define SIMULATED_NVML_ENUMERATOR(name, shape) name,
    SIMULATED_NVML_ENTRY_POINTS(SIMULATED_NVML_ENUMERATOR)
#undef SIMULATED_NVML_ENUMERATOR
};

constexpr const char* kEntryPointNames[] = {
#define SIMULATED_NVML_NAME(name, shape) #name,
    SIMULATED_NVML_ENTRY_POINTS(SIMULATED_NVML_NAME)
#undef SIMULATED_NVML_NAME
};

/// What the parameters of a call are.
enum class Shape : unsigned char {
    Init,
    FlaggedInit,
    Shutdown,
    ErrorText,
    SystemText,
    SystemValue,
    Handle,
    NamedHandle,
    Text,
    Pci,
    Value,
    LongValue,
    Selected,
    Clock,
    Pair,
    Memory,
    VersionedMemory,
    Utilization,
    MemoryClocks,
    GraphicsClocks,
    Processes,
    ProcessUtilization,
    Lock,
    Reset,
    SetLimit,
    /// No board supports it. The call has further arguments, which the simulator ignores.
    Unsupported
};

constexpr Shape kEntryPointShapes[] = {
#define SIMULATED_NVML_SHAPE(name, shape) Shape::shape,
    SIMULATED_NVML_ENTRY_POINTS(SIMULATED_NVML_SHAPE)
#undef SIMULATED_NVML_SHAPE
};

constexpr unsigned int kEntryPointCount = sizeof kEntryPointNames / sizeof kEntryPointNames[0];

/// One value for each entry point.
template <typename T>
using PerEntryPoint = std::array<T, kEntryPointCount>;

constexpr size_t IndexOf(EntryPoint name) {
    return static_cast<size_t>(name);
}

constexpr const char* NameOf(EntryPoint name) {
    return kEntryPointNames[IndexOf(name)];
}

constexpr Shape ShapeOf(EntryPoint name) {
    return kEntryPointShapes[IndexOf(name)];
}

/// Whether a call gives a list, which is asked for its size first.
constexpr bool IsList(EntryPoint name) {
    const Shape shape = ShapeOf(name);
    return shape == Shape::MemoryClocks || shape == Shape::GraphicsClocks || shape == Shape::Processes;
}

/// Whether a call says how many boards there are.
constexpr bool IsDeviceCount(EntryPoint name) {
    return name == EntryPoint::nvmlDeviceGetCount_v2 || name == EntryPoint::nvmlDeviceGetCount;
}

/// The name that stands for all names of one query: a board supports all of them or none of them.
constexpr EntryPoint QueryOf(EntryPoint name) {
    switch (name) {
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses_v2:
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses:
        case EntryPoint::nvmlDeviceGetProcessUtilization: return EntryPoint::nvmlDeviceGetComputeRunningProcesses_v3;
        case EntryPoint::nvmlDeviceGetGraphicsRunningProcesses_v2:
        case EntryPoint::nvmlDeviceGetGraphicsRunningProcesses:
            return EntryPoint::nvmlDeviceGetGraphicsRunningProcesses_v3;
        case EntryPoint::nvmlDeviceGetPciInfo_v2:
        case EntryPoint::nvmlDeviceGetPciInfo: return EntryPoint::nvmlDeviceGetPciInfo_v3;
        case EntryPoint::nvmlDeviceGetMemoryInfo_v2: return EntryPoint::nvmlDeviceGetMemoryInfo;
        case EntryPoint::nvmlDeviceGetFanSpeed_v2: return EntryPoint::nvmlDeviceGetFanSpeed;
        case EntryPoint::nvmlDeviceGetPowerState: return EntryPoint::nvmlDeviceGetPerformanceState;
        case EntryPoint::nvmlDeviceGetTotalEnergyConsumption: return EntryPoint::nvmlDeviceGetPowerUsage;
        default: return name;
    }
}

std::optional<EntryPoint> FindEntryPoint(std::string_view name);

/// The entry point of this name; throws `std::invalid_argument` when no entry point has it.
EntryPoint EntryPointOf(const std::string& name);

}  // namespace simulated_nvml

#endif  // ENTRY_POINT_LIST_H
