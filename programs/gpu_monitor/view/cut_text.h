#ifndef GPU_MONITOR_CUT_TEXT_H
#define GPU_MONITOR_CUT_TEXT_H

#include <string>

#include "view/canvas.h"

/// The mark of a text that was cut.
wchar_t CutMark(const Canvas& canvas);

/// Draws `text` into the first row of `area`, with a mark at the end when it is cut. Result: the column behind it.
int PutCut(Canvas* canvas, const Area& area, const std::string& text, Style look = Style::Normal);

#endif  // GPU_MONITOR_CUT_TEXT_H
