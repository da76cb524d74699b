#ifndef NVML_ABI_H
#define NVML_ABI_H

#include <cstddef>
#include <cstdint>

#include "entry_point_list.h"

/// \file
/// The records that the simulator writes, the handle that it gives and the functions that it exports, as NVML's clients
/// know them.

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

/// Keeps apart what the driver and what programs use.
struct VersionedMemoryRecord {
    /// The caller says here which record it offers.
    uint32_t Version;
    uint64_t TotalBytes;
    uint64_t ReservedBytes;
    uint64_t FreeBytes;
    uint64_t UsedBytes;
};
static_assert(sizeof(VersionedMemoryRecord) == 40);
constexpr uint32_t kMemoryRecordVersion = 0x02000000U | sizeof(VersionedMemoryRecord);

/// The newest of three records that begin alike (`RecordBytesOf`).
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

/// The newer of two records that begin alike (`RecordBytesOf`).
struct ProcessRecord {
    uint32_t Pid;
    /// Always 0, so that a client which takes the record for another one sees the same every time.
    uint32_t Gap;
    uint64_t UsedBytes;
    uint32_t GpuInstanceId;
    uint32_t ComputeInstanceId;
};
static_assert(sizeof(ProcessRecord) == 24);

/// How much of a process or PCI record a name writes: older names know only the beginning.
constexpr size_t RecordBytesOf(EntryPoint name) {
    switch (name) {
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses:
        case EntryPoint::nvmlDeviceGetGraphicsRunningProcesses: return 16;
        case EntryPoint::nvmlDeviceGetPciInfo: return 32;
        case EntryPoint::nvmlDeviceGetPciInfo_v2: return 52;
        case EntryPoint::nvmlDeviceGetPciInfo_v3: return sizeof(PciRecord);
        default: return sizeof(ProcessRecord);
    }
}

struct ProcessUtilizationRecord {
    uint32_t Pid;
    uint64_t TimestampMicroseconds;
    uint32_t SmPercent;
    uint32_t MemoryPercent;
    uint32_t EncoderPercent;
    uint32_t DecoderPercent;
};
static_assert(sizeof(ProcessUtilizationRecord) == 32);

constexpr unsigned int kClockGraphics = 0;
constexpr unsigned int kClockSm = 1;
constexpr unsigned int kClockMemory = 2;
constexpr unsigned int kClockVideo = 3;

/// Which of a clock's values is asked for.
constexpr unsigned int kClockNow = 0;
constexpr unsigned int kClockHighest = 3;

constexpr unsigned int kSensorGpu = 0;
constexpr unsigned int kThresholdShutdown = 0;
constexpr unsigned int kThresholdSlowdown = 1;
constexpr unsigned int kPcieTransmit = 0;
constexpr unsigned int kPcieReceive = 1;

/// How the calls of each `Shape` look.
namespace shapes {

using Init = NvmlReturn();
using FlaggedInit = NvmlReturn(unsigned int flags);
using Shutdown = NvmlReturn();
using ErrorText = const char*(NvmlReturn result);
using SystemText = NvmlReturn(char* text, unsigned int size);
using SystemValue = NvmlReturn(unsigned int* value);
using Handle = NvmlReturn(unsigned int index, NvmlDevice* device);
using NamedHandle = NvmlReturn(const char* name, NvmlDevice* device);
using Text = NvmlReturn(NvmlDevice device, char* text, unsigned int size);
using Pci = NvmlReturn(NvmlDevice device, PciRecord* pci);
using Value = NvmlReturn(NvmlDevice device, unsigned int* value);
using LongValue = NvmlReturn(NvmlDevice device, unsigned long long* value);
using Selected = NvmlReturn(NvmlDevice device, unsigned int selector, unsigned int* value);
using Clock = NvmlReturn(NvmlDevice device, unsigned int type, unsigned int which, unsigned int* clock);
using Pair = NvmlReturn(NvmlDevice device, unsigned int* first, unsigned int* second);
using Memory = NvmlReturn(NvmlDevice device, MemoryRecord* memory);
using VersionedMemory = NvmlReturn(NvmlDevice device, VersionedMemoryRecord* memory);
using Utilization = NvmlReturn(NvmlDevice device, UtilizationRecord* utilization);
using MemoryClocks = NvmlReturn(NvmlDevice device, unsigned int* count, unsigned int* clocks);
using GraphicsClocks = NvmlReturn(NvmlDevice device, unsigned int memoryMHz, unsigned int* count, unsigned int* clocks);
using Processes = NvmlReturn(NvmlDevice device, unsigned int* count, ProcessRecord* processes);
using ProcessUtilization = NvmlReturn(NvmlDevice device, ProcessUtilizationRecord* output, unsigned int* count,
                                      unsigned long long lastSeenMicroseconds);
using Lock = NvmlReturn(NvmlDevice device, unsigned int lowest, unsigned int highest);
using Reset = NvmlReturn(NvmlDevice device);
using SetLimit = NvmlReturn(NvmlDevice device, unsigned int milliwatts);
using Unsupported = NvmlReturn(NvmlDevice device);

}  // namespace shapes

}  // namespace simulated_nvml

extern "C" {
#define SIMULATED_NVML_DECLARATION(name, shape) SIMULATED_NVML_EXPORT simulated_nvml::shapes::shape name;
SIMULATED_NVML_ENTRY_POINTS(SIMULATED_NVML_DECLARATION)
#undef SIMULATED_NVML_DECLARATION
}

#endif  // NVML_ABI_H
