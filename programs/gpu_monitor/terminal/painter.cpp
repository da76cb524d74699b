#include "terminal/painter.h"

// Otherwise ncurses has macros with the names of ordinary functions.
#define NCURSES_NOMACROS
#include <curses.h>
#include <term.h>

#include <utility>

namespace {

// ---- Control sequences ----

std::string Collected;

int Collect(int character) {
    Collected += static_cast<char>(character);
    return character;
}

// ---- Looks ----

struct Look {
    bool bBold;
    bool bUnderlined;
    bool bReversed;
    /// -1: the terminal's own.
    int Color;
};

/// What meaning no color may carry alone: each style that matters differs from plain text in an attribute too. Nothing
/// is dim, and in the terminal's own colors nothing is both bold and colored, because many terminals show that in a
/// bright color, which can be close to the background.
Look PlainLook(Style style) {
    switch (style) {
        case Style::Strong:
        case Style::Title:
        case Style::Limit: return {true, false, false, -1};
        case Style::Heading: return {false, true, false, -1};
        case Style::Warning: return {true, true, false, -1};
        case Style::Alarm: return {true, false, true, -1};
        case Style::Selected: return {false, false, true, -1};
        case Style::Normal:
        case Style::Dim:
        case Style::Frame:
        case Style::Bar: break;
    }
    return {false, false, false, -1};
}

/// Colors of the terminal's palette that can be read on a light and on a dark background. Green, yellow and cyan vanish
/// on white, blue on black, and the bright colors are greys in some palettes.
Look PaletteLook(Style style) {
    Look look = PlainLook(style);
    if (style == Style::Limit) look = {false, false, false, COLOR_MAGENTA};
    if (style == Style::Alarm) look = {false, false, true, COLOR_RED};
    return look;
}

/// Of the 256 colors, those of a contrast of at least 3.5 on black and on white, and on what is used in their place.
Look FixedColorLook(Style style) {
    Look look = PlainLook(style);
    switch (style) {
        case Style::Frame: look.Color = 244; break;
        case Style::Bar: look.Color = 64; break;
        case Style::Limit:
        case Style::Warning: look.Color = 166; break;
        case Style::Alarm: look.Color = 196; break;
        default: break;
    }
    return look;
}

std::string SequenceOf(const Look& look) {
    std::string sequence = ControlSequence(exit_attribute_mode);
    if (look.bBold) sequence += ControlSequence(enter_bold_mode);
    if (look.bUnderlined) sequence += ControlSequence(enter_underline_mode);
    if (look.bReversed) sequence += ControlSequence(enter_reverse_mode);
    if (look.Color >= 0) sequence += ControlSequence(tiparm(set_a_foreground, look.Color));
    return sequence;
}

}  // namespace

std::string ControlSequence(const char* capability) {
    Collected.clear();
    // Delays, which some terminals need, become padding characters.
    if (capability != nullptr) tputs(capability, 1, Collect);
    return Collected;
}

Painter::Painter(bool bMayColor) {
    constexpr int kPaletteColors = 8;
    constexpr int kFixedColors = 256;
    const bool bColored = bMayColor && set_a_foreground != nullptr && max_colors >= kPaletteColors;
    const auto lookOf = !bColored ? PlainLook : max_colors >= kFixedColors ? FixedColorLook : PaletteLook;
    for (size_t i = 0; i < kStyleCount; ++i) StyleSequences[i] = SequenceOf(lookOf(static_cast<Style>(i)));
}

std::string Painter::Changes(const Canvas& shown, const Canvas& canvas) {
    Text.clear();
    PenX = canvas.Width();
    // Writing to the last cell would scroll some terminals.
    const bool bLastCellScrolls = auto_right_margin && !eat_newline_glitch;
    for (int y = 0; y < canvas.Height(); ++y) {
        const int end = canvas.Width() - (bLastCellScrolls && y + 1 == canvas.Height() ? 1 : 0);
        for (int x = 0; x < end; ++x) {
            if (canvas.At(x, y).Glyph == 0 || canvas.At(x, y) == shown.At(x, y)) continue;
            Reach(canvas, x, y);
            Paint(canvas, x, y);
        }
    }
    TakeStyle(Style::Normal);
    return std::move(Text);
}

/// A few characters are written again where that is shorter than moving over them.
void Painter::Reach(const Canvas& canvas, int x, int y) {
    constexpr int kShortGap = 5;
    const auto isCheap = [&](int column) {
        const Cell& cell = canvas.At(column, y);
        return cell.Look == PenStyle && cell.Glyph != 0 && cell.Glyph < 0x80;
    };
    bool bRewrite = y == PenY && x >= PenX && x - PenX <= kShortGap;
    for (int column = PenX; bRewrite && column < x; ++column) bRewrite = isCheap(column);
    if (bRewrite) {
        while (PenX < x) Paint(canvas, PenX, y);
    } else if (y == PenY && PenX < canvas.Width() && column_address != nullptr) {
        Text += ControlSequence(tiparm(column_address, x));
    } else {
        Text += ControlSequence(tiparm(cursor_address, y, x));
    }
    PenX = x;
    PenY = y;
}

void Painter::Paint(const Canvas& canvas, int x, int y) {
    const Cell& cell = canvas.At(x, y);
    TakeStyle(cell.Look);
    AppendInLocale(cell.Glyph, &Text);
    const bool bWide = x + 1 < canvas.Width() && canvas.At(x + 1, y).Glyph == 0;
    PenX += bWide ? 2 : 1;
}

void Painter::TakeStyle(Style style) {
    if (style != PenStyle) Text += StyleSequences[static_cast<size_t>(style)];
    PenStyle = style;
}
