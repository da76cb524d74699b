#ifndef GPU_PANEL_PLOT_TABLE_H
#define GPU_PANEL_PLOT_TABLE_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

#include "gpu_feed/readings.h"

namespace gpu_panel {

/// What a curve is in its plot.
enum class CurveRole {
    First,
    Second,
    /// What the first curve cannot exceed. It does not show a plot by itself.
    Limit,
    /// As `Limit`, with the top of the plot for its line.
    Ceiling,
};

struct Curve {
    gpu_feed::ReadingId Id;
    /// Before its value.
    const char* Name;
    CurveRole Role;
    /// `ShownValue` divided by this is in the unit of the plot.
    double Divisor = 1.0;
};

/// What `curve` shows of a sample, in the unit of its plot. The host's profiler may give any frame time; what no screen
/// can show is cut.
inline std::optional<double> PlottedValue(const Curve& curve, const GpuTelemetrySample& sample) {
    constexpr double kHighest = 1e30;
    const std::optional<double> value = gpu_feed::ShownValue(curve.Id, sample);
    return value ? std::optional(std::min(*value / curve.Divisor, kHighest)) : std::nullopt;
}

/// A quantity over time.
struct PlotKind {
    const char* Title;
    const char* Unit;
    /// Digits after the decimal point of the values.
    int Decimals;
    /// The vertical axis reaches at least this.
    double LeastTop;
    /// Its curves in `kCurves`.
    size_t FirstCurve;
    size_t EndCurve;
};

inline constexpr double kMiBPerGiB = 1024.0;

inline constexpr std::array kCurves = {
    Curve{gpu_feed::ReadingId::FrameTime, "", CurveRole::First},
    Curve{gpu_feed::ReadingId::Power, "", CurveRole::First},
    Curve{gpu_feed::ReadingId::PowerLimit, "limit ", CurveRole::Limit},
    Curve{gpu_feed::ReadingId::Temperature, "", CurveRole::First},
    Curve{gpu_feed::ReadingId::GraphicsClock, "", CurveRole::First},
    Curve{gpu_feed::ReadingId::MemoryClock, "", CurveRole::First},
    Curve{gpu_feed::ReadingId::GpuUtilization, "GPU ", CurveRole::First},
    Curve{gpu_feed::ReadingId::MemoryUtilization, "memory ", CurveRole::Second},
    Curve{gpu_feed::ReadingId::VramUsed, "", CurveRole::First, kMiBPerGiB},
    Curve{gpu_feed::ReadingId::VramTotal, " of ", CurveRole::Ceiling, kMiBPerGiB},
    Curve{gpu_feed::ReadingId::PcieReceive, "rx ", CurveRole::First},
    Curve{gpu_feed::ReadingId::PcieTransmit, "tx ", CurveRole::Second},
    Curve{gpu_feed::ReadingId::Fan, "", CurveRole::First},
};

/// In the order in which they are shown.
inline constexpr std::array kPlots = {
    PlotKind{"Frame time", "ms", 2, 1.0, 0, 1},
    PlotKind{"Power", "W", 1, 1.0, 1, 3},
    PlotKind{"Temperature", "C", 0, 100.0, 3, 4},
    // Apart, because memory clocks are several times higher.
    PlotKind{"Graphics clock", "MHz", 0, 1.0, 4, 5},
    PlotKind{"Memory clock", "MHz", 0, 1.0, 5, 6},
    PlotKind{"Utilization", "%", 0, 100.0, 6, 8},
    PlotKind{"Video memory", "GiB", 2, 0.01, 8, 10},
    PlotKind{"PCIe", "MiB/s", 1, 1.0, 10, 12},
    PlotKind{"Fan", "%", 0, 100.0, 12, 13},
};
/// The plot below which the limiting reasons are shown.
inline constexpr size_t kPowerPlot = 1;

}  // namespace gpu_panel

#endif  // GPU_PANEL_PLOT_TABLE_H
