#include "view/cut_text.h"

wchar_t CutMark(const Canvas& canvas) {
    return canvas.IsUnicode() ? L'\u2026' : L'~';
}

int PutCut(Canvas* canvas, const Area& area, const std::string& text, Style look) {
    if (area.Width <= 0) return area.X;
    if (ColumnsOf(text) <= area.Width) return canvas->Put(area.X, area.Y, text, look);
    const int end = canvas->Put(area.X, area.Y, text, look, area.Width - 1);
    canvas->PutGlyph(end, area.Y, CutMark(*canvas), look);
    return end + 1;
}

int WidthOfParts(const std::vector<StyledText>& parts) {
    int width = 0;
    for (const StyledText& part : parts) {
        if (!part.Text.empty()) width += (width == 0 ? 0 : 2) + ColumnsOf(part.Text);
    }
    return width;
}

int PutParts(Canvas* canvas, const Area& area, const std::vector<StyledText>& parts) {
    int x = area.X;
    for (const auto& [text, look] : parts) {
        const std::string separator = x > area.X ? ", " : "";
        if (text.empty() || x + ColumnsOf(separator) + ColumnsOf(text) > area.X + area.Width) continue;
        x = canvas->Put(x, area.Y, separator);
        x = canvas->Put(x, area.Y, text, look);
    }
    return x;
}
