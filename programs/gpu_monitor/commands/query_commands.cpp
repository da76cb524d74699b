#include "commands/query_commands.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "commands/gpu_discovery.h"
#include "commands/polled_feed.h"
#include "commands/silent_driver.h"
#include "common/failure.h"
#include "gpu_feed/reading_text.h"
#include "nvml_gpu_monitor.h"
#include "terminal/output.h"
#include "text/json_format.h"
#include "text/table_format.h"
#include "text/tuning_format.h"

using namespace gpu_feed;

namespace {

/// The two formats of a list of answers.
template <typename Answer>
struct Formats {
    std::string (*Json)(const std::string& driverVersion, const std::vector<Answer>& gpus,
                        const std::vector<std::string>& problems);
    std::string (*Text)(const std::vector<Answer>& gpus, size_t width);
};

/// Prints the answers and, on standard error, the problems. Result: the exit status.
template <typename Answer>
int Print(const QueryOptions& options, const Formats<Answer>& formats, const GpuDeviceInfo& device,
          const std::vector<Answer>& answers, const std::vector<std::string>& problems) {
    for (const std::string& problem : problems) std::cerr << problem << '\n';
    WriteOutput(options.bJson ? formats.Json(device.DriverVersion, answers, problems)
                              : formats.Text(answers, OutputWidth()));
    return problems.empty() ? kExitSuccess : kExitFailure;
}

/// Asks the requested GPUs and prints their answers. `ask` fills in the answer of one GPU and returns an empty text or,
/// when the GPU does not answer, the end of a sentence about it. Result: the exit status.
template <typename Answer, typename Ask>
int RunQuery(const QueryOptions& options, const Formats<Answer>& formats, Ask ask) {
    PatientMonitor monitor;
    const std::vector<GpuDeviceInfo> devices = DiscoverGpus(options.Gpu, &monitor);
    std::vector<Answer> answers;
    std::vector<std::string> problems;
    for (const GpuDeviceInfo& device : devices) {
        auto [answer, problem] = monitor.Ask([ask, device](NvmlGpuMonitor* asked) {
            Answer filled{device, {}};
            std::string ending = ask(asked, &filled);
            return std::pair(std::move(filled), std::move(ending));
        });
        if (problem.empty()) {
            answers.push_back(std::move(answer));
        } else {
            problems.push_back(GpuInSentence(device) + problem);
        }
    }
    return Print(options, formats, devices.front(), answers, problems);
}

std::string ListTextOf(const std::vector<GpuDeviceInfo>& devices, size_t /*width*/) {
    return ListText(devices);
}

}  // namespace

int RunList(const QueryOptions& options) {
    PatientMonitor monitor;
    const std::vector<GpuDeviceInfo> devices = DiscoverGpus(options.Gpu, &monitor);
    std::vector<std::string> problems;
    if (options.Gpu.empty()) {
        problems = UnreadableGpus(devices, &monitor);
        for (const std::string& problem : UnlistedGpus(devices)) problems.push_back(problem);
    }
    Print<GpuDeviceInfo>(options, {ListJson, ListTextOf}, devices.front(), devices, problems);
    // What can be listed was listed.
    return kExitSuccess;
}

int RunSample(const QueryOptions& options) {
    PolledFeed feed(std::chrono::milliseconds(1000));
    // One cycle reads all GPUs.
    const auto isKnown = [](const FeedMoment& moment, const FeedGpu& gpu) {
        const auto& all = moment.Data->Gpus;
        const auto hasReading = [](const auto& each) { return each->Latest.TimestampSeconds != 0.0; };
        return StateOf(moment, gpu) != GpuState::Starting || std::any_of(all.begin(), all.end(), hasReading);
    };
    const PolledFeed::Gpus wanted = PolledFeed::Wanted(*feed.WaitUntil(options.Gpu, isKnown).Data, options.Gpu);
    std::vector<GpuReadings> answers;
    std::vector<std::string> problems;
    for (const auto& gpu : wanted) {
        if (gpu->Latest.TimestampSeconds != 0.0) {
            answers.push_back({gpu->Device, gpu->Latest, gpu->Processes});
        } else {
            problems.push_back(GpuInSentence(gpu->Device) + " gave no reading.");
        }
    }
    return Print<GpuReadings>(options, {SampleJson, SampleText}, wanted.front()->Device, answers, problems);
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
