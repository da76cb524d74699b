#ifndef GPU_MONITOR_GPU_PAGE_H
#define GPU_MONITOR_GPU_PAGE_H

#include <bitset>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "view/canvas.h"

/// One GPU as it is to be shown.
struct GpuOnPage {
    std::shared_ptr<const gpu_feed::FeedGpu> Gpu;
    /// What it reads now; nothing while it gives no data.
    GpuTelemetrySample Now;
    /// What it does, in words.
    std::string State;
    bool bSilent = false;
    bool bSimulated = false;
};

enum class ProcessOrder { Memory, Pid, User, Name };

/// Those of the history plots that are shown, in the order of their keys 1, 2, ...
constexpr size_t kPlotCount = 5;
using PlotChoice = std::bitset<kPlotCount>;

/// `gpu` of `moment.Data`, with its state in words.
GpuOnPage OnPage(const gpu_feed::FeedMoment& moment, const std::shared_ptr<const gpu_feed::FeedGpu>& gpu);

/// Draws what limits the clocks, in words; a dash for nothing.
void DrawLimits(Canvas* canvas, const Area& area, const GpuTelemetrySample& now);

/// How many rows `DrawSummary` takes.
int SummaryHeight(int width);

/// Draws what one GPU is and reads now: header, gauges, clocks and power limits.
void DrawSummary(Canvas* canvas, const Area& area, const GpuOnPage& page);

/// Draws a heading and, below it, as many processes as there is room for.
void DrawProcesses(Canvas* canvas, const Area& area, const GpuOnPage& page, ProcessOrder order);

/// What part of the history the plots show.
struct PlotView {
    PlotChoice Choice;
    /// The right end of the time axis, in steady-clock seconds, and its length; 0: the whole history.
    double Until;
    double Seconds;
    /// As in `DrawPlot`.
    double Interval;
};

/// Draws the chosen plots, as many as there is room for.
void DrawPlots(Canvas* canvas, const Area& area, const gpu_feed::FeedGpu& gpu, const PlotView& view);

/// What the plots show, in the order of their keys.
const std::vector<std::string>& PlotNames();

#endif  // GPU_MONITOR_GPU_PAGE_H
