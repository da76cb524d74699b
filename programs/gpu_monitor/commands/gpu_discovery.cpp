#include "commands/gpu_discovery.h"

#include <algorithm>
#include <string>

#include "commands/simulate.h"
#include "terminal/failure.h"

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

void RequireDriver(bool bAvailable, const std::string& status) {
    if (bAvailable) return;
    // What is wrong with a simulated driver, it has said itself.
    throw Failure(IsSimulating() ? status : status + '\n' + Advice(status));
}

void RequireGpu(const std::vector<GpuDeviceInfo>& gpus, unsigned int index) {
    const auto hasIndex = [index](const GpuDeviceInfo& gpu) { return gpu.Index == index; };
    if (std::any_of(gpus.begin(), gpus.end(), hasIndex)) return;
    std::string sentence = "There is no GPU " + std::to_string(index) + ". GPUs here: ";
    const char* separator = "";
    for (const GpuDeviceInfo& gpu : gpus) {
        sentence += separator + std::to_string(gpu.Index);
        separator = ", ";
    }
    throw Failure(sentence + '.', kExitUsage);
}

std::vector<GpuDeviceInfo> DiscoverGpus(std::optional<unsigned int> only, NvmlGpuMonitor* monitor) {
    // The cheapest query is what starts NVML; its answer is not needed.
    GpuPowerCapabilities ignored;
    monitor->GetPowerCapabilities(0, &ignored);
    RequireDriver(monitor->IsAvailable(), monitor->Status());
    std::vector<GpuDeviceInfo> devices;
    for (const GpuTelemetryHistory& gpu : monitor->Snapshot()) devices.push_back(gpu.Device);
    if (!only) return devices;
    RequireGpu(devices, *only);
    const auto hasOtherIndex = [only](const GpuDeviceInfo& device) { return device.Index != *only; };
    devices.erase(std::remove_if(devices.begin(), devices.end(), hasOtherIndex), devices.end());
    return devices;
}
