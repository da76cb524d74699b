#include "view/gpu_page.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>
#include <utility>

#include "gpu_feed/limit_reasons.h"
#include "gpu_feed/readings.h"
#include "text/reading_text.h"
#include "text/text_layout.h"
#include "text/tuning_format.h"
#include "view/gauge.h"
#include "view/plot.h"

using namespace gpu_feed;

namespace {

constexpr double kBytesPerGiB = 1024.0 * 1024.0 * 1024.0;

// ---- Header ----

std::string PeriodText(double seconds) {
    return Number(seconds, seconds < 1.0 ? 2 : 1) + " s";
}

/// A moment of the steady clock as the time of day.
std::string TimeOfDay(const FeedMoment& now, double steadySeconds) {
    using std::chrono::system_clock;
    const std::chrono::duration<double> ago(now.Now - steadySeconds);
    const time_t moment =
        system_clock::to_time_t(now.TimeOfDay - std::chrono::duration_cast<system_clock::duration>(ago));
    tm local{};
    localtime_r(&moment, &local);
    char text[sizeof "hh:mm:ss"];
    return {text, strftime(text, sizeof text, "%H:%M:%S", &local)};
}

std::string SilenceText(const FeedMoment& moment, const FeedGpu& gpu) {
    const double last = gpu.Latest.TimestampSeconds;
    const std::string reason = IsDriverHanging(moment) ? "driver hangs, " : "";
    if (last == 0.0) return reason + "no data yet";
    return reason + "no data since " + TimeOfDay(moment, last) + " (" + Number(AgeOf(moment, gpu), 0) + " s)";
}

std::string StateText(const FeedMoment& moment, const FeedGpu& gpu) {
    switch (StateOf(moment, gpu)) {
        case GpuState::Starting: return "starting";
        case GpuState::Live: return gpu.PeriodSeconds == 0.0 ? "live" : "live, every " + PeriodText(gpu.PeriodSeconds);
        case GpuState::Paused: return "paused";
        case GpuState::NoData: return SilenceText(moment, gpu);
        case GpuState::Unavailable: break;
    }
    return moment.Data->Status;
}

std::string LinkText(const GpuTelemetrySample& sample) {
    return "PCIe gen " + ReadingText(ReadingId::PcieGeneration, sample) + " x" +
           ReadingNumber(ReadingId::PcieWidth, sample);
}

std::string StateOfPerformance(const GpuTelemetrySample& now) {
    const std::string state = ReadingText(ReadingId::PerformanceState, now);
    return state == kNotRead ? "state -" : 'P' + state;
}

void DrawHeader(Canvas* canvas, const Area& area, const GpuOnPage& page) {
    const int end = area.X + area.Width;
    const int stateStart = end - ColumnsOf(page.State);
    canvas->Put(area.X, area.Y, GpuTitle(page.Gpu->Device), Style::Title, stateStart - area.X - 1);
    canvas->PutRight(end, area.Y, page.State, page.bSilent ? Style::Alarm : Style::Strong);

    const std::string facts = "Driver " + OrDash(page.Gpu->Device.DriverVersion) + "   " + LinkText(page.Now) + "   " +
                              StateOfPerformance(page.Now) + "   Limited by: ";
    const int x = canvas->Put(area.X, area.Y + 1, facts, Style::Normal, area.Width);
    DrawLimits(canvas, {x, area.Y + 1, end - x, 1}, page.Now);
}

// ---- Gauges ----

constexpr int kLabelWidth = 8;
constexpr int kValueWidth = 18;
constexpr int kTwoColumnWidth = 76;
constexpr int kColumnGap = 2;

/// `part` of `whole`, both readings with one unit.
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

/// In two columns, if there is room: the first four stand in the left one.
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

// ---- Processes ----

std::vector<FeedProcess> Sorted(std::vector<FeedProcess> processes, ProcessOrder order) {
    std::stable_sort(processes.begin(), processes.end(), [order](const FeedProcess& a, const FeedProcess& b) {
        switch (order) {
            case ProcessOrder::Pid: return a.Pid < b.Pid;
            case ProcessOrder::User: return a.User < b.User;
            case ProcessOrder::Name: return a.Name < b.Name;
            case ProcessOrder::Memory: break;
        }
        return a.VramUsedBytes > b.VramUsedBytes;
    });
    return processes;
}

constexpr int kPidWidth = 8;
constexpr int kVramWidth = 12;
constexpr int kUserWidth = 14;

void DrawProcessLine(Canvas* canvas, const Area& area, const std::string (&texts)[4], Style look) {
    canvas->PutRight(area.X + kPidWidth, area.Y, texts[0], look);
    canvas->PutRight(area.X + kPidWidth + kVramWidth, area.Y, texts[1], look);
    int x = area.X + kPidWidth + kVramWidth + kColumnGap;
    canvas->Put(x, area.Y, texts[2], look, kUserWidth - 1);
    x += kUserWidth;
    canvas->Put(x, area.Y, texts[3], look, area.X + area.Width - x);
}

/// Processes of simulated GPUs are not this system's.
std::string NameText(const FeedProcess& process, bool bSimulated) {
    return bSimulated ? "(simulated)" : OrDash(process.Name);
}

std::string OrderMark(const char* heading, bool bOrder) {
    return bOrder ? std::string(heading) + '*' : heading;
}

// ---- Plots ----

constexpr int kMinimumPlotWidth = 24;
constexpr int kMinimumPlotHeight = 5;
/// Below this, plots side by side are better.
constexpr int kGoodPlotHeight = 9;

using OptionalValue = std::optional<double>;

template <ReadingId Id>
OptionalValue Shown(const GpuTelemetrySample& sample) {
    return ShownValue(Id, sample);
}

template <ReadingId Id>
OptionalValue Gibibytes(const GpuTelemetrySample& sample) {
    const OptionalValue bytes = ReadingValue(Id, sample);
    return bytes ? OptionalValue(*bytes / kBytesPerGiB) : OptionalValue();
}

/// The highest value of any of `values` in the history, rounded up to a multiple of `step`.
double Ceiling(const FeedGpu& gpu, std::initializer_list<OptionalValue (*)(const GpuTelemetrySample&)> values,
               double step) {
    double highest = step;
    for (const GpuTelemetrySample& sample : gpu.Samples) {
        for (const auto value : values) highest = std::max(highest, value(sample).value_or(0.0));
    }
    return std::ceil(highest / step) * step;
}

Plot UtilizationPlot(const FeedGpu& /*gpu*/) {
    return {"Utilization", "%", {{Shown<ReadingId::GpuUtilization>, Style::Bar}}};
}

Plot PowerPlot(const FeedGpu& gpu) {
    const auto power = Shown<ReadingId::Power>;
    const auto limit = Shown<ReadingId::PowerLimit>;
    return {"Power", "W", {{limit, Style::Limit}, {power, Style::Bar}}, 0.0, Ceiling(gpu, {power, limit}, 50.0)};
}

Plot TemperaturePlot(const FeedGpu& gpu) {
    const auto temperature = Shown<ReadingId::Temperature>;
    return {"Temperature", "C", {{temperature, Style::Bar}}, 20.0, std::max(100.0, Ceiling(gpu, {temperature}, 10.0))};
}

Plot ClockPlot(const FeedGpu& gpu) {
    const auto clock = Shown<ReadingId::GraphicsClock>;
    return {"Graphics clock", "MHz", {{clock, Style::Bar}}, 0.0, Ceiling(gpu, {clock}, 500.0)};
}

Plot MemoryPlot(const FeedGpu& gpu) {
    return {"VRAM",
            "GiB",
            {{Gibibytes<ReadingId::VramUsed>, Style::Bar}},
            0.0,
            Ceiling(gpu, {Gibibytes<ReadingId::VramTotal>}, 1.0),
            1};
}

struct NamedPlot {
    const char* Name;
    Plot (*Make)(const FeedGpu& gpu);
};

constexpr NamedPlot kPlots[kPlotCount] = {{"utilization", UtilizationPlot},
                                          {"power", PowerPlot},
                                          {"temperature", TemperaturePlot},
                                          {"graphics clock", ClockPlot},
                                          {"memory", MemoryPlot}};

/// How plots stand in rows and columns.
struct Grid {
    int Columns;
    int Rows;
};

int PlotWidth(const Area& area, const Grid& grid) {
    return (area.Width - (grid.Columns - 1) * kColumnGap) / grid.Columns;
}

bool Fits(const Area& area, const Grid& grid, int plotHeight) {
    const bool bWide = grid.Columns == 1 || PlotWidth(area, grid) >= kMinimumPlotWidth;
    return bWide && area.Height / grid.Rows >= plotHeight;
}

/// The fewest columns in which `count` plots stand well, or at all; none when there is no room for so many.
std::optional<Grid> GridFor(const Area& area, int count) {
    for (const int height : {kGoodPlotHeight, kMinimumPlotHeight}) {
        for (int columns = 1; columns <= count; ++columns) {
            const Grid grid = {columns, (count + columns - 1) / columns};
            if (Fits(area, grid, height)) return grid;
        }
    }
    return std::nullopt;
}

TimeSpan SpanOf(const FeedGpu& gpu, const PlotView& view) {
    constexpr double kShortestSeconds = 1.0;
    const auto isTaken = [](const GpuTelemetrySample& sample) { return sample.TimestampSeconds != 0.0; };
    const auto oldest = std::find_if(gpu.Samples.begin(), gpu.Samples.end(), isTaken);
    double seconds = view.Seconds;
    if (seconds == 0.0 && oldest != gpu.Samples.end()) seconds = view.Until - oldest->TimestampSeconds;
    return {view.Until - std::max(seconds, kShortestSeconds), view.Until};
}

}  // namespace

