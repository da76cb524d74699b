#ifndef GPU_MONITOR_LEAVING_DIALOG_H
#define GPU_MONITOR_LEAVING_DIALOG_H

#include "gpu_feed/feed_data.h"
#include "view/canvas.h"

/// Draws the dialog that asks whether to take these changes back or keep them.
void DrawLeaving(Canvas* canvas, const gpu_feed::FeedData& data);

#endif  // GPU_MONITOR_LEAVING_DIALOG_H
