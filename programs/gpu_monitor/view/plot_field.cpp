#include "view/plot_field.h"

#include <algorithm>
#include <cmath>

namespace {

int RowBetween(const Dot& from, const Dot& to, double column) {
    const double share = (column - from.Column) / (to.Column - from.Column);
    return from.Row + static_cast<int>(std::lround(share * (to.Row - from.Row)));
}

}  // namespace

void Trace::Touch(const Dot& dot) {
    if (dot.Column < 0.0 || dot.Column >= Width()) return;
    RowRange& range = Ranges[static_cast<size_t>(dot.Column)];
    range.First = std::min(range.First, dot.Row);
    range.Last = std::max(range.Last, dot.Row);
}

void Trace::Connect(const Dot& from, const Dot& to) {
    const int first = static_cast<int>(std::clamp(from.Column, -1.0, Width()));
    const int last = static_cast<int>(std::clamp(to.Column, -1.0, Width()));
    for (int column = first; column < last; ++column) {
        const int row = RowBetween(from, to, column);
        const int rise = RowBetween(from, to, column + 1) - row;
        Touch({static_cast<double>(column), row});
        // Neighbours share a steep rise, each up to the middle; where it is one row, their corners connect.
        if (rise == 0) continue;
        const int middle = row + rise / 2;
        Touch({static_cast<double>(column), middle});
        Touch({column + 1.0, middle + (rise > 0 ? 1 : -1)});
    }
}

Field::Field(const Area& place, bool bWithBraille)
    : Place(place),
      bBraille(bWithBraille),
      DotsAcross(bWithBraille ? 2 : 1),
      DotsDown(bWithBraille ? 4 : 3),
      Cells(static_cast<size_t>(place.Width) * static_cast<size_t>(place.Height)) {}

void Field::SetDot(int column, int row, Style look, bool bInFront) {
    // In Unicode's block of braille patterns, the lowest row has the highest bits.
    constexpr unsigned int kDots[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
    const int place = row / DotsDown * Place.Width + column / DotsAcross;
    DottedCell& cell = Cells[static_cast<size_t>(place)];
    if (cell.Dots == 0 || bInFront) cell.Look = look;
    cell.Dots |= kDots[row % DotsDown][column % DotsAcross];
}

void Field::Draw(const Trace& trace, Style look, bool bDashed) {
    for (int column = 0; column < DotColumns(); ++column) {
        const RowRange& range = trace.Columns()[static_cast<size_t>(column)];
        if (range.First > range.Last) continue;
        if (bDashed && column / DotsAcross % 2 == 1 && range.Last - range.First < DotsDown) continue;
        for (int row = range.First; row <= range.Last; ++row) SetDot(column, row, look, bDashed);
    }
}

wchar_t Field::Glyph(unsigned int dots) const {
    constexpr wchar_t kFirstBraillePattern = 0x2800;
    // By height, the lowest bit at the top.
    constexpr const wchar_t* kAscii = L" '-'.:.|";
    return bBraille ? static_cast<wchar_t>(kFirstBraillePattern + static_cast<wchar_t>(dots)) : kAscii[dots];
}

void Field::Show(Canvas* canvas) const {
    for (int i = 0; i < Place.Width * Place.Height; ++i) {
        const DottedCell& cell = Cells[static_cast<size_t>(i)];
        if (cell.Dots == 0) continue;
        canvas->PutGlyph(Place.X + i % Place.Width, Place.Y + i / Place.Width, Glyph(cell.Dots), cell.Look);
    }
}
