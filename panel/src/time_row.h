#ifndef GPU_PANEL_TIME_ROW_H
#define GPU_PANEL_TIME_ROW_H

#include "time_axis.h"

namespace gpu_panel {

/// Draws what the time axis shows, with buttons that change it, as one row above the plots of all GPUs.
void DrawTimeRow(TimeAxis* axis);

}  // namespace gpu_panel

#endif  // GPU_PANEL_TIME_ROW_H
