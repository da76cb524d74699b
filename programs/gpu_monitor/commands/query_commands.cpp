#include "commands/query_commands.h"

#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "commands/gpu_discovery.h"
#include "gpu_feed/readings.h"
#include "nvml_gpu_monitor.h"
#include "terminal/failure.h"
#include "terminal/output.h"
#include "text/json_format.h"
#include "text/table_format.h"
#include "text/text_layout.h"
#include "text/tuning_format.h"

using namespace gpu_feed;

namespace {

/// The two formats of a list of answers.
template <typename Answer>
struct Formats {
    std::string (*Json)(const std::string& driverVersion, const std::vector<Answer>& gpus);
    std::string (*Text)(const std::vector<Answer>& gpus, size_t width);
};

/// Asks the requested GPUs and prints their answers. `ask` fills in the answer of one GPU and returns an empty text or,
/// when the GPU does not answer, the end of the sentence that standard error gets. Result: the exit status.
template <typename Answer, typename Ask>
int RunQuery(const QueryOptions& options, const Formats<Answer>& formats, Ask ask) {
    NvmlGpuMonitor monitor;
    const std::vector<GpuDeviceInfo> devices = DiscoverGpus(options.Gpu, &monitor);
    std::vector<Answer> answers;
    for (const GpuDeviceInfo& device : devices) {
        Answer answer{device, {}};
        const std::string problem = ask(&monitor, &answer);
        if (problem.empty()) {
            answers.push_back(std::move(answer));
        } else {
            std::cerr << GpuInSentence(device) << problem << '\n';
        }
    }
    WriteOutput(options.bJson ? formats.Json(devices.front().DriverVersion, answers)
                              : formats.Text(answers, OutputWidth()));
    return answers.size() == devices.size() ? kExitSuccess : kExitFailure;
}

}  // namespace

int RunList(const QueryOptions& options) {
    NvmlGpuMonitor monitor;
    const std::vector<GpuDeviceInfo> devices = DiscoverGpus(options.Gpu, &monitor);
    WriteOutput(options.bJson ? ListJson(devices.front().DriverVersion, devices) : ListText(devices));
    return kExitSuccess;
}

int RunSample(const QueryOptions& options) {
    return RunQuery<GpuReadings>(options, {SampleJson, SampleText}, [](NvmlGpuMonitor* monitor, GpuReadings* gpu) {
        monitor->ReadCurrentSample(gpu->Device.Index, &gpu->Sample);
        return std::string(HasAnyReading(gpu->Sample) ? "" : " gave no reading.");
    });
}

int RunClocks(const QueryOptions& options) {
    return RunQuery<GpuClocks>(options, {ClocksJson, ClockQueryText}, [](NvmlGpuMonitor* monitor, GpuClocks* gpu) {
        const bool bAnswered = monitor->GetClockCapabilities(gpu->Device.Index, &gpu->Capabilities);
        return bAnswered ? std::string() : ": " + gpu->Capabilities.Status;
    });
}

int RunPower(const QueryOptions& options) {
    return RunQuery<GpuPower>(options, {PowerJson, PowerQueryText}, [](NvmlGpuMonitor* monitor, GpuPower* gpu) {
        const GpuPowerCapabilities& answer = gpu->Capabilities;
        const bool bFound = monitor->GetPowerCapabilities(gpu->Device.Index, &gpu->Capabilities);
        // A GPU that was lost during the query was found, but nothing of it was read.
        const bool bSilent = answer.State == GpuCapabilityState::Unavailable && answer.CurrentWatts < 0.0 &&
                             answer.DefaultWatts < 0.0 && answer.MaximumWatts < 0.0;
        return bFound && !bSilent ? std::string() : ": " + answer.Status;
    });
}
