#ifndef GPU_MONITOR_PLOT_GRID_H
#define GPU_MONITOR_PLOT_GRID_H

#include <bitset>
#include <cstddef>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "view/canvas.h"

/// Those of the history plots that are shown, in the order of their keys 1, 2, ...
constexpr size_t kPlotCount = 7;
using PlotChoice = std::bitset<kPlotCount>;

/// What part of the history the plots show.
struct PlotView {
    PlotChoice Choice;
    /// The right end of the time axis, in steady-clock seconds, and its length; 0: the whole history.
    double Until;
    double Seconds;
    /// As in `ShownHistory`.
    double Interval;
};

/// Draws those of the chosen plots that the GPU has readings for, as many as there is room for.
void DrawPlots(Canvas* canvas, const Area& area, const gpu_feed::FeedGpu& gpu, const PlotView& view);

/// The plots that have a small form, the first ones.
enum class PlotId { Utilization, Power };

/// Fills `area` with a plot without axes.
void DrawSmallPlot(Canvas* canvas, const Area& area, PlotId id, const gpu_feed::FeedGpu& gpu, const PlotView& view);

/// What the plots show, in the order of their keys.
const std::vector<std::string>& PlotNames();

#endif  // GPU_MONITOR_PLOT_GRID_H
