#include "text/stream_format.h"

#include "gpu_feed/reading_text.h"
#include "gpu_feed/readings.h"
#include "text/text_layout.h"

using namespace gpu_feed;

namespace {

constexpr int kTimeWidth = 8;
constexpr int kIndexWidth = 3;
constexpr size_t kLimitsWidth = 21;

struct Column {
    const char* Heading;
    ReadingId Id;
    int Width;
};

/// Left to right. The reasons that limit the clocks come after these columns.
constexpr Column kColumns[] = {
    {"util", ReadingId::GpuUtilization, 4}, {"mem", ReadingId::MemoryUtilization, 4}, {"vram", ReadingId::VramUsed, 6},
    {"power", ReadingId::Power, 6},         {"temp", ReadingId::Temperature, 4},      {"fan", ReadingId::Fan, 4},
    {"gfx", ReadingId::GraphicsClock, 5},   {"mem", ReadingId::MemoryClock, 5},
};

/// A line of the stream; `cellOf` returns the text for a column.
template <typename CellOf>
std::string StreamLine(const std::string& time, const std::string& index, CellOf cellOf, const std::string& limits) {
    std::string text = Right(time, kTimeWidth) + ' ' + Right(index, kIndexWidth);
    for (const Column& column : kColumns) text += ' ' + Right(cellOf(column), column.Width);
    if (!limits.empty()) text += ' ' + limits;
    return text + '\n';
}

}  // namespace

std::string StreamHeading() {
    return StreamLine(
               "time", "gpu", [](const Column& column) { return column.Heading; }, "limited by") +
           StreamLine(
               "s", "", [](const Column& column) { return ReadingOf(column.Id).Unit; }, "");
}

std::string StreamText(const GpuDeviceInfo& device, const GpuTelemetrySample& sample, double seconds) {
    return StreamLine(
        Number(seconds, 1), std::to_string(device.Index),
        [&sample](const Column& column) { return ReadingNumber(column.Id, sample); },
        ShortLimitText(sample, kLimitsWidth));
}
