#ifndef GPU_PANEL_GPU_PLOTS_H
#define GPU_PANEL_GPU_PLOTS_H

#include <array>
#include <cstddef>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "plot_columns.h"
#include "plot_drawing.h"
#include "plot_frame.h"
#include "plot_table.h"
#include "time_axis.h"
#include "value_axis.h"

namespace gpu_panel {

/// The plots of one GPU. Keeps what it has prepared of the history, so that a frame costs what it shows.
class GpuPlots {
public:
    /// Draws the plots below each other, as wide as the window's content. `axis` is shared by all GPUs.
    void Draw(const gpu_feed::FeedGpu& gpu, const gpu_feed::FeedMoment& moment, TimeAxis* axis);

private:
    bool IsShown(size_t plot) const;
    float HeightOf(const PlotFrame& frame) const;
    void DrawPlot(const PlotFrame& frame, size_t plot, ImVec2 position);
    void DrawCurves(const PlotFrame& frame, size_t plot, ImVec2 corner);
    void DrawReasons(const PlotFrame& frame, ImVec2 position) const;
    void DrawReasonBand(const PlotFrame& frame, ImVec2 corner) const;
    /// The columns that fields show, and one more on each side.
    void FindColumns(const PlotFrame& frame);
    void FitAxis(size_t plot);
    /// Fills `Points`.
    void PlaceCurve(const PlotFrame& frame, size_t curve, ImVec2 corner, double top);

    PlotColumns Columns;
    std::array<ValueAxis, kPlots.size()> Axes;
    size_t FirstColumn = 0;
    size_t EndColumn = 0;
    std::vector<CurvePoint> Points;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_GPU_PLOTS_H
