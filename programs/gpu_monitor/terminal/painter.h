#ifndef GPU_MONITOR_PAINTER_H
#define GPU_MONITOR_PAINTER_H

#include <array>
#include <string>

#include "view/canvas.h"

/// What a capability of the terminal sends; empty when the terminal lacks it. Valid once ncurses has been started.
std::string ControlSequence(const char* capability);

/// Composes what changes the screen of the terminal from one canvas to the next.
class Painter {
public:
    /// Without `bMayColor`, or on a terminal without colors, only attributes distinguish the styles. To be made once
    /// ncurses has been started.
    explicit Painter(bool bMayColor);

    /// The text that turns `shown`, which is on the screen, into `canvas` of the same size.
    std::string Changes(const Canvas& shown, const Canvas& canvas);

private:
    void Reach(const Canvas& canvas, int x, int y);
    void Paint(const Canvas& canvas, int x, int y);
    void TakeStyle(Style style);

    std::array<std::string, kStyleCount> StyleSequences;

    // Of the text in progress. The pen is where the next character goes; after the last column that is not known.
    std::string Text;
    int PenX = 0;
    int PenY = 0;
    Style PenStyle = Style::Normal;
};

#endif  // GPU_MONITOR_PAINTER_H
