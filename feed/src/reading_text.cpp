#include "gpu_feed/reading_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <initializer_list>
#include <limits>
#include <optional>

namespace gpu_feed {

namespace {

/// The first `count` of `reasons`.
std::string Joined(const std::vector<LimitReason>& reasons, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) text += (i == 0 ? "" : ", ") + reasons[i].Word;
    return text;
}

bool DropStart(const std::string& start, std::string* name) {
    if (name->compare(0, start.size(), start) != 0 || name->size() == start.size()) return false;
    name->erase(0, start.size());
    return true;
}

void DropEnd(const std::string& end, std::string* name) {
    if (name->size() <= end.size()) return;
    const size_t place = name->size() - end.size();
    if (name->compare(place, end.size(), end) == 0) name->erase(place);
}

}  // namespace

std::string Number(double value, int decimals) {
    // The largest number, its sign and point, and more decimals than anything here has.
    std::array<char, std::numeric_limits<double>::max_exponent10 + 32> text{};
    char* const begin = text.data();
    return {begin, std::to_chars(begin, begin + text.size(), value, std::chars_format::fixed, decimals).ptr};
}

std::string Printable(std::string text) {
    constexpr unsigned char kDelete = 0x7F;
    for (char& character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < ' ' || byte == kDelete) character = '?';
    }
    return text;
}

std::string OrDash(const std::string& text) {
    return text.empty() ? kNotRead : text;
}

std::string DriverSilenceText(double seconds) {
    return "The driver has not answered for " + Number(seconds, 0) + " s.";
}

std::string GpuName(const GpuDeviceInfo& device) {
    return "GPU " + std::to_string(device.Index);
}

std::string GpuInSentence(const GpuDeviceInfo& device) {
    return GpuName(device) + " (" + Printable(device.Name) + ')';
}

std::string GpuTitle(const GpuDeviceInfo& device) {
    return GpuName(device) + ": " + Printable(device.Name);
}

std::string ShortName(const std::string& name, int columns) {
    const auto fits = [columns](const std::string& text) { return static_cast<int>(text.size()) <= columns; };
    std::string shorter = name;
    if (fits(shorter)) return shorter;
    DropStart("NVIDIA ", &shorter);
    DropEnd(" GPU", &shorter);
    if (fits(shorter)) return shorter;
    for (const char* family : {"GeForce ", "Quadro ", "Tesla "}) {
        if (DropStart(family, &shorter)) break;
    }
    return shorter;
}

std::string ShortGpuTitle(const GpuDeviceInfo& device, int columns) {
    const std::string start = GpuName(device) + ": ";
    return start + ShortName(Printable(device.Name), columns - static_cast<int>(start.size()));
}

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

std::vector<LimitReason> ShownLimits(const GpuTelemetrySample& sample) {
    std::vector<LimitReason> limits = LimitReasons(sample.PerformanceLimitReasons);
    const bool bGiven = !limits.empty();
    limits.erase(std::remove_if(limits.begin(), limits.end(), [](const LimitReason& each) { return each.bIdle; }),
                 limits.end());
    std::stable_partition(limits.begin(), limits.end(), [](const LimitReason& each) { return each.bDanger; });
    if (limits.empty()) limits.push_back({bGiven ? "nothing, idle" : kNotRead, true});
    return limits;
}

}  // namespace gpu_feed
