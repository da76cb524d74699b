#include "run/run_report.h"

#include <cmath>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

using gpu_feed::FeedData;
using gpu_feed::FeedMoment;
using Json = nlohmann::ordered_json;

namespace {

/// Adds the distribution of a value that `get` takes of each frame; frames where it is 0 were not measured.
void AddDistribution(Json* json, const char* name, const std::vector<LoggedFrame>& frames,
                     double (*get)(const LoggedFrame&)) {
    std::vector<double> values;
    for (const LoggedFrame& frame : frames) {
        if (get(frame) > 0.0) values.push_back(get(frame));
    }
    const std::optional<Distribution> found = DistributionOf(values);
    if (!found) return;
    const auto microseconds = [](double value) { return std::round(value * 1e3) / 1e3; };
    (*json)[name] = {{"frames", found->Count},
                     {"mean", microseconds(found->Mean)},
                     {"median", microseconds(found->Median)},
                     {"p90", microseconds(found->Percentile90)},
                     {"p99", microseconds(found->Percentile99)},
                     {"worst", microseconds(found->Worst)}};
}

void AddFrames(Json* json, const std::vector<LoggedFrame>& frames) {
    (*json)["frames"] = frames.size();
    AddDistribution(json, "frame_ms", frames, [](const LoggedFrame& frame) { return frame.FrameMs; });
    AddDistribution(json, "work_ms", frames, [](const LoggedFrame& frame) { return frame.Cost.WorkMs; });
    AddDistribution(json, "cpu_ms", frames, [](const LoggedFrame& frame) { return frame.Cost.CpuMs; });
    AddDistribution(json, "gpu_ms", frames, [](const LoggedFrame& frame) { return frame.GpuMs; });
}

Json LoadSteps(const std::vector<LoggedFrame>& frames) {
    std::map<int, std::vector<LoggedFrame>> byLoad;
    for (const LoggedFrame& frame : frames) byLoad[frame.Load].push_back(frame);
    Json steps = Json::array();
    for (const auto& [load, framesOfLoad] : byLoad) {
        Json step = {{"load", load}};
        AddFrames(&step, framesOfLoad);
        steps.push_back(step);
    }
    return steps;
}

Json Gpus(const FeedData& data) {
    Json gpus = Json::array();
    for (const auto& gpu : data.Gpus) {
        Json frameTimes = Json::array();
        for (const GpuTelemetrySample& sample : gpu->Samples) {
            if (sample.FrameTimeMs > 0.0) frameTimes.push_back(sample.FrameTimeMs);
        }
        gpus.push_back({{"index", gpu->Device.Index},
                        {"name", gpu->Device.Name},
                        {"uuid", gpu->Device.Uuid},
                        {"samples", gpu->Samples.size()},
                        {"frame_times_ms", frameTimes}});
    }
    return gpus;
}

}  // namespace

std::string ReportJson(const RunFacts& facts, const FrameLog& log, const FeedMoment& moment) {
    Json json = {{"renderer", facts.Renderer},
                 {"opengl", facts.OpenGl},
                 {"width", facts.Size.Width},
                 {"height", facts.Size.Height},
                 {"vsync", facts.bVsync},
                 {"simulated", moment.bSimulated},
                 {"driver_silence_seconds", moment.DriverSilence}};
    AddFrames(&json, log.All());
    json["load_steps"] = LoadSteps(log.All());
    json["gpu_frame_times_ms"] = log.GpuTimes();
    json["gpus"] = Gpus(*moment.Data);
    // Names come from drivers, and need not be valid text.
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}
