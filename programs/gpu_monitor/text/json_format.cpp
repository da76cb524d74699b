#include "text/json_format.h"

#include <time.h>

#include <chrono>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <utility>

#include "gpu_feed/clock_groups.h"
#include "gpu_feed/limit_reasons.h"
#include "gpu_feed/readings.h"
#include "text/identity.h"

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

/// A moment of the steady clock as UTC, ISO 8601 with milliseconds.
std::string UtcTime(double steadySeconds) {
    using std::chrono::milliseconds;
    const std::chrono::duration<double> sinceBoot(steadySeconds);
    const auto age = std::chrono::steady_clock::now().time_since_epoch() - sinceBoot;
    const auto moment = std::chrono::system_clock::now().time_since_epoch() - age;
    const auto sinceEpoch = std::chrono::duration_cast<milliseconds>(moment).count();
    const auto seconds = static_cast<time_t>(sinceEpoch / 1000);
    tm utc{};
    gmtime_r(&seconds, &utc);
    std::ostringstream text;
    text << std::put_time(&utc, "%Y-%m-%dT%H:%M:%S.") << std::setw(3) << std::setfill('0') << sinceEpoch % 1000 << 'Z';
    return text.str();
}

void AddIdentity(const GpuDeviceInfo& device, Json* json) {
    for (const IdentityField& field : IdentityFields()) {
        if (field.Text == nullptr) {
            if (const std::optional<uint64_t> number = field.Number(device)) (*json)[field.Key] = *number;
        } else if (std::string text = field.Text(device); !text.empty()) {
            (*json)[field.Key] = std::move(text);
        }
    }
}

/// The part of a GPU's identity that other outputs than the list begin with.
Json ShortIdentity(const GpuDeviceInfo& device) {
    Json json;
    json["index"] = device.Index;
    json["name"] = device.Name;
    if (!device.Uuid.empty()) json["uuid"] = device.Uuid;
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
        if (!process.Name.empty()) json["name"] = process.Name;
        if (!process.User.empty()) json["user"] = process.User;
        if (!process.CommandLine.empty()) json["command_line"] = process.CommandLine;
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

/// The object that a query prints: the driver version, which all GPUs share, and `gpus`.
Json Document(const std::string& driverVersion, Json gpus) {
    Json document = Json::object();
    if (!driverVersion.empty()) document["driver_version"] = driverVersion;
    document["gpus"] = std::move(gpus);
    return document;
}

}  // namespace

std::string ListJson(const std::string& driverVersion, const std::vector<GpuDeviceInfo>& devices) {
    Json gpus = Json::array();
    for (const GpuDeviceInfo& device : devices) AddIdentity(device, &gpus.emplace_back());
    return JsonText(Document(driverVersion, std::move(gpus)), kIndent);
}

std::string SampleJson(const std::string& driverVersion, const std::vector<GpuReadings>& gpus) {
    Json list = Json::array();
    for (const GpuReadings& gpu : gpus) {
        Json& json = list.emplace_back();
        AddIdentity(gpu.Device, &json);
        AddReadings(gpu.Sample, &json);
    }
    return JsonText(Document(driverVersion, std::move(list)), kIndent);
}

std::string StreamJson(const GpuDeviceInfo& device, const GpuTelemetrySample& sample,
                       const std::vector<FeedProcess>* processes) {
    Json json = ShortIdentity(device);
    AddReadings(sample, &json);
    if (processes != nullptr) json["processes"] = ProcessList(*processes);
    return JsonText(json, kOneLine);
}

std::string ClocksJson(const std::string& driverVersion, const std::vector<GpuClocks>& gpus) {
    Json list = Json::array();
    for (const auto& [device, capabilities] : gpus) {
        Json& json = list.emplace_back(ShortIdentity(device));
        json["can_control"] = capabilities.CanControl;
        json["status"] = capabilities.Status;
        AddIfRead("graphics_clock_mhz", capabilities.CurrentGraphicsClockMHz, &json);
        AddIfRead("memory_clock_mhz", capabilities.CurrentMemoryClockMHz, &json);
        json["supported"] = ClockGroupList(capabilities.SupportedPairs);
    }
    return JsonText(Document(driverVersion, std::move(list)), kIndent);
}

std::string PowerJson(const std::string& driverVersion, const std::vector<GpuPower>& gpus) {
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
    return JsonText(Document(driverVersion, std::move(list)), kIndent);
}
