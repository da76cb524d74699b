#include "text/csv_format.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <optional>

#include "gpu_feed/reading_text.h"
#include "gpu_feed/readings.h"
#include "text/utc_time.h"

using namespace gpu_feed;

namespace {

/// A text as a field, in quotes where it needs them.
std::string Field(const std::string& text) {
    if (text.find_first_of(",\"") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char character : text) quoted += character == '"' ? "\"\"" : std::string(1, character);
    return quoted + '"';
}

/// All digits of a reading.
std::string ValueField(const Reading& reading, const GpuTelemetrySample& sample) {
    if (reading.WholeValue != nullptr) {
        const std::optional<int64_t> value = reading.WholeValue(sample);
        return value ? std::to_string(*value) : "";
    }
    const std::optional<double> value = reading.Value(sample);
    if (!value) return {};
    std::array<char, 32> text{};
    return {text.data(), std::to_chars(text.data(), text.data() + text.size(), *value).ptr};
}

}  // namespace

std::string CsvHeading() {
    std::string line = "time,uuid,index,name";
    for (const Reading& reading : Readings()) line += std::string(",") + reading.Key;
    return line + ",performance_limit_reasons,performance_limits\n";
}

std::string CsvLine(const GpuDeviceInfo& device, const GpuTelemetrySample& sample) {
    std::string line = UtcTime(sample.TimestampSeconds) + ',' + Field(Printable(device.Uuid)) + ',' +
                       std::to_string(device.Index) + ',' + Field(Printable(device.Name));
    for (const Reading& reading : Readings()) line += ',' + ValueField(reading, sample);
    const uint64_t limits = sample.PerformanceLimitReasons;
    return line + (limits == 0 ? ",," : ',' + std::to_string(limits) + ',' + Field(LimitText(sample))) + '\n';
}
