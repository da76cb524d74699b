#ifndef GPU_MONITOR_PLOT_FIELD_H
#define GPU_MONITOR_PLOT_FIELD_H

#include <climits>
#include <cstddef>
#include <vector>

#include "view/canvas.h"

/// A place among the dots of a field of cells, or outside of it.
struct Dot {
    double Column;
    int Row;
};

/// The rows from `First` to `Last`; empty where `First` is behind `Last`.
struct RowRange {
    int First = INT_MAX;
    int Last = INT_MIN;
};

/// The dots of one curve. Each column has a range of them, so that the peaks of all its samples stay visible.
class Trace {
public:
    explicit Trace(int columns) : Ranges(static_cast<size_t>(columns)) {}

    const std::vector<RowRange>& Columns() const { return Ranges; }
    void Touch(const Dot& dot);
    void Connect(const Dot& from, const Dot& to);

private:
    double Width() const { return static_cast<double>(Ranges.size()); }

    std::vector<RowRange> Ranges;
};

/// The cells that curves are drawn in, each divided into dots.
class Field {
public:
    Field(const Area& place, bool bWithBraille);

    int DotColumns() const { return Place.Width * DotsAcross; }
    int DotRows() const { return Place.Height * DotsDown; }

    /// A dashed trace leaves out every other column of cells, except where it rises by a cell or more. It gives its
    /// look to the cells that it shares with another one.
    void Draw(const Trace& trace, Style look, bool bDashed);

    void Show(Canvas* canvas) const;

private:
    struct DottedCell {
        unsigned int Dots = 0;
        Style Look = Style::Normal;
    };

    void SetDot(int column, int row, Style look, bool bInFront);
    wchar_t Glyph(unsigned int dots) const;

    Area Place;
    bool bBraille;
    int DotsAcross;
    int DotsDown;
    std::vector<DottedCell> Cells;
};

#endif  // GPU_MONITOR_PLOT_FIELD_H
