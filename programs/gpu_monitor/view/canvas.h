#ifndef GPU_MONITOR_CANVAS_H
#define GPU_MONITOR_CANVAS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What a cell means; the terminal decides how that looks.
enum class Style : uint8_t {
    Normal,
    /// Frames, axes, and the part of a gauge that is empty.
    Frame,
    /// Values.
    Strong,
    Title,
    /// Of columns.
    Heading,
    /// The part of a gauge that is filled, and the curve of a plot.
    Bar,
    /// A power limit in force.
    Limit,
    /// What the user should notice.
    Warning,
    /// What can harm a GPU or its work, failures, and GPUs that give no data.
    Alarm,
    Selected,
};

constexpr size_t kStyleCount = static_cast<size_t>(Style::Selected) + 1;

/// Which characters a canvas may hold. Each set has those of the sets before it too.
enum class GlyphSet : uint8_t {
    Ascii,
    /// Frames and whole blocks, which the fonts of a Linux console have.
    Blocks,
    /// Braille and parts of blocks.
    Braille,
};

struct Cell {
    /// 0 in the second column of a wide character.
    wchar_t Glyph = L' ';
    Style Look = Style::Normal;

    friend bool operator==(const Cell& a, const Cell& b) { return a.Glyph == b.Glyph && a.Look == b.Look; }
};

/// A part of a canvas; cells outside the canvas are not drawn.
struct Area {
    int X = 0;
    int Y = 0;
    int Width = 0;
    int Height = 0;
};

/// Blank columns between neighbours in a row.
constexpr int kColumnGap = 2;

/// A grid of characters that a view is drawn on; a terminal shows it, or it is printed as text.
class Canvas {
public:
    Canvas(int width, int height, GlyphSet glyphs);

    int Width() const { return ColumnCount; }
    int Height() const { return RowCount; }
    bool IsUnicode() const { return Glyphs != GlyphSet::Ascii; }
    bool HasBraille() const { return Glyphs == GlyphSet::Braille; }
    Area Whole() const { return {0, 0, ColumnCount, RowCount}; }

    /// Draws one character, of one column, where it lies on the canvas.
    void PutGlyph(int x, int y, wchar_t glyph, Style look);

    /// Draws `text`, in the encoding of the locale, from `x` on, within `room` columns. Bytes that are no character,
    /// and characters that cannot be shown, become question marks. Result: the column behind the text.
    int Put(int x, int y, const std::string& text, Style look = Style::Normal, int room = kAllRoom);

    /// As `Put`, with the text ending before column `end`.
    void PutRight(int end, int y, const std::string& text, Style look = Style::Normal);

    void Clear(const Area& area);

    const Cell& At(int x, int y) const { return Cells[Place(x, y)]; }

    /// The characters alone, a line per row, without blanks at the ends of lines.
    std::string Text() const;

    static constexpr int kAllRoom = 1 << 20;

private:
    bool Contains(int x, int y) const { return x >= 0 && x < ColumnCount && y >= 0 && y < RowCount; }
    size_t Place(int x, int y) const {
        return static_cast<size_t>(y) * static_cast<size_t>(ColumnCount) + static_cast<size_t>(x);
    }

    int ColumnCount;
    int RowCount;
    GlyphSet Glyphs;
    std::vector<Cell> Cells;
};

/// Appends what stands for `glyph` in the encoding of the locale.
void AppendInLocale(wchar_t glyph, std::string* text);

/// How many columns `text` takes.
int ColumnsOf(const std::string& text);

/// Whether the locale can show what is beyond ASCII.
bool LocaleIsUnicode();

#endif  // GPU_MONITOR_CANVAS_H
