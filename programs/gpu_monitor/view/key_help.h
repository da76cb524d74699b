#ifndef GPU_MONITOR_KEY_HELP_H
#define GPU_MONITOR_KEY_HELP_H

#include "view/canvas.h"

/// Draws the most important keys into one row, as many as there is room for. `bManyGpus`: there are GPUs to choose
/// from.
void DrawKeyNames(Canvas* canvas, const Area& area, bool bManyGpus);

/// Draws a dialog that explains all keys.
void DrawHelp(Canvas* canvas);

#endif  // GPU_MONITOR_KEY_HELP_H
