#include "view/gpu_page.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>

#include "gpu_feed/readings.h"
#include "text/reading_text.h"
#include "text/text_layout.h"
#include "text/tuning_format.h"
#include "view/gauge.h"
#include "view/limits.h"

using namespace gpu_feed;

namespace {

/// Of the labels before gauges, clocks and limits.
constexpr int kLabelWidth = 8;

// ---- Header ----

std::string LinkText(const GpuTelemetrySample& sample) {
    return "PCIe gen " + ReadingText(ReadingId::PcieGeneration, sample) + " x" +
           ReadingNumber(ReadingId::PcieWidth, sample);
}

std::string PerformanceStateText(const GpuTelemetrySample& now) {
    const std::string state = ReadingText(ReadingId::PerformanceState, now);
    return state == kNotRead ? "state -" : 'P' + state;
}

void DrawHeader(Canvas* canvas, const Area& area, const GpuOnPage& page) {
    const int end = area.X + area.Width;
    const int stateStart = end - ColumnsOf(page.State);
    canvas->Put(area.X, area.Y, GpuTitle(page.Gpu->Device), Style::Title, stateStart - area.X - 1);
    canvas->PutRight(end, area.Y, page.State, page.bSilent ? Style::Alarm : Style::Strong);

    const std::string facts = "Driver " + OrDash(page.Gpu->Device.DriverVersion) + "   " + LinkText(page.Now) + "   " +
                              PerformanceStateText(page.Now) + "   Limited by: ";
    const int x = canvas->Put(area.X, area.Y + 1, facts, Style::Normal, area.Width);
    DrawLimits(canvas, {x, area.Y + 1, end - x, 1}, page.Now);
}

// ---- Gauges ----

constexpr int kValueWidth = 18;
constexpr int kTwoColumnWidth = 76;

/// Two readings with the same unit: `part` / `whole`.
std::string OfText(ReadingId part, ReadingId whole, const GpuTelemetrySample& sample) {
    const std::string wholeText = ReadingText(whole, sample);
    if (wholeText == kNotRead) return ReadingText(part, sample);
    return ReadingNumber(part, sample) + " / " + wholeText;
}

struct Gauge {
    const char* Label;
    std::string (*Text)(const GpuTelemetrySample& sample);
    void (*Draw)(Canvas* canvas, const Area& area, const GpuTelemetrySample& sample);
};

template <ReadingId Id>
void DrawPercent(Canvas* canvas, const Area& area, const GpuTelemetrySample& sample) {
    const std::optional<double> value = ReadingValue(Id, sample);
    DrawGauge(canvas, area, value ? std::optional(*value / 100.0) : std::nullopt);
}

void DrawMemory(Canvas* canvas, const Area& area, const GpuTelemetrySample& sample) {
    const std::optional<double> used = ReadingValue(ReadingId::VramUsed, sample);
    DrawGauge(canvas, area, used ? std::optional(*used / *ReadingValue(ReadingId::VramTotal, sample)) : std::nullopt);
}

void DrawPower(Canvas* canvas, const Area& area, const GpuTelemetrySample& sample) {
    DrawPowerGauge(canvas, area,
                   {sample.PowerWatts, sample.PowerLimitWatts, sample.DefaultPowerLimitWatts,
                    sample.MinimumPowerLimitWatts, sample.MaximumPowerLimitWatts});
}

using Sample = GpuTelemetrySample;

/// Where there is room for two columns, the first four are on the left.
constexpr Gauge kGauges[] = {
    {"GPU", [](const Sample& now) { return ReadingText(ReadingId::GpuUtilization, now); },
     DrawPercent<ReadingId::GpuUtilization>},
    {"VRAM", [](const Sample& now) { return OfText(ReadingId::VramUsed, ReadingId::VramTotal, now); }, DrawMemory},
    {"Encoder", [](const Sample& now) { return ReadingText(ReadingId::EncoderUtilization, now); },
     DrawPercent<ReadingId::EncoderUtilization>},
    {"Decoder", [](const Sample& now) { return ReadingText(ReadingId::DecoderUtilization, now); },
     DrawPercent<ReadingId::DecoderUtilization>},
    {"Power", [](const Sample& now) { return OfText(ReadingId::Power, ReadingId::PowerLimit, now); }, DrawPower},
    {"Temp", [](const Sample& now) { return ReadingText(ReadingId::Temperature, now); },
     DrawPercent<ReadingId::Temperature>},
    {"Fan", [](const Sample& now) { return ReadingText(ReadingId::Fan, now); }, DrawPercent<ReadingId::Fan>},
    {"Mem I/O", [](const Sample& now) { return ReadingText(ReadingId::MemoryUtilization, now); },
     DrawPercent<ReadingId::MemoryUtilization>},
};
constexpr int kGaugeCount = static_cast<int>(std::size(kGauges));

int GaugeRows(int width) {
    return width >= kTwoColumnWidth ? kGaugeCount / 2 : kGaugeCount;
}

void DrawGaugeLine(Canvas* canvas, const Area& area, const Gauge& gauge, const GpuTelemetrySample& now) {
    const std::string text = gauge.Text(now);
    const int valueWidth = std::max(kValueWidth, ColumnsOf(text) + 1);
    canvas->Put(area.X, area.Y, gauge.Label);
    gauge.Draw(canvas, {area.X + kLabelWidth, area.Y, std::max(area.Width - kLabelWidth - valueWidth, 0), 1}, now);
    canvas->PutRight(area.X + area.Width, area.Y, text, Style::Strong);
}

void DrawGauges(Canvas* canvas, const Area& area, const GpuTelemetrySample& now) {
    const int rows = GaugeRows(area.Width);
    const int columns = kGaugeCount / rows;
    const int width = (area.Width - (columns - 1) * kColumnGap) / columns;
    for (int i = 0; i < kGaugeCount; ++i) {
        const int x = area.X + i / rows * (width + kColumnGap);
        DrawGaugeLine(canvas, {x, area.Y + i % rows, width, 1}, kGauges[i], now);
    }
}

// ---- Clocks and limits ----

std::string ClockLine(const GpuTelemetrySample& now) {
    return "graphics " + ReadingText(ReadingId::GraphicsClock, now) + ", SM " + ReadingText(ReadingId::SmClock, now) +
           ", memory " + ReadingText(ReadingId::MemoryClock, now) + ", video " +
           ReadingText(ReadingId::VideoClock, now);
}

std::string PowerLimitLine(const GpuTelemetrySample& now) {
    return "power " + WattsText(now.PowerLimitWatts) + ", default " + WattsText(now.DefaultPowerLimitWatts) +
           ", range " + RangeText(now.MinimumPowerLimitWatts, now.MaximumPowerLimitWatts);
}

void DrawLabelled(Canvas* canvas, const Area& area, const char* label, const std::string& text) {
    canvas->Put(area.X, area.Y, label);
    canvas->Put(area.X + kLabelWidth, area.Y, text, Style::Strong, area.Width - kLabelWidth);
}

}  // namespace

int SummaryHeight(int width) {
    return 4 + GaugeRows(width);
}

void DrawSummary(Canvas* canvas, const Area& area, const GpuOnPage& page) {
    DrawHeader(canvas, area, page);
    DrawGauges(canvas, {area.X, area.Y + 2, area.Width, 0}, page.Now);
    const int y = area.Y + 2 + GaugeRows(area.Width);
    DrawLabelled(canvas, {area.X, y, area.Width, 1}, "Clocks", ClockLine(page.Now));
    DrawLabelled(canvas, {area.X, y + 1, area.Width, 1}, "Limits", PowerLimitLine(page.Now));
}
