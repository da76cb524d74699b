#ifndef GPU_MONITOR_PAINTER_H
#define GPU_MONITOR_PAINTER_H

#include <array>
#include <string>
#include <vector>

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
    /// A cell to write, in the style of the canvas or, if it is blank, in another one that does not show on it.
    struct Change {
        int X;
        int Y;
        Style Look;
    };

    bool LookTheSame(const Cell& a, const Cell& b) const;
    std::vector<Change> ChangesOf(const Canvas& shown, const Canvas& canvas) const;
    void Paint(const Canvas& canvas, const Change& change);
    void MoveTo(const Canvas& canvas, int x, int y);
    std::string StepsTo(int x, int y) const;
    std::string AgainTo(const Canvas& canvas, int x, int y) const;
    void TakeStyle(Style style);

    /// Of the styles that look the same on this terminal, the first one.
    std::array<Style, kStyleCount> Shown{};
    /// What is sent between one style and another.
    std::array<std::array<std::string, kStyleCount>, kStyleCount> Transitions;
    /// Whether a blank in this style is seen.
    std::array<bool, kStyleCount> MarksBlanks{};

    // Of the text in progress. The pen is where the next character goes; after the last column that is not known.
    std::string Text;
    int PenX = 0;
    int PenY = 0;
    Style PenStyle = Style::Normal;
};

#endif  // GPU_MONITOR_PAINTER_H
