#include "view/gpu_page.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gpu_feed/reading_text.h"
#include "gpu_feed/readings.h"
#include "gpu_feed/tuning_text.h"
#include "view/cut_text.h"
#include "view/gauge.h"
#include "view/limits.h"

using namespace gpu_feed;

namespace {

/// Of the labels before gauges, clocks and limits.
constexpr int kLabelWidth = 8;
constexpr const char* kFactGap = "   ";
/// The least room for what limits the clocks, so that the line seldom changes.
constexpr int kLimitsWidth = 13;

// ---- Header ----

std::string LinkText(const GpuTelemetrySample& sample) {
    return "PCIe gen " + ReadingText(ReadingId::PcieGeneration, sample) + " x" +
           ReadingNumber(ReadingId::PcieWidth, sample);
}

std::string PerformanceStateText(const GpuTelemetrySample& now) {
    const std::string state = ReadingText(ReadingId::PerformanceState, now);
    return state == kNotRead ? "state -" : 'P' + state;
}

/// What the link carries; empty where that was not read.
std::string TrafficText(const GpuTelemetrySample& now) {
    if (!ReadingValue(ReadingId::PcieReceive, now) && !ReadingValue(ReadingId::PcieTransmit, now)) return {};
    return ", rx " + ReadingNumber(ReadingId::PcieReceive, now) + " tx " + ReadingText(ReadingId::PcieTransmit, now);
}

/// Title and state; between them the driver's version if the title is not cut for it.
void DrawTitle(Canvas* canvas, const Area& area, const GpuSummary& page) {
    const GpuDeviceInfo& device = page.Gpu->Device;
    const int end = area.X + area.Width;
    canvas->PutRight(end, area.Y, page.State, page.bSilent ? Style::Alarm : Style::Strong);
    const std::string driver = kFactGap + ("Driver " + OrDash(device.DriverVersion));
    const int room = area.Width - ColumnsOf(page.State) - kColumnGap;
    const int roomBesideDriver = room - ColumnsOf(driver);
    const bool bWithDriver = ColumnsOf(ShortGpuTitle(device, roomBesideDriver)) <= roomBesideDriver;
    const int titleRoom = bWithDriver ? roomBesideDriver : room;
    const int x = PutCut(canvas, {area.X, area.Y, titleRoom, 1}, ShortGpuTitle(device, titleRoom), Style::Title);
    if (bWithDriver) canvas->Put(x, area.Y, driver);
}

void DrawHeader(Canvas* canvas, const Area& area, const GpuSummary& page) {
    DrawTitle(canvas, area, page);
    const std::string limitsLabel = kFactGap + std::string("Limited by: ");
    std::string facts = PerformanceStateText(page.Now) + kFactGap + LinkText(page.Now);
    const std::string traffic = TrafficText(page.Now);
    // All that limits the clocks is more important than the traffic, which has a plot.
    const int limits = std::max(WidthOfLimits(page.Now), kLimitsWidth);
    if (ColumnsOf(facts + traffic + limitsLabel) + limits <= area.Width) facts += traffic;
    const int x = canvas->Put(area.X, area.Y + 1, facts + limitsLabel, Style::Normal, area.Width);
    DrawLimits(canvas, {x, area.Y + 1, area.X + area.Width - x, 1}, page.Now);
}

// ---- Gauges ----

constexpr int kValueWidth = 18;
constexpr int kTwoColumnWidth = 76;

struct Gauge {
    const char* Label;
    ReadingId Shown;
    /// Of the same unit: the value that `Shown` is a part of.
    std::optional<ReadingId> Whole;
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

template <ReadingId Id>
constexpr Gauge PercentGauge(const char* label) {
    return {label, Id, std::nullopt, DrawPercent<Id>};
}

/// Where there is room for two columns, the first four are on the left.
constexpr Gauge kGauges[] = {
    PercentGauge<ReadingId::GpuUtilization>("GPU"),
    {"VRAM", ReadingId::VramUsed, ReadingId::VramTotal, DrawMemory},
    PercentGauge<ReadingId::EncoderUtilization>("Encoder"),
    PercentGauge<ReadingId::DecoderUtilization>("Decoder"),
    {"Power", ReadingId::Power, ReadingId::PowerLimit, DrawPower},
    PercentGauge<ReadingId::Temperature>("Temp"),
    PercentGauge<ReadingId::Fan>("Fan"),
    PercentGauge<ReadingId::MemoryUtilization>("Mem I/O"),
};
constexpr int kGaugeCount = static_cast<int>(std::size(kGauges));

int GaugeRows(int width) {
    return width >= kTwoColumnWidth ? kGaugeCount / 2 : kGaugeCount;
}

std::string GaugeText(const Gauge& gauge, const GpuTelemetrySample& now, bool bUnicode) {
    if (!gauge.Whole || !ReadingValue(*gauge.Whole, now)) return ReadingText(gauge.Shown, now, bUnicode);
    return ReadingNumber(gauge.Shown, now) + " / " + ReadingText(*gauge.Whole, now, bUnicode);
}

void DrawGaugeLine(Canvas* canvas, const Area& area, const Gauge& gauge, const GpuTelemetrySample& now) {
    const std::string text = GaugeText(gauge, now, canvas->IsUnicode());
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

std::vector<StyledText> ClockParts(const GpuSummary& page) {
    std::vector<StyledText> parts;
    if (page.Locked) {
        parts.push_back({"locked to " + std::to_string(page.Locked->GraphicsClockMHz) + " / " +
                             std::to_string(page.Locked->MemoryClockMHz) + " MHz",
                         Style::Warning});
    }
    constexpr std::pair<const char*, ReadingId> kClocks[] = {{"graphics ", ReadingId::GraphicsClock},
                                                             {"memory ", ReadingId::MemoryClock},
                                                             {"SM ", ReadingId::SmClock},
                                                             {"video ", ReadingId::VideoClock}};
    for (const auto& [name, id] : kClocks) parts.push_back({name + ReadingText(id, page.Now)});
    return parts;
}

std::vector<StyledText> LimitParts(const GpuSummary& page) {
    const GpuTelemetrySample& now = page.Now;
    const std::string limit = "power " + WattsText(now.PowerLimitWatts);
    return {page.bLimitChanged ? StyledText{limit + " (changed)", Style::Warning} : StyledText{limit},
            {"default " + WattsText(now.DefaultPowerLimitWatts)},
            {"range " + RangeText(now.MinimumPowerLimitWatts, now.MaximumPowerLimitWatts)}};
}

void DrawLabelled(Canvas* canvas, const Area& area, const char* label, const std::vector<StyledText>& parts) {
    canvas->Put(area.X, area.Y, label);
    PutParts(canvas, {area.X + kLabelWidth, area.Y, area.Width - kLabelWidth, 1}, parts);
}

}  // namespace

int SummaryHeight(int width) {
    return 4 + GaugeRows(width);
}

void DrawSummary(Canvas* canvas, const Area& area, const GpuSummary& page) {
    DrawHeader(canvas, area, page);
    DrawGauges(canvas, {area.X, area.Y + 2, area.Width, 0}, page.Now);
    const int y = area.Y + 2 + GaugeRows(area.Width);
    DrawLabelled(canvas, {area.X, y, area.Width, 1}, "Clocks", ClockParts(page));
    DrawLabelled(canvas, {area.X, y + 1, area.Width, 1}, "Limits", LimitParts(page));
}
