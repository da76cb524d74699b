#ifndef GPU_MONITOR_PROCESS_LIST_H
#define GPU_MONITOR_PROCESS_LIST_H

#include "view/canvas.h"
#include "view/gpu_on_page.h"

enum class ProcessOrder { Memory, Pid, User, Name };

/// Draws a heading and, below it, as many processes as there is room for.
void DrawProcesses(Canvas* canvas, const Area& area, const GpuOnPage& page, ProcessOrder order);

#endif  // GPU_MONITOR_PROCESS_LIST_H
