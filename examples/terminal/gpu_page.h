#ifndef GPU_MONITOR_GPU_PAGE_H
#define GPU_MONITOR_GPU_PAGE_H

#include <bitset>
#include <cstddef>
#include <string>
#include <vector>

#include "canvas.h"
#include "monitor_feed.h"

/// One GPU as it is to be shown.
struct GpuOnPage {
    const FeedGpu& Gpu;
    /// What it reads now; nothing while it gives no data.
    GpuTelemetrySample Now;
    /// What it does, in words.
    std::string State;
    bool bSilent = false;
};

enum class ProcessOrder { Memory, Pid, User, Name };

/// Those of the history plots that are shown, in the order of their keys 1, 2, ...
constexpr size_t kPlotCount = 5;
using PlotChoice = std::bitset<kPlotCount>;

/// `gpu` of the feed's latest data, with its state in words.
GpuOnPage OnPage(const FeedGpu& gpu, const MonitorFeed& feed);

/// How many rows `DrawSummary` takes.
int SummaryHeight(int width);

/// Draws what one GPU is and reads now: header, gauges, clocks and power limits.
void DrawSummary(Canvas* canvas, const Area& area, const GpuOnPage& page);

/// Draws a heading and, below it, as many processes as there is room for.
void DrawProcesses(Canvas* canvas, const Area& area, const GpuOnPage& page, ProcessOrder order);

/// Draws the chosen plots of the last `seconds`, as many as there is room for; 0: of the whole history.
void DrawPlots(Canvas* canvas, const Area& area, const FeedGpu& gpu, PlotChoice choice, double seconds);

/// What the plots show, in the order of their keys.
const std::vector<std::string>& PlotNames();

#endif  // GPU_MONITOR_GPU_PAGE_H
