#include "one_shot.h"

#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "driver.h"
#include "failure.h"
#include "json_format.h"
#include "nvml_gpu_monitor.h"
#include "output.h"
#include "text_format.h"

namespace {

/// Starts NVML without the sampler. Result: every GPU, at least one.
std::vector<GpuTelemetryHistory> DiscoverGpus(NvmlGpuMonitor* monitor) {
    // A first reading is what starts NVML; its values are not needed.
    GpuTelemetrySample sample;
    monitor->ReadCurrentSample(&sample);
    RequireDriver(*monitor);
    return monitor->Snapshot();
}

/// Reads the wanted GPUs. One that does not answer is named on standard error and left out.
std::vector<GpuReading> ReadGpus(const std::vector<GpuTelemetryHistory>& gpus, const SampleOptions& options,
                                 NvmlGpuMonitor* monitor) {
    std::vector<GpuReading> readings;
    for (const GpuTelemetryHistory& gpu : gpus) {
        const unsigned int index = gpu.Device.Index;
        if (options.Gpu.value_or(index) != index) continue;
        GpuReading reading{gpu.Device, {}};
        monitor->ReadCurrentSample(index, &reading.Sample);
        if (HasAnyReading(reading.Sample)) {
            readings.push_back(std::move(reading));
        } else {
            std::cerr << "GPU " << index << " (" << gpu.Device.Name << ") gave no reading.\n";
        }
    }
    return readings;
}

}  // namespace

int RunList(bool bJson) {
    NvmlGpuMonitor monitor;
    std::vector<GpuDeviceInfo> devices;
    for (GpuTelemetryHistory& gpu : DiscoverGpus(&monitor)) devices.push_back(std::move(gpu.Device));
    WriteOutput(bJson ? ListJson(devices.front().DriverVersion, devices) : ListText(devices));
    return kExitSuccess;
}

int RunSample(const SampleOptions& options) {
    NvmlGpuMonitor monitor;
    const std::vector<GpuTelemetryHistory> gpus = DiscoverGpus(&monitor);
    if (options.Gpu) RequireGpu(gpus, *options.Gpu);
    const size_t wanted = options.Gpu ? 1 : gpus.size();
    const std::vector<GpuReading> readings = ReadGpus(gpus, options, &monitor);
    const std::string& driverVersion = gpus.front().Device.DriverVersion;
    WriteOutput(options.bJson ? SampleJson(driverVersion, readings) : SampleText(readings, OutputWidth()));
    return readings.size() == wanted ? kExitSuccess : kExitFailure;
}
