#ifndef GPU_MONITOR_PLOT_H
#define GPU_MONITOR_PLOT_H

#include <optional>
#include <vector>

#include "gpu_feed/sample_history.h"
#include "view/canvas.h"

/// A number of a sample; empty where it was not read.
using SampleValue = std::optional<double> (*)(const GpuTelemetrySample& sample);

/// One curve.
struct Curve {
    SampleValue Value;
    Style Look;
    /// Dashes distinguish a second curve where there are no colors.
    bool bDashed = false;
    /// Before its values in the heading; null: the heading leaves the curve out.
    const char* Name = "";
};

/// A quantity over time, drawn with its curves.
struct Plot {
    const char* Title;
    const char* Unit;
    std::vector<Curve> Curves;
    /// The vertical axis begins at 0 and reaches this, the highest value shown and, if it is given, that of `Ceiling`.
    double Highest = 1.0;
    SampleValue Ceiling = nullptr;
    /// Digits after the decimal point of the values.
    int Decimals = 0;
    /// Whether the heading gives the energy used over the time shown.
    bool bWithEnergy = false;
};

/// What part of the steady clock's seconds a plot shows.
struct TimeSpan {
    double From;
    double To;
};

/// The part of a history that plots show.
struct ShownHistory {
    TimeSpan Span;
    /// The seconds between two samples now.
    double Interval;
    /// Oldest first: the samples of the span and two before it. A curve enters the span from the second of these,
    /// unless the first one shows that there is a gap.
    std::vector<const GpuTelemetrySample*> Samples;
    /// Used from the first to the last sample of the span.
    gpu_feed::EnergyCount Energy;

    /// Refers to `history`, which must outlive this and gain nothing meanwhile. Its cost depends on what is shown.
    ShownHistory(const gpu_feed::SampleHistory& history, const TimeSpan& span, double interval);
};

/// Draws `plot` into `area`: a line with title, unit, what the values were over the time shown and the latest ones, the
/// curves beside labels of the vertical axis, and below them the time axis. Areas of the same width have the same time
/// scale. A curve has a gap where samples are missing for much longer than usual, and where a value was not read.
void DrawPlot(Canvas* canvas, const Area& area, const Plot& plot, const ShownHistory& shown);

/// Fills `area` with bars that are as high as the first curve, without axes.
void DrawBars(Canvas* canvas, const Area& area, const Plot& plot, const ShownHistory& shown);

#endif  // GPU_MONITOR_PLOT_H
