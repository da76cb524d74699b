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

    friend bool operator==(const Look& a, const Look& b) {
        return a.bBold == b.bBold && a.bUnderlined == b.bUnderlined && a.bReversed == b.bReversed && a.Color == b.Color;
    }
};

/// Looks without colors. No color carries a meaning alone: each style that matters differs from plain text in an
/// attribute too. Nothing is dim. In the terminal's own colors nothing is both bold and colored, because many terminals
/// show that in a bright color, which can be close to the background.
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
        case Style::Limit: return {false, false, false, 166};
        case Style::Warning: look.Color = 166; break;
        case Style::Alarm: look.Color = 196; break;
        default: break;
    }
    return look;
}

/// Ends all attributes and colors. The part that ends a second set of characters is left out, because the program never
/// begins one.
std::string PlainSequence() {
    const std::string otherSet = "\x1b(B";
    std::string sequence = ControlSequence(exit_attribute_mode);
    if (sequence.compare(0, otherSet.size(), otherSet) == 0) sequence.erase(0, otherSet.size());
    return sequence;
}

/// What has to be sent in look `from` to write in look `to`.
std::string Transition(const Look& from, const Look& to) {
    const bool bEnds = (from.bBold && !to.bBold) || (from.bUnderlined && !to.bUnderlined) ||
                       (from.bReversed && !to.bReversed) || (from.Color >= 0 && to.Color < 0);
    const Look before = bEnds ? Look{false, false, false, -1} : from;
    std::string sequence = bEnds ? PlainSequence() : "";
    if (to.bBold && !before.bBold) sequence += ControlSequence(enter_bold_mode);
    if (to.bUnderlined && !before.bUnderlined) sequence += ControlSequence(enter_underline_mode);
    if (to.bReversed && !before.bReversed) sequence += ControlSequence(enter_reverse_mode);
    if (to.Color != before.Color) sequence += ControlSequence(tiparm(set_a_foreground, to.Color));
    return sequence;
}

size_t Index(Style style) {
    return static_cast<size_t>(style);
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
    for (size_t to = 0; to < kStyleCount; ++to) {
        const Look look = lookOf(static_cast<Style>(to));
        MarksBlanks[to] = look.bUnderlined || look.bReversed;
        for (size_t from = kStyleCount; from-- > 0;) {
            const Look other = lookOf(static_cast<Style>(from));
            Transitions[from][to] = Transition(other, look);
            if (other == look) Shown[to] = static_cast<Style>(from);
        }
    }
}

std::string Painter::Changes(const Canvas& shown, const Canvas& canvas) {
    Text.clear();
    PenX = canvas.Width();
    const std::vector<Change> changes = ChangesOf(shown, canvas);
    // Style by style, because going on to another place of the same style is shorter than another style.
    for (size_t i = 0; i < kStyleCount; ++i) {
        for (const Change& change : changes) {
            if (change.Look == static_cast<Style>(i)) Paint(canvas, change);
        }
    }
    TakeStyle(Style::Normal);
    return std::move(Text);
}

std::vector<Painter::Change> Painter::ChangesOf(const Canvas& shown, const Canvas& canvas) const {
    std::vector<Change> changes;
    Style previous = Style::Normal;
    for (int y = 0; y < canvas.Height(); ++y) {
        for (int x = 0; x < canvas.Width(); ++x) {
            const Cell& cell = canvas.At(x, y);
            if (cell.Glyph == 0 || LookTheSame(cell, shown.At(x, y))) continue;
            // A blank is written together with what is beside it.
            if (!LookTheSame(cell, {cell.Glyph, previous})) previous = Shown[Index(cell.Look)];
            changes.push_back({x, y, previous});
        }
    }
    // Writing to the last cell would scroll some terminals.
    const bool bLastCellScrolls = auto_right_margin && !eat_newline_glitch;
    const bool bLastCell =
        !changes.empty() && changes.back().Y + 1 == canvas.Height() && changes.back().X + 1 == canvas.Width();
    if (bLastCellScrolls && bLastCell) changes.pop_back();
    return changes;
}

bool Painter::LookTheSame(const Cell& a, const Cell& b) const {
    const bool bBlank = a.Glyph == L' ' && !MarksBlanks[Index(a.Look)] && !MarksBlanks[Index(b.Look)];
    return a.Glyph == b.Glyph && (Shown[Index(a.Look)] == Shown[Index(b.Look)] || bBlank);
}

void Painter::Paint(const Canvas& canvas, const Change& change) {
    TakeStyle(change.Look);
    MoveTo(canvas, change.X, change.Y);
    AppendInLocale(canvas.At(change.X, change.Y).Glyph, &Text);
    const bool bWide = change.X + 1 < canvas.Width() && canvas.At(change.X + 1, change.Y).Glyph == 0;
    PenX += bWide ? 2 : 1;
}

void Painter::MoveTo(const Canvas& canvas, int x, int y) {
    if (y == PenY && x == PenX) return;
    std::string shortest = ControlSequence(tiparm(cursor_address, y, x));
    // After the last column, the place of the pen is not known.
    if (PenX < canvas.Width() && y >= PenY) {
        for (const std::string& way : {StepsTo(x, y), AgainTo(canvas, x, y)}) {
            if (!way.empty() && way.size() < shortest.size()) shortest = way;
        }
    }
    Text += shortest;
    PenX = x;
    PenY = y;
}

/// Down and to the side; empty where the terminal cannot.
std::string Painter::StepsTo(int x, int y) const {
    if (parm_right_cursor == nullptr || carriage_return == nullptr || cursor_down == nullptr) return {};
    std::string steps;
    for (int row = PenY; row < y; ++row) steps += ControlSequence(cursor_down);
    if (x < PenX) steps += ControlSequence(carriage_return);
    const int right = x < PenX ? x : x - PenX;
    return right == 0 ? steps : steps + ControlSequence(tiparm(parm_right_cursor, right));
}

/// What is shown up to there, written again; empty where that needs another style.
std::string Painter::AgainTo(const Canvas& canvas, int x, int y) const {
    std::string again;
    for (int column = PenX; y == PenY && column < x; ++column) {
        const Cell& cell = canvas.At(column, y);
        if (!LookTheSame(cell, {cell.Glyph, PenStyle})) return {};
        if (cell.Glyph != 0) AppendInLocale(cell.Glyph, &again);
    }
    return again;
}

void Painter::TakeStyle(Style style) {
    Text += Transitions[Index(PenStyle)][Index(style)];
    PenStyle = style;
}
