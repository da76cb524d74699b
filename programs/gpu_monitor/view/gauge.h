#ifndef GPU_MONITOR_GAUGE_H
#define GPU_MONITOR_GAUGE_H

#include <optional>

#include "view/canvas.h"

/// Draws a gauge into one row; `fraction` of it is filled, and without one it is empty.
void DrawGauge(Canvas* canvas, const Area& area, std::optional<double> fraction);

/// Power, and what is known of its limit, in watts; negative where it was not read.
struct PowerLevels {
    double Watts = -1.0;
    double Limit = -1.0;
    double Default = -1.0;
    double Minimum = -1.0;
    double Maximum = -1.0;
};

/// Draws a gauge of power into one row, from 0 W to the highest level: filled up to `Watts`, the range of the limit
/// shaded, the default and, over it, the limit marked.
void DrawPowerGauge(Canvas* canvas, const Area& area, const PowerLevels& levels);

#endif  // GPU_MONITOR_GAUGE_H
