#ifndef NVML_ABI_H
#define NVML_ABI_H

#include <cstddef>
#include <cstdint>

/// \file
/// The records that the simulator writes and the handle it gives, as NVML's clients know them.

namespace simulated_nvml {

using NvmlReturn = unsigned int;
using NvmlDevice = void*;

struct UtilizationRecord {
    uint32_t GpuPercent;
    uint32_t MemoryPercent;
};
static_assert(sizeof(UtilizationRecord) == 8);

struct MemoryRecord {
    uint64_t TotalBytes;
    uint64_t FreeBytes;
    uint64_t UsedBytes;
};
static_assert(sizeof(MemoryRecord) == 24);

struct PciRecord {
    char BusIdLegacy[16];
    uint32_t Domain;
    uint32_t Bus;
    uint32_t Device;
    uint32_t DeviceAndVendorId;
    uint32_t SubSystemId;
    char BusId[32];
};
static_assert(sizeof(PciRecord) == 68);

struct ProcessRecord {
    uint32_t Pid;
    uint64_t UsedBytes;
    uint32_t GpuInstanceId;
    uint32_t ComputeInstanceId;
};
static_assert(sizeof(ProcessRecord) == 24);

constexpr unsigned int kClockGraphics = 0;
constexpr unsigned int kClockSm = 1;
constexpr unsigned int kClockMemory = 2;
constexpr unsigned int kClockVideo = 3;

constexpr unsigned int kSensorGpu = 0;
constexpr unsigned int kThresholdShutdown = 0;
constexpr unsigned int kThresholdSlowdown = 1;
constexpr unsigned int kPcieTransmit = 0;
constexpr unsigned int kPcieReceive = 1;

}  // namespace simulated_nvml

#endif  // NVML_ABI_H
