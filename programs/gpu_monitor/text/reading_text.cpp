#include "text/reading_text.h"

#include <optional>
#include <vector>

#include "gpu_feed/limit_reasons.h"
#include "text/text_layout.h"

using namespace gpu_feed;

namespace {

/// The first `count` of `reasons`.
std::string Joined(const std::vector<LimitReason>& reasons, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) text += (i == 0 ? "" : ", ") + reasons[i].Word;
    return text;
}

}  // namespace

std::string ReadingNumber(ReadingId id, const GpuTelemetrySample& sample) {
    const std::optional<double> value = ShownValue(id, sample);
    return value ? Number(*value, ReadingOf(id).Decimals) : kNotRead;
}

std::string UnitText(const std::string& unit, bool bUnicode) {
    return bUnicode && unit == "C" ? "\u00B0C" : unit;
}

std::string ReadingText(ReadingId id, const GpuTelemetrySample& sample, bool bUnicode) {
    const std::string number = ReadingNumber(id, sample);
    const std::string unit = UnitText(ReadingOf(id).Unit, bUnicode);
    return number == kNotRead || unit.empty() ? number : number + ' ' + unit;
}

std::string MemoryText(uint64_t bytes) {
    const Reading& reading = ReadingOf(ReadingId::VramUsed);
    return Number(static_cast<double>(bytes) / reading.ShownDivisor, reading.Decimals) + ' ' + reading.Unit;
}

std::string LimitText(const GpuTelemetrySample& sample) {
    return ShortLimitText(sample, std::string::npos);
}

std::string ShortLimitText(const GpuTelemetrySample& sample, size_t width) {
    const std::vector<LimitReason> reasons = LimitReasons(sample.PerformanceLimitReasons);
    if (reasons.empty()) return kNotRead;
    std::string text = Joined(reasons, reasons.size());
    for (size_t kept = reasons.size() - 1; text.size() > width && kept > 0; --kept) {
        text = Joined(reasons, kept) + " +" + std::to_string(reasons.size() - kept);
    }
    return text;
}
