#ifndef NVML_CALLS_H
#define NVML_CALLS_H

#include "nvml_abi.h"

/// \file
/// The entry points that hand-written comparisons use, for the type of what is looked up and for direct calls.

extern "C" {

using simulated_nvml::MemoryRecord;
using simulated_nvml::NvmlDevice;
using simulated_nvml::NvmlReturn;
using simulated_nvml::PciRecord;
using simulated_nvml::ProcessRecord;
using simulated_nvml::UtilizationRecord;

NvmlReturn nvmlInit_v2();
NvmlReturn nvmlShutdown();
NvmlReturn nvmlSystemGetDriverVersion(char* version, unsigned int size);
NvmlReturn nvmlDeviceGetCount_v2(unsigned int* count);
NvmlReturn nvmlDeviceGetHandleByIndex_v2(unsigned int index, NvmlDevice* device);
NvmlReturn nvmlDeviceGetName(NvmlDevice device, char* name, unsigned int size);
NvmlReturn nvmlDeviceGetUUID(NvmlDevice device, char* uuid, unsigned int size);
NvmlReturn nvmlDeviceGetVbiosVersion(NvmlDevice device, char* version, unsigned int size);
NvmlReturn nvmlDeviceGetPciInfo_v3(NvmlDevice device, PciRecord* pci);
NvmlReturn nvmlDeviceGetArchitecture(NvmlDevice device, unsigned int* architecture);
NvmlReturn nvmlDeviceGetBAR1MemoryInfo(NvmlDevice device, MemoryRecord* memory);
NvmlReturn nvmlDeviceGetMemoryInfo(NvmlDevice device, MemoryRecord* memory);
NvmlReturn nvmlDeviceGetTemperature(NvmlDevice device, unsigned int sensor, unsigned int* celsius);
NvmlReturn nvmlDeviceGetUtilizationRates(NvmlDevice device, UtilizationRecord* utilization);
NvmlReturn nvmlDeviceGetEncoderUtilization(NvmlDevice device, unsigned int* percent, unsigned int* period);
NvmlReturn nvmlDeviceGetDecoderUtilization(NvmlDevice device, unsigned int* percent, unsigned int* period);
NvmlReturn nvmlDeviceGetFanSpeed(NvmlDevice device, unsigned int* percent);
NvmlReturn nvmlDeviceGetClockInfo(NvmlDevice device, unsigned int type, unsigned int* megahertz);
NvmlReturn nvmlDeviceGetPerformanceState(NvmlDevice device, unsigned int* state);
NvmlReturn nvmlDeviceGetCurrPcieLinkGeneration(NvmlDevice device, unsigned int* generation);
NvmlReturn nvmlDeviceGetCurrPcieLinkWidth(NvmlDevice device, unsigned int* width);
NvmlReturn nvmlDeviceGetPcieThroughput(NvmlDevice device, unsigned int counter, unsigned int* kibPerSecond);
NvmlReturn nvmlDeviceGetCurrentClocksThrottleReasons(NvmlDevice device, unsigned long long* reasons);
NvmlReturn nvmlDeviceGetPowerUsage(NvmlDevice device, unsigned int* milliwatts);
NvmlReturn nvmlDeviceGetEnforcedPowerLimit(NvmlDevice device, unsigned int* milliwatts);
NvmlReturn nvmlDeviceGetPowerManagementLimit(NvmlDevice device, unsigned int* milliwatts);
NvmlReturn nvmlDeviceGetPowerManagementDefaultLimit(NvmlDevice device, unsigned int* milliwatts);
NvmlReturn nvmlDeviceGetPowerManagementLimitConstraints(NvmlDevice device, unsigned int* lowest, unsigned int* highest);
NvmlReturn nvmlDeviceGetComputeRunningProcesses_v3(NvmlDevice device, unsigned int* count, ProcessRecord* processes);
NvmlReturn nvmlDeviceGetGraphicsRunningProcesses_v3(NvmlDevice device, unsigned int* count, ProcessRecord* processes);

}  // extern "C"

#endif  // NVML_CALLS_H
