#include "view/gauge.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr int kEighths = 8;
constexpr wchar_t kFullBlock = L'\u2588';

struct GaugeGlyphs {
    wchar_t Empty;
    wchar_t Range;
    wchar_t Limit;
    wchar_t Default;
};

GaugeGlyphs GlyphsFor(const Canvas& canvas) {
    if (canvas.IsUnicode()) return {L'\u00B7', L'\u2591', L'\u2503', L'\u2506'};
    return {L'.', L'-', L'|', L':'};
}

void Fill(Canvas* canvas, const Area& area, double fraction) {
    const int eighths = static_cast<int>(std::lround(std::clamp(fraction, 0.0, 1.0) * area.Width * kEighths));
    const int full = eighths / kEighths;
    const int rest = eighths % kEighths;
    const wchar_t glyph = canvas->IsUnicode() ? kFullBlock : L'#';
    for (int i = 0; i < full; ++i) canvas->PutGlyph(area.X + i, area.Y, glyph, Style::Bar);
    // In Unicode, the blocks of seven eighths to one eighth follow the full block.
    if (rest > 0 && canvas->HasBraille()) {
        canvas->PutGlyph(area.X + full, area.Y, static_cast<wchar_t>(kFullBlock + kEighths - rest), Style::Bar);
    }
}

void Empty(Canvas* canvas, const Area& area, wchar_t glyph) {
    for (int i = 0; i < area.Width; ++i) canvas->PutGlyph(area.X + i, area.Y, glyph, Style::Frame);
}

/// The column of `watts`, which is not negative.
int ColumnOf(const Area& area, double watts, double highest) {
    const double place = std::min(watts / highest, 1.0) * area.Width;
    return area.X + std::min(static_cast<int>(place), area.Width - 1);
}

}  // namespace

void DrawGauge(Canvas* canvas, const Area& area, std::optional<double> fraction) {
    Empty(canvas, area, GlyphsFor(*canvas).Empty);
    if (fraction) Fill(canvas, area, *fraction);
}

void DrawPowerGauge(Canvas* canvas, const Area& area, const PowerLevels& levels) {
    const double highest = std::max({levels.Limit, levels.Default, levels.Maximum});
    DrawGauge(canvas, area, std::nullopt);
    if (highest <= 0.0 || area.Width <= 0) return;
    const GaugeGlyphs glyphs = GlyphsFor(*canvas);
    if (levels.Minimum >= 0.0) {
        const int first = ColumnOf(area, levels.Minimum, highest);
        Empty(canvas, {first, area.Y, ColumnOf(area, levels.Maximum, highest) - first + 1, 1}, glyphs.Range);
    }
    if (levels.Watts >= 0.0) Fill(canvas, area, levels.Watts / highest);
    if (levels.Default >= 0.0) {
        canvas->PutGlyph(ColumnOf(area, levels.Default, highest), area.Y, glyphs.Default, Style::Strong);
    }
    if (levels.Limit >= 0.0) {
        canvas->PutGlyph(ColumnOf(area, levels.Limit, highest), area.Y, glyphs.Limit, Style::Limit);
    }
}
