#include "text/json_format.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "gpu_feed/clock_groups.h"
#include "gpu_feed/limit_reasons.h"
#include "gpu_feed/readings.h"
#include "text/identity.h"
#include "text/utc_time.h"

using namespace gpu_feed;

namespace {

/// Keeps its keys in the order in which they are added.
using Json = nlohmann::ordered_json;

constexpr int kIndent = 2;
constexpr int kOneLine = -1;

std::string JsonText(const Json& json, int indent) {
    // A text of the driver that is not valid UTF-8 must not spoil the rest of the output.
    return json.dump(indent, ' ', false, Json::error_handler_t::replace) + '\n';
}

void AddIfAny(const char* key, const std::string& text, Json* json) {
    if (!text.empty()) (*json)[key] = text;
}

void AddIdentity(const GpuDeviceInfo& device, Json* json) {
    for (const IdentityField& field : IdentityFields()) {
        if (field.Text != nullptr) {
            AddIfAny(field.Key, field.Text(device), json);
        } else if (const std::optional<uint64_t> number = field.Number(device)) {
            (*json)[field.Key] = *number;
        }
    }
}

/// The part of a GPU's identity that other outputs than the list begin with.
Json ShortIdentity(const GpuDeviceInfo& device) {
    Json json;
    json["index"] = device.Index;
    json["name"] = device.Name;
    AddIfAny("uuid", device.Uuid, &json);
    return json;
}

void AddReading(const Reading& reading, const GpuTelemetrySample& sample, Json* json) {
    if (reading.WholeValue != nullptr) {
        if (const std::optional<int64_t> value = reading.WholeValue(sample)) (*json)[reading.Key] = *value;
    } else if (const std::optional<double> value = reading.Value(sample)) {
        (*json)[reading.Key] = *value;
    }
}

void AddLimitReasons(uint64_t mask, Json* json) {
    if (mask == 0) return;
    (*json)["performance_limit_reasons"] = mask;
    Json& words = (*json)["performance_limits"];
    for (const LimitReason& reason : LimitReasons(mask)) words.push_back(reason.Word);
}

void AddReadings(const GpuTelemetrySample& sample, Json* json) {
    (*json)["time"] = UtcTime(sample.TimestampSeconds);
    (*json)["timestamp_seconds"] = sample.TimestampSeconds;
    for (const Reading& reading : Readings()) AddReading(reading, sample, json);
    AddLimitReasons(sample.PerformanceLimitReasons, json);
}

Json ProcessList(const std::vector<FeedProcess>& processes) {
    Json list = Json::array();
    for (const FeedProcess& process : processes) {
        Json& json = list.emplace_back(Json{{"pid", process.Pid}, {"vram_used_bytes", process.VramUsedBytes}});
        AddIfAny("name", process.Name, &json);
        AddIfAny("user", process.User, &json);
        AddIfAny("command_line", process.CommandLine, &json);
        if (process.CpuPercent) json["cpu_percent"] = *process.CpuPercent;
        if (process.MemoryBytes) json["memory_bytes"] = *process.MemoryBytes;
    }
    return list;
}

/// Adds a clock or a power limit. A negative one was not read.
template <typename Value>
void AddIfRead(const char* key, Value value, Json* json) {
    if (value >= 0) (*json)[key] = value;
}

Json ClockGroupList(const std::vector<GpuClockPair>& pairs) {
    Json list = Json::array();
    for (const auto& [memoryClock, graphicsClocks] : GroupByMemoryClock(pairs)) {
        list.push_back({{"memory_clock_mhz", memoryClock}, {"graphics_clocks_mhz", graphicsClocks}});
    }
    return list;
}

const char* StateWord(GpuCapabilityState state) {
    switch (state) {
        case GpuCapabilityState::Supported: return "supported";
        case GpuCapabilityState::Unsupported: return "unsupported";
        case GpuCapabilityState::PermissionRequired: return "permission_required";
        case GpuCapabilityState::DriverLimitation: return "driver_limitation";
        case GpuCapabilityState::Unavailable: break;
    }
    return "unavailable";
}

void AddClocks(int graphicsMHz, int memoryMHz, Json* json) {
    AddIfRead("graphics_clock_mhz", graphicsMHz, json);
    AddIfRead("memory_clock_mhz", memoryMHz, json);
}

/// The object that a command prints: the driver version, which all GPUs share, and `gpus`.
std::string Document(const std::string& driverVersion, Json gpus, const std::vector<std::string>& problems) {
    Json document = Json::object();
    AddIfAny("driver_version", driverVersion, &document);
    document["gpus"] = std::move(gpus);
    if (!problems.empty()) document["problems"] = problems;
    return JsonText(document, kIndent);
}

const char* ResultWord(GpuClockOperationResult result) {
    switch (result) {
        case GpuClockOperationResult::Success: return "success";
        case GpuClockOperationResult::NoPermission: return "no_permission";
        case GpuClockOperationResult::Unsupported: return "unsupported";
        case GpuClockOperationResult::Error: break;
    }
    return "error";
}

/// How a change of a GPU ended.
Json ResultOf(const GpuChange& gpu) {
    Json json = ShortIdentity(gpu.Device);
    json["result"] = ResultWord(gpu.Result);
    AddIfAny("error", gpu.Error, &json);
    AddIfAny("advice", gpu.Advice, &json);
    return json;
}

/// The values of a setting, under the names that they have in a sample.
Json SettingValues(TuningControl control, const GpuClockPair& pair, double watts) {
    Json json = Json::object();
    if (control == TuningControl::Clocks) {
        AddClocks(pair.GraphicsClockMHz, pair.MemoryClockMHz, &json);
    } else {
        AddIfRead("power_limit_watts", watts, &json);
    }
    return json;
}

}  // namespace

