#ifndef GPU_MONITOR_CUT_TEXT_H
#define GPU_MONITOR_CUT_TEXT_H

#include <string>
#include <vector>

#include "view/canvas.h"

struct StyledText {
    std::string Text;
    Style Look = Style::Strong;
};

/// The mark of a text that was cut.
wchar_t CutMark(const Canvas& canvas);

/// Draws `text` into the first row of `area`, with a mark at the end when it is cut. Result: the column behind it.
int PutCut(Canvas* canvas, const Area& area, const std::string& text, Style look = Style::Normal);

/// How many columns `parts` take, those that are not empty, with commas between them.
int WidthOfParts(const std::vector<StyledText>& parts);

/// Draws those of `parts` that are not empty and fit whole into the first row of `area`, with commas between them.
/// Result: the column behind them.
int PutParts(Canvas* canvas, const Area& area, const std::vector<StyledText>& parts);

#endif  // GPU_MONITOR_CUT_TEXT_H
