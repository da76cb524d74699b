#ifndef GPU_MONITOR_DIALOG_H
#define GPU_MONITOR_DIALOG_H

#include <optional>
#include <string>
#include <vector>

#include "view/canvas.h"
#include "view/gauge.h"

/// A line of a dialog; longer ones are wrapped.
struct DialogLine {
    std::string Text;
    Style Look = Style::Normal;
    /// Drawn instead of the text.
    std::optional<PowerLevels> Gauge = std::nullopt;
    /// Of the further lines where it is wrapped.
    size_t Indent = 0;
};
using DialogLines = std::vector<DialogLine>;

struct Dialog {
    std::string Title;
    DialogLines Lines;
    /// The keys that can be pressed. They are shown even where there is no room for all lines.
    std::string Keys;
};

/// Draws a framed box over the middle of the canvas.
void DrawDialog(Canvas* canvas, const Dialog& dialog);

#endif  // GPU_MONITOR_DIALOG_H
