#include "text/stream_format.h"

#include "gpu_feed/readings.h"
#include "text/reading_text.h"
#include "text/text_layout.h"

using namespace gpu_feed;

namespace {

constexpr int kTimeWidth = 8;
constexpr int kIndexWidth = 3;
constexpr size_t kWordsWidth = 21;

struct Column {
    ReadingId Id;
    const char* Heading;
    int Width;
};

/// What limits the clocks follows them, in words.
constexpr Column kColumns[] = {
    {ReadingId::GpuUtilization, "util", 4}, {ReadingId::MemoryUtilization, "mem", 4}, {ReadingId::VramUsed, "vram", 6},
    {ReadingId::Power, "power", 6},         {ReadingId::Temperature, "temp", 4},      {ReadingId::Fan, "fan", 4},
    {ReadingId::GraphicsClock, "gfx", 5},   {ReadingId::MemoryClock, "mem", 5},
};

/// A line of the stream: `cellOf` gives the text for each column of the table above.
template <typename CellOf>
std::string StreamLine(const std::string& time, const std::string& index, CellOf cellOf, const std::string& words) {
    std::string text = Right(time, kTimeWidth) + ' ' + Right(index, kIndexWidth);
    for (const Column& column : kColumns) text += ' ' + Right(cellOf(column), column.Width);
    if (!words.empty()) text += ' ' + words;
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
        ShortLimitText(sample, kWordsWidth));
}