GpuOnPage OnPage(const FeedMoment& moment, const std::shared_ptr<const FeedGpu>& gpu) {
    const GpuState state = StateOf(moment, *gpu);
    const bool bKnown = state == GpuState::Live || state == GpuState::Paused;
    return {gpu, bKnown ? gpu->Latest : GpuTelemetrySample(), StateText(moment, *gpu), state == GpuState::NoData,
            moment.bSimulated};
}

void DrawLimits(Canvas* canvas, const Area& area, const GpuTelemetrySample& now) {
    std::vector<LimitReason> reasons = LimitReasons(now.PerformanceLimitReasons);
    std::stable_partition(reasons.begin(), reasons.end(), [](const LimitReason& reason) { return reason.bDanger; });
    const int end = area.X + area.Width;
    int x = area.X;
    for (const LimitReason& reason : reasons) {
        if (reason.bIdle) continue;
        if (x > area.X) x = canvas->Put(x, area.Y, ", ", Style::Normal, end - x);
        x = canvas->Put(x, area.Y, reason.Word, reason.bDanger ? Style::Alarm : Style::Strong, end - x);
    }
    if (x == area.X) canvas->Put(x, area.Y, reasons.empty() ? kNotRead : "nothing, idle", Style::Strong, area.Width);
}

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

