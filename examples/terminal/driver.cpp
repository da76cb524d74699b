#include "driver.h"

#include <algorithm>
#include <string>

#include "failure.h"
#include "simulate.h"

namespace {

std::string Advice(const std::string& status) {
    if (status == "NVML unavailable / NVIDIA GPU monitoring disabled.") {
        return "Install the NVIDIA driver, which provides libnvidia-ml.so.1, or add --simulate to see simulated GPUs.";
    }
    if (status == "NVML initialization failed.") {
        return "The NVIDIA driver is installed but does not answer: load its kernel module, reboot if it was just "
               "updated, or add --simulate to see simulated GPUs.";
    }
    return "The NVIDIA driver answers but has no GPU to show: check that the GPU is powered, seated and passed through "
           "to this system, or add --simulate to see simulated GPUs.";
}

}  // namespace

void RequireDriver(const NvmlGpuMonitor& monitor) {
    if (monitor.IsAvailable()) return;
    const std::string status = monitor.Status();
    // What is wrong with a simulated driver, it has said itself.
    throw Failure(IsSimulating() ? status : status + '\n' + Advice(status));
}

void RequireGpu(const std::vector<GpuTelemetryHistory>& gpus, unsigned int index) {
    const auto hasIndex = [index](const GpuTelemetryHistory& gpu) { return gpu.Device.Index == index; };
    if (std::any_of(gpus.begin(), gpus.end(), hasIndex)) return;
    std::string sentence = "There is no GPU " + std::to_string(index) + ". GPUs here: ";
    const char* separator = "";
    for (const GpuTelemetryHistory& gpu : gpus) {
        sentence += separator + std::to_string(gpu.Device.Index);
        separator = ", ";
    }
    throw Failure(sentence + '.', kExitUsage);
}

std::vector<GpuDeviceInfo> DiscoverGpus(std::optional<unsigned int> only, NvmlGpuMonitor* monitor) {
    // The cheapest query is what starts NVML; its answer is not needed.
    GpuPowerCapabilities ignored;
    monitor->GetPowerCapabilities(0, &ignored);
    RequireDriver(*monitor);
    const std::vector<GpuTelemetryHistory> gpus = monitor->Snapshot();
    if (only) RequireGpu(gpus, *only);
    std::vector<GpuDeviceInfo> devices;
    for (const GpuTelemetryHistory& gpu : gpus) {
        if (only.value_or(gpu.Device.Index) == gpu.Device.Index) devices.push_back(gpu.Device);
    }
    return devices;
}
