#include "view/plot_grid.h"

#include <algorithm>
#include <cmath>
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

struct NamedPlot {
    const char* Name;
    Plot Picture;
};

/// In the order of their keys.
const std::vector<NamedPlot>& NamedPlots() {
    using Id = ReadingId;
    static const std::vector<NamedPlot> kPlots = {
        {"utilization", {"Utilization", "%", {{Shown<Id::GpuUtilization>, Style::Bar}}, 100.0}},
        {"power",
         {"Power",
          "W",
          {{Shown<Id::Power>, Style::Bar}, {Shown<Id::PowerLimit>, Style::Limit, true, nullptr}},
          1.0,
          nullptr,
          0,
          true}},
        {"temperature", {"Temperature", "C", {{Shown<Id::Temperature>, Style::Bar}}, 100.0}},
        {"graphics clock", {"Graphics clock", "MHz", {{Shown<Id::GraphicsClock>, Style::Bar}}}},
        {"memory", {"VRAM", "GiB", {{Gibibytes<Id::VramUsed>, Style::Bar}}, 1.0, Gibibytes<Id::VramTotal>, 1}},
        {"PCIe",
         {"PCIe",
          "MiB/s",
          {{Shown<Id::PcieReceive>, Style::Bar, false, "rx"}, {Shown<Id::PcieTransmit>, Style::Strong, true, "tx"}}}},
        {"frame time", {"Frame time", "ms", {{Shown<Id::FrameTime>, Style::Bar}}, 1.0, nullptr, 1}},
    };
    return kPlots;
}

/// Whether there is anything to draw: a board may lack the reading, and only some hosts measure frames.
bool HasReading(const Plot& plot, const FeedGpu& gpu, const ShownHistory& shown) {
    return std::any_of(plot.Curves.begin(), plot.Curves.end(), [&](const Curve& curve) {
        const auto isRead = [&curve](const GpuTelemetrySample* sample) { return curve.Value(*sample).has_value(); };
        return curve.Name != nullptr &&
               (isRead(&gpu.Latest) || std::any_of(shown.Samples.rbegin(), shown.Samples.rend(), isRead));
    });
}

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

/// Where plot `i` of `count` is in the grid. All are equally wide; those in columns with fewer of them are higher.
Area PlaceOf(const Area& area, const Grid& grid, int i, int count) {
    const int width = PlotWidth(area, grid);
    const int column = i % grid.Columns;
    const int row = i / grid.Columns;
    const int rows = (count - column + grid.Columns - 1) / grid.Columns;
    const int top = area.Height * row / rows;
    const int bottom = area.Height * (row + 1) / rows;
    return {area.X + column * (width + kColumnGap), area.Y + top, width, bottom - top};
}

/// Up to two digits, so that a plot of a history that grows seldom changes its scale.
double RoundedUp(double seconds) {
    const double unit = std::pow(10.0, std::floor(std::log10(seconds)) - 1.0);
    return std::ceil(seconds / unit) * unit;
}

TimeSpan SpanOf(const FeedGpu& gpu, const PlotView& view) {
    constexpr double kShortestSeconds = 1.0;
    double seconds = view.Seconds;
    if (seconds == 0.0 && !gpu.Samples.empty()) {
        seconds = RoundedUp(std::max(view.Until - gpu.Samples.front().TimestampSeconds, kShortestSeconds));
    }
    return {view.Until - std::max(seconds, kShortestSeconds), view.Until};
}

ShownHistory ShownPart(const FeedGpu& gpu, const PlotView& view) {
    return {gpu.Samples, SpanOf(gpu, view), std::max(gpu.PeriodSeconds, view.Interval)};
}

}  // namespace

void DrawPlots(Canvas* canvas, const Area& area, const FeedGpu& gpu, const PlotView& view) {
    const ShownHistory shown = ShownPart(gpu, view);
    std::vector<const Plot*> plots;
    for (size_t i = 0; i < kPlotCount; ++i) {
        const Plot& plot = NamedPlots()[i].Picture;
        if (view.Choice[i] && HasReading(plot, gpu, shown)) plots.push_back(&plot);
    }
    if (view.Choice.none()) {
        canvas->Put(area.X, area.Y, "1 to " + std::to_string(kPlotCount) + " show plots", Style::Normal, area.Width);
    } else if (plots.empty() && gpu.Latest.TimestampSeconds != 0.0) {
        canvas->Put(area.X, area.Y, "This GPU gives no reading for the chosen plots.", Style::Normal, area.Width);
    }
    std::optional<Grid> grid;
    while (!plots.empty() && !(grid = GridFor(area, static_cast<int>(plots.size())))) plots.pop_back();
    const int count = static_cast<int>(plots.size());
    for (int i = 0; i < count; ++i) {
        DrawPlot(canvas, PlaceOf(area, *grid, i, count), *plots[static_cast<size_t>(i)], shown);
    }
}

void DrawSmallPlot(Canvas* canvas, const Area& area, PlotId id, const FeedGpu& gpu, const PlotView& view) {
    DrawBars(canvas, area, NamedPlots()[static_cast<size_t>(id)].Picture, ShownPart(gpu, view));
}

const std::vector<std::string>& PlotNames() {
    static const std::vector<std::string> kNames = [] {
        std::vector<std::string> names;
        for (const NamedPlot& plot : NamedPlots()) names.emplace_back(plot.Name);
        return names;
    }();
    return kNames;
}
