#include "view/dialog.h"

#include <algorithm>

#include "text/text_layout.h"

namespace {

constexpr int kTextWidth = 66;
/// The frame and a blank on either side.
constexpr int kSides = 4;

struct FrameGlyphs {
    wchar_t Horizontal;
    wchar_t Vertical;
    wchar_t TopLeft;
    wchar_t TopRight;
    wchar_t BottomLeft;
    wchar_t BottomRight;
};

FrameGlyphs GlyphsFor(const Canvas& canvas) {
    if (canvas.IsUnicode()) return {L'\u2500', L'\u2502', L'\u256D', L'\u256E', L'\u2570', L'\u256F'};
    return {L'-', L'|', L'+', L'+', L'+', L'+'};
}

void DrawFrame(Canvas* canvas, const Area& box) {
    const FrameGlyphs glyphs = GlyphsFor(*canvas);
    const int right = box.X + box.Width - 1;
    const int bottom = box.Y + box.Height - 1;
    for (int x = box.X; x <= right; ++x) {
        canvas->PutGlyph(x, box.Y, glyphs.Horizontal, Style::Title);
        canvas->PutGlyph(x, bottom, glyphs.Horizontal, Style::Title);
    }
    for (int y = box.Y; y <= bottom; ++y) {
        canvas->PutGlyph(box.X, y, glyphs.Vertical, Style::Title);
        canvas->PutGlyph(right, y, glyphs.Vertical, Style::Title);
    }
    canvas->PutGlyph(box.X, box.Y, glyphs.TopLeft, Style::Title);
    canvas->PutGlyph(right, box.Y, glyphs.TopRight, Style::Title);
    canvas->PutGlyph(box.X, bottom, glyphs.BottomLeft, Style::Title);
    canvas->PutGlyph(right, bottom, glyphs.BottomRight, Style::Title);
}

DialogLines WrappedLines(const DialogLines& lines, int width) {
    DialogLines wrapped;
    for (const DialogLine& line : lines) {
        for (const std::string& part : Wrapped(line.Text, static_cast<size_t>(width), line.Indent)) {
            wrapped.push_back({part, line.Look, line.Gauge});
        }
    }
    return wrapped;
}

/// At most `height` lines: those of the text that find room above the keys.
DialogLines AllLines(const Dialog& dialog, int width, int height) {
    DialogLines lines = WrappedLines(dialog.Lines, width);
    const DialogLines keys = WrappedLines({{""}, {dialog.Keys, Style::Normal}}, width);
    const int room = std::max(height - static_cast<int>(keys.size()), 0);
    lines.resize(std::min(lines.size(), static_cast<size_t>(room)));
    lines.insert(lines.end(), keys.begin(), keys.end());
    return lines;
}

}  // namespace

void DrawDialog(Canvas* canvas, const Dialog& dialog) {
    const int width = std::clamp(canvas->Width() - kSides, 1, kTextWidth);
    const DialogLines lines = AllLines(dialog, width, canvas->Height() - 2);
    const int height = static_cast<int>(lines.size());
    const Area box = {(canvas->Width() - width - kSides) / 2, std::max((canvas->Height() - height - 2) / 2, 0),
                      width + kSides, height + 2};
    canvas->Clear(box);
    DrawFrame(canvas, box);
    canvas->Put(box.X + 2, box.Y, ' ' + dialog.Title + ' ', Style::Title, width);
    for (int i = 0; i < height; ++i) {
        const DialogLine& line = lines[static_cast<size_t>(i)];
        const Area place = {box.X + 2, box.Y + 1 + i, width, 1};
        if (line.Gauge) {
            DrawPowerGauge(canvas, place, *line.Gauge);
        } else {
            canvas->Put(place.X, place.Y, line.Text, line.Look, width);
        }
    }
}
