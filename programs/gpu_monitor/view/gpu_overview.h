#ifndef GPU_MONITOR_GPU_OVERVIEW_H
#define GPU_MONITOR_GPU_OVERVIEW_H

#include <cstddef>
#include <vector>

#include "gpu_feed/gpu_summary.h"
#include "view/canvas.h"
#include "view/plot_grid.h"

/// Draws a heading and, below it, a line for each GPU, as many as there is room for around the selected one. An
/// asterisk marks those that the program has changed.
void DrawGpuTable(Canvas* canvas, const Area& area, const std::vector<gpu_feed::GpuSummary>& pages, size_t selected);

/// As `DrawGpuTable`, with small plots of utilization and power; each GPU takes `rows` rows.
void DrawGpuPlots(Canvas* canvas, const Area& area, const std::vector<gpu_feed::GpuSummary>& pages, size_t selected,
                  int rows, const PlotView& view);

/// Draws a word for each GPU into one row, as many as there is room for around the selected one.
void DrawGpuStrip(Canvas* canvas, const Area& area, const std::vector<gpu_feed::GpuSummary>& pages, size_t selected);

#endif  // GPU_MONITOR_GPU_OVERVIEW_H
