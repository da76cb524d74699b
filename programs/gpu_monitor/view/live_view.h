#ifndef GPU_MONITOR_LIVE_VIEW_H
#define GPU_MONITOR_LIVE_VIEW_H

#include <chrono>
#include <optional>
#include <string>

#include "gpu_feed/feed_data.h"
#include "view/canvas.h"
#include "view/plot_grid.h"
#include "view/process_list.h"

/// A narrower view has no room for the gauges.
constexpr int kMinimumViewWidth = 60;

/// What the user has chosen to see.
struct ViewChoice {
    /// The selected GPU's key.
    std::string Gpu;
    PlotChoice Plots = PlotChoice().set();
    /// Of the plots' time axis; 0: the whole history.
    double Seconds = 60.0;
    ProcessView Processes;
    /// All GPUs at once, instead of the selected one's page.
    bool bAllGpus = false;
    /// The digits typed so far, while the user types the number of a GPU.
    std::optional<std::string> GpuNumber;
    /// Shown in place of the keys' names until a moment of the steady clock.
    std::string Notice;
    double NoticeUntil = 0.0;
};

/// Draws the whole view. Result: how much of the list of processes is shown.
ListRoom DrawView(Canvas* canvas, const gpu_feed::FeedMoment& moment, const ViewChoice& choice);

/// The span of the time axis, as people say it.
std::string SpanText(double seconds);

std::string IntervalText(std::chrono::milliseconds interval);

#endif  // GPU_MONITOR_LIVE_VIEW_H
