#ifndef GPU_MONITOR_LIMITS_H
#define GPU_MONITOR_LIMITS_H

#include "nvml_gpu_monitor.h"
#include "view/canvas.h"

/// How many columns `DrawLimits` needs for all words.
int WidthOfLimits(const GpuTelemetrySample& now);

/// Draws what limits the clocks, in words, with dangers first, and a mark in place of the words that do not fit. A dash
/// where the driver gives no reason.
void DrawLimits(Canvas* canvas, const Area& area, const GpuTelemetrySample& now);

#endif  // GPU_MONITOR_LIMITS_H
