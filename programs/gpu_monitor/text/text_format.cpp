#include "text/text_format.h"

#include <algorithm>

#include "text/text_layout.h"

namespace {

// Four GPUs fit a line of 80.
constexpr int kLabelWidth = 19;
constexpr int kUnitWidth = 5;
constexpr int kCellWidth = 11;
constexpr int kGap = 2;

constexpr int kTimeWidth = 8;
constexpr int kIndexWidth = 3;

/// The first `count` of `words`.
std::string Joined(const Json& words, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) text += (i == 0 ? "" : ", ") + words[i].get<std::string>();
    return text;
}

std::string ValueText(const Json& value, int decimals, double divisor) {
    if (value.is_null()) return kNotRead;
    if (value.is_array()) return Joined(value, value.size());
    if (value.is_string()) return Printable(value.get<std::string>());
    return Number(value.get<double>() / divisor, decimals);
}

/// As many of `words` as fit into `width`, then the number of the others.
std::string Shortened(const Json& words, size_t width) {
    std::string text = Joined(words, words.size());
    for (size_t kept = words.size() - 1; text.size() > width && kept > 0; --kept) {
        text = Joined(words, kept) + " +" + std::to_string(words.size() - kept);
    }
    return text;
}

using GpuIterator = std::vector<GpuReading>::const_iterator;

/// One row of one block; takes several lines when a cell does.
std::string TableRow(const Reading& reading, GpuIterator first, GpuIterator last) {
    std::vector<std::vector<std::string>> cells;
    size_t height = 1;
    for (; first != last; ++first) {
        cells.push_back(
            Wrapped(ValueText(reading.Get(first->Sample), reading.Decimals, reading.TextDivisor), kCellWidth));
        height = std::max(height, cells.back().size());
    }

    std::string text;
    for (size_t line = 0; line < height; ++line) {
        text +=
            Left(line == 0 ? reading.Label : "", kLabelWidth + kGap) + Left(line == 0 ? reading.Unit : "", kUnitWidth);
        for (const auto& cell : cells) text += Right(line < cell.size() ? cell[line] : "", kGap + kCellWidth);
        text += '\n';
    }
    return text;
}

std::string TableBlock(GpuIterator first, GpuIterator last) {
    std::string names;
    std::string headings(kLabelWidth + kGap + kUnitWidth, ' ');
    for (auto gpu = first; gpu != last; ++gpu) {
        names += GpuTitle(gpu->Device) + '\n';
        headings += Right(GpuName(gpu->Device), kGap + kCellWidth);
    }
    std::string text = names + '\n' + headings + '\n';
    for (const Reading& reading : Readings()) {
        if (reading.Label != nullptr) text += TableRow(reading, first, last);
    }
    return text;
}

std::string StreamCell(const Reading& reading, const GpuTelemetrySample& sample) {
    const Json value = reading.Get(sample);
    if (value.is_array()) return Shortened(value, static_cast<size_t>(reading.StreamWidth));
    return ValueText(value, reading.Decimals, reading.TextDivisor);
}

/// A line of the stream: `cell` gives the text for each column that comes from the table of readings.
template <typename Cell>
std::string StreamLine(const std::string& time, const std::string& index, Cell cell) {
    std::string text = Right(time, kTimeWidth) + ' ' + Right(index, kIndexWidth);
    for (const Reading& reading : Readings()) {
        if (reading.StreamHeading == nullptr) continue;
        // Words, which have no unit, come last and need no alignment.
        const bool bNumber = *reading.Unit != '\0';
        text += ' ' + (bNumber ? Right(cell(reading), reading.StreamWidth) : std::string(cell(reading)));
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text + '\n';
}

}  // namespace

std::string ListText(const std::vector<GpuDeviceInfo>& devices) {
    std::string text;
    for (const GpuDeviceInfo& device : devices) {
        if (!text.empty()) text += '\n';
        for (const IdentityField& field : IdentityFields()) {
            const std::string value = ValueText(field.Get(device), 0, field.TextDivisor);
            const bool bUnit = *field.Unit != '\0' && value != kNotRead;
            text += Left(field.Label, kLabelWidth) + value + (bUnit ? std::string(" ") + field.Unit : "") + '\n';
        }
    }
    return text;
}

std::string SampleText(const std::vector<GpuReading>& gpus, size_t width) {
    constexpr size_t kFixedWidth = kLabelWidth + kGap + kUnitWidth;
    constexpr size_t kColumnWidth = kGap + kCellWidth;
    const size_t room = width > kFixedWidth ? (width - kFixedWidth) / kColumnWidth : 0;
    const auto columns = static_cast<std::ptrdiff_t>(std::max<size_t>(room, 1));
    std::string text;
    for (auto first = gpus.begin(); first != gpus.end();) {
        const auto last = first + std::min(columns, gpus.end() - first);
        text += (text.empty() ? "" : "\n") + TableBlock(first, last);
        first = last;
    }
    return text;
}

std::string StreamHeading() {
    return StreamLine("time", "gpu", [](const Reading& reading) { return reading.StreamHeading; }) +
           StreamLine("s", "", [](const Reading& reading) { return reading.Unit; });
}

std::string StreamText(const GpuDeviceInfo& device, const GpuTelemetrySample& sample, double seconds) {
    return StreamLine(Number(seconds, 1), std::to_string(device.Index),
                      [&sample](const Reading& reading) { return StreamCell(reading, sample); });
}

std::string LimitText(const GpuTelemetrySample& sample) {
    return ValueText(PerformanceLimits(sample), 0, 1.0);
}

std::string MemoryText(uint64_t bytes) {
    const Reading& reading = ReadingOf("vram_used_bytes");
    return Number(static_cast<double>(bytes) / reading.TextDivisor, reading.Decimals) + ' ' + reading.Unit;
}

std::string ReadingText(const std::string& key, const GpuTelemetrySample& sample, bool bUnit) {
    const Reading& reading = ReadingOf(key);
    const Json value = reading.Get(sample);
    const std::string text = ValueText(value, reading.Decimals, reading.TextDivisor);
    return value.is_null() || !bUnit || *reading.Unit == '\0' ? text : text + ' ' + reading.Unit;
}
