#ifndef GPU_MONITOR_LIVE_VIEW_H
#define GPU_MONITOR_LIVE_VIEW_H

#include <chrono>
#include <cstddef>
#include <string>

#include "gpu_feed/feed_data.h"
#include "view/canvas.h"
#include "view/gpu_page.h"

/// In less, nothing fits any more.
constexpr int kMinimumViewWidth = 60;

/// What the user has chosen to see.
struct ViewChoice {
    /// The selected GPU's key.
    std::string Gpu;
    PlotChoice Plots = PlotChoice().set();
    /// Of the plots' time axis; 0: the whole history.
    double Seconds = 60.0;
    ProcessOrder Order = ProcessOrder::Memory;
    /// Shown in place of the keys' names, unless it is empty.
    std::string Notice;
};

/// Draws the whole view.
void DrawView(Canvas* canvas, const gpu_feed::FeedMoment& moment, const ViewChoice& choice);

void DrawHelp(Canvas* canvas);

/// The span of the time axis, as people say it.
std::string SpanText(double seconds);

std::string IntervalText(std::chrono::milliseconds interval);

#endif  // GPU_MONITOR_LIVE_VIEW_H
