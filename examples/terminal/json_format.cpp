#include "json_format.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <sstream>
#include <utility>

namespace {

constexpr int kIndent = 2;
constexpr int kOneLine = -1;

std::string Line(const Json& json, int indent) {
    // Texts come from the driver; one that is not valid UTF-8 must not cost the whole output.
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
        if (Json value = field.Get(device); !value.is_null()) (*json)[field.Key] = std::move(value);
    }
}

void AddReadings(const GpuTelemetrySample& sample, Json* json) {
    (*json)["time"] = UtcTime(sample.TimestampSeconds);
    (*json)["timestamp_seconds"] = sample.TimestampSeconds;
    for (const Reading& reading : Readings()) {
        if (Json value = reading.Get(sample); !value.is_null()) (*json)[reading.Key] = std::move(value);
    }
}

Json ProcessList(std::vector<GpuProcessMemory> processes) {
    // The monitor lists them in no particular order, which would differ from line to line.
    std::sort(processes.begin(), processes.end(),
              [](const GpuProcessMemory& a, const GpuProcessMemory& b) { return a.Pid < b.Pid; });
    Json list = Json::array();
    for (const GpuProcessMemory& process : processes) {
        list.push_back({{"pid", process.Pid}, {"vram_used_bytes", process.VramUsedBytes}});
    }
    return list;
}

/// The object that `list` and `sample` print: `gpus` and what all GPUs share.
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
    return Line(Document(driverVersion, std::move(gpus)), kIndent);
}

std::string SampleJson(const std::string& driverVersion, const std::vector<GpuReading>& gpus) {
    Json list = Json::array();
    for (const GpuReading& gpu : gpus) {
        Json& json = list.emplace_back();
        AddIdentity(gpu.Device, &json);
        AddReadings(gpu.Sample, &json);
    }
    return Line(Document(driverVersion, std::move(list)), kIndent);
}

std::string StreamJson(const GpuDeviceInfo& device, const GpuTelemetrySample& sample,
                       const std::vector<GpuProcessMemory>* processes) {
    Json json;
    json["index"] = device.Index;
    json["name"] = device.Name;
    if (!device.Uuid.empty()) json["uuid"] = device.Uuid;
    AddReadings(sample, &json);
    if (processes != nullptr) json["processes"] = ProcessList(*processes);
    return Line(json, kOneLine);
}