std::string ListJson(const std::string& driverVersion, const std::vector<GpuDeviceInfo>& devices,
                     const std::vector<std::string>& problems) {
    Json gpus = Json::array();
    for (const GpuDeviceInfo& device : devices) AddIdentity(device, &gpus.emplace_back());
    return Document(driverVersion, std::move(gpus), problems);
}

std::string SampleJson(const std::string& driverVersion, const std::vector<GpuReadings>& gpus,
                       const std::vector<std::string>& problems) {
    Json list = Json::array();
    for (const GpuReadings& gpu : gpus) {
        Json& json = list.emplace_back();
        AddIdentity(gpu.Device, &json);
        AddReadings(gpu.Sample, &json);
        json["processes"] = ProcessList(gpu.Processes);
    }
    return Document(driverVersion, std::move(list), problems);
}

std::string StreamJson(const GpuDeviceInfo& device, const GpuTelemetrySample& sample,
                       const std::vector<FeedProcess>* processes) {
    Json json = ShortIdentity(device);
    AddReadings(sample, &json);
    if (processes != nullptr) json["processes"] = ProcessList(*processes);
    return JsonText(json, kOneLine);
}

std::string ClocksJson(const std::string& driverVersion, const std::vector<GpuClocks>& gpus,
                       const std::vector<std::string>& problems) {
    Json list = Json::array();
    for (const auto& [device, capabilities] : gpus) {
        Json& json = list.emplace_back(ShortIdentity(device));
        json["can_control"] = capabilities.CanControl;
        json["status"] = capabilities.Status;
        AddClocks(capabilities.CurrentGraphicsClockMHz, capabilities.CurrentMemoryClockMHz, &json);
        json["supported"] = ClockGroupList(capabilities.SupportedPairs);
    }
    return Document(driverVersion, std::move(list), problems);
}

std::string PowerJson(const std::string& driverVersion, const std::vector<GpuPower>& gpus,
                      const std::vector<std::string>& problems) {
    Json list = Json::array();
    for (const auto& [device, capabilities] : gpus) {
        Json& json = list.emplace_back(ShortIdentity(device));
        json["state"] = StateWord(capabilities.State);
        json["status"] = capabilities.Status;
        AddIfRead("current_watts", capabilities.CurrentWatts, &json);
        AddIfRead("default_watts", capabilities.DefaultWatts, &json);
        AddIfRead("minimum_watts", capabilities.MinimumWatts, &json);
        AddIfRead("maximum_watts", capabilities.MaximumWatts, &json);
    }
    return Document(driverVersion, std::move(list), problems);
}

std::string ChangesJson(const TuningChange& change, const std::vector<GpuChange>& gpus,
                        const std::vector<std::string>& problems) {
    Json list = Json::array();
    for (const GpuChange& gpu : gpus) {
        Json& json = list.emplace_back(ResultOf(gpu));
        if (gpu.Result != GpuClockOperationResult::Success) continue;
        const bool bRelease = change.What == TuningChange::Kind::ResetClocks;
        const GpuClockPair running{gpu.SampleNow.GraphicsClockMHz, gpu.SampleNow.MemoryClockMHz};
        if (!bRelease) json["asked"] = SettingValues(change.Control(), change.Pair, AskedWatts(change, gpu.PowerNow));
        json["in_force"] = SettingValues(change.Control(), running, gpu.PowerNow.CurrentWatts);
        AddIfAny("note", NoteOf(gpu.Report), &json);
        // What was locked before a release is not known.
        if (!bRelease) AddIfAny("undo", UndoOf(gpu.Report), &json);
    }
    return Document("", std::move(list), problems);
}

std::string UndoneJson(const std::vector<GpuChange>& changes) {
    Json list = Json::array();
    for (const GpuChange& change : changes) {
        AddIfAny("note", NoteOf(change.Report), &list.emplace_back(ResultOf(change)));
    }
    return Document("", std::move(list), {});
}

std::string FailureJson(const std::string& sentence, int exitStatus) {
    return JsonText({{"error", sentence}, {"exit_status", exitStatus}}, kOneLine);
}