void DrawProcesses(Canvas* canvas, const Area& area, const GpuOnPage& page, ProcessOrder order) {
    const std::string headings[] = {
        OrderMark("PID", order == ProcessOrder::Pid), OrderMark("VRAM", order == ProcessOrder::Memory),
        OrderMark("USER", order == ProcessOrder::User), OrderMark("PROCESS", order == ProcessOrder::Name)};
    if (area.Height < 2) return;
    DrawProcessLine(canvas, area, headings, Style::Dim);
    const std::vector<FeedProcess> processes =
        page.bSilent ? std::vector<FeedProcess>() : Sorted(page.Gpu->Processes, order);
    const int room = area.Height - 1;
    const int count = static_cast<int>(processes.size());
    for (int i = 0; i < std::min(count, room); ++i) {
        const FeedProcess& process = processes[static_cast<size_t>(i)];
        const std::string texts[] = {std::to_string(process.Pid), MemoryText(process.VramUsedBytes),
                                     OrDash(process.User), NameText(process, page.bSimulated)};
        DrawProcessLine(canvas, {area.X, area.Y + 1 + i, area.Width, 1}, texts, Style::Normal);
    }
    if (count > room) canvas->PutRight(area.X + area.Width, area.Y, std::to_string(count - room) + " more", Style::Dim);
}

void DrawPlots(Canvas* canvas, const Area& area, const FeedGpu& gpu, const PlotView& view) {
    if (view.Choice.none()) canvas->Put(area.X, area.Y, "1 to 5 show plots", Style::Dim, area.Width);
    std::vector<const NamedPlot*> plots;
    for (size_t i = 0; i < kPlotCount; ++i) {
        if (view.Choice[i]) plots.push_back(&kPlots[i]);
    }
    std::optional<Grid> grid;
    while (!plots.empty() && !(grid = GridFor(area, static_cast<int>(plots.size())))) plots.pop_back();
    if (!grid) return;

    const TimeSpan span = SpanOf(gpu, view);
    const int width = PlotWidth(area, *grid);
    for (size_t i = 0; i < plots.size(); ++i) {
        const int column = static_cast<int>(i) % grid->Columns;
        const int row = static_cast<int>(i) / grid->Columns;
        const int top = area.Height * row / grid->Rows;
        const int height = area.Height * (row + 1) / grid->Rows - top;
        const int left = area.X + column * (width + kColumnGap);
        const bool bLast = i + 1 == plots.size();
        const Area place = {left, area.Y + top, bLast ? area.X + area.Width - left : width, height};
        DrawPlot(canvas, place, plots[i]->Make(gpu), gpu.Samples, span, std::max(gpu.PeriodSeconds, view.Interval));
    }
}

const std::vector<std::string>& PlotNames() {
    static const std::vector<std::string> kNames = [] {
        std::vector<std::string> names;
        for (const NamedPlot& plot : kPlots) names.emplace_back(plot.Name);
        return names;
    }();
    return kNames;
}
