#ifndef GPU_MONITOR_DIALOG_H
#define GPU_MONITOR_DIALOG_H

#include <optional>
#include <string>
#include <vector>

#include "canvas.h"
#include "gauge.h"

/// A line of a dialog; longer ones are wrapped.
struct DialogLine {
    std::string Text;
    Style Look = Style::Normal;
    /// Drawn instead of the text.
    std::optional<PowerLevels> Gauge = std::nullopt;
};
using DialogLines = std::vector<DialogLine>;

/// Draws a framed box over the middle of the canvas. Lines for which there is no room are left out at the end.
void DrawDialog(Canvas* canvas, const std::string& title, const DialogLines& lines);

#endif  // GPU_MONITOR_DIALOG_H
