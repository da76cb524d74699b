#ifndef GPU_PANEL_PLOT_HEADING_H
#define GPU_PANEL_PLOT_HEADING_H

#include <cstdint>

#include "imgui.h"
#include "plot_columns.h"
#include "plot_frame.h"
#include "plot_table.h"

namespace gpu_panel {

/// Draws the line above a plot: its title, what its curves look like, and the values of the sample that `frame` shows.
/// Curves that have no value in `columns` are left out.
void DrawHeading(const PlotFrame& frame, const PlotColumns& columns, size_t plot, ImVec2 position);

/// The same for the band of limiting reasons: those in `reasons`, with their colors.
void DrawReasonHeading(const PlotFrame& frame, uint64_t reasons, ImVec2 position);

}  // namespace gpu_panel

#endif  // GPU_PANEL_PLOT_HEADING_H
