#ifndef GPU_MONITOR_GPU_PAGE_H
#define GPU_MONITOR_GPU_PAGE_H

#include "gpu_feed/gpu_summary.h"
#include "view/canvas.h"

/// How many rows `DrawSummary` takes.
int SummaryHeight(int width);

/// Draws what one GPU is and reads now: header, gauges, clocks and power limits. Marks what the program has changed.
void DrawSummary(Canvas* canvas, const Area& area, const gpu_feed::GpuSummary& page);

#endif  // GPU_MONITOR_GPU_PAGE_H
