#include "view/plot_grid.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <optional>

#include "gpu_feed/readings.h"
#include "view/plot.h"

using namespace gpu_feed;

namespace {

constexpr double kBytesPerGiB = 1024.0 * 1024.0 * 1024.0;
constexpr int kMinimumPlotWidth = 24;
constexpr int kMinimumPlotHeight = 5;
/// Plots that would be lower than this are put side by side.
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

/// How many rows and columns the plots form.
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

/// The grid with the fewest columns in which `count` plots have a good height, or at least fit. Empty when there is no
/// room for so many.
std::optional<Grid> GridFor(const Area& area, int count) {
    for (const int height : {kGoodPlotHeight, kMinimumPlotHeight}) {
        for (int columns = 1; columns <= count; ++columns) {
            const Grid grid = {columns, (count + columns - 1) / columns};
            if (Fits(area, grid, height)) return grid;
        }
    }
    return std::nullopt;
}

/// Where plot `i` of `count` is in the grid; the last one gets what is left of its row.
Area PlaceOf(const Area& area, const Grid& grid, int i, int count) {
    const int width = PlotWidth(area, grid);
    const int row = i / grid.Columns;
    const int left = area.X + i % grid.Columns * (width + kColumnGap);
    const int top = area.Height * row / grid.Rows;
    const int bottom = area.Height * (row + 1) / grid.Rows;
    return {left, area.Y + top, i + 1 == count ? area.X + area.Width - left : width, bottom - top};
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

void DrawPlots(Canvas* canvas, const Area& area, const FeedGpu& gpu, const PlotView& view) {
    if (view.Choice.none()) canvas->Put(area.X, area.Y, "1 to 5 show plots", Style::Dim, area.Width);
    std::vector<const NamedPlot*> plots;
    for (size_t i = 0; i < kPlotCount; ++i) {
        if (view.Choice[i]) plots.push_back(&kPlots[i]);
    }
    std::optional<Grid> grid;
    while (!plots.empty() && !(grid = GridFor(area, static_cast<int>(plots.size())))) plots.pop_back();
    const TimeSpan span = SpanOf(gpu, view);
    for (size_t i = 0; i < plots.size(); ++i) {
        const Area place = PlaceOf(area, *grid, static_cast<int>(i), static_cast<int>(plots.size()));
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
