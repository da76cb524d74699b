#ifndef GPU_MONITOR_PLOT_H
#define GPU_MONITOR_PLOT_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "gpu_feed/sample_history.h"
#include "view/canvas.h"

/// One curve: a value of each sample, empty where it was not read.
struct Curve {
    std::function<std::optional<double>(const GpuTelemetrySample& sample)> Value;
    Style Look;
};

/// A quantity over time, drawn with its curves, the last one on top.
struct Plot {
    std::string Title;
    std::string Unit;
    std::vector<Curve> Curves;
    double Lowest = 0.0;
    double Highest = 100.0;
    /// Digits after the decimal point of the labels.
    int Decimals = 0;
};

/// What part of the steady clock's seconds a plot shows.
struct TimeSpan {
    double From;
    double To;
};

/// Draws `plot` into `area`: a line with title, unit and latest value, the curves between labels of the vertical axis,
/// and below them the time axis. `interval`: the seconds between two samples now. A curve has a gap where samples
/// are missing for much longer, and where a value was not read.
void DrawPlot(Canvas* canvas, const Area& area, const Plot& plot, const gpu_feed::SampleHistory& samples,
              const TimeSpan& span, double interval);

#endif  // GPU_MONITOR_PLOT_H
