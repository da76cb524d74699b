#include "view/canvas.h"

#include <langinfo.h>
#include <wchar.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>

namespace {

struct WideCharacter {
    wchar_t Glyph;
    int Columns;
};

constexpr WideCharacter kReplacement = {L'?', 1};

constexpr bool IsPrintableAscii(wchar_t glyph) {
    return glyph >= L' ' && glyph <= L'~';
}

/// The character at the beginning of `text`, of which its bytes are taken off. Most are of ASCII, as in every locale.
WideCharacter TakeCharacter(std::string_view* text) {
    wchar_t glyph = text->front();
    if (IsPrintableAscii(glyph)) {
        text->remove_prefix(1);
        return {glyph, 1};
    }
    mbstate_t state{};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): it has a state of its own.
    const size_t bytes = mbrtowc(&glyph, text->data(), text->size(), &state);
    const bool bCharacter = bytes > 0 && bytes <= text->size();
    text->remove_prefix(bCharacter ? bytes : 1);
    const int columns = bCharacter ? wcwidth(glyph) : -1;
    return columns >= 0 ? WideCharacter{glyph, columns} : kReplacement;
}

}  // namespace

Canvas::Canvas(int width, int height, GlyphSet glyphs)
    : ColumnCount(std::max(width, 0)),
      RowCount(std::max(height, 0)),
      Glyphs(glyphs),
      Cells(static_cast<size_t>(ColumnCount) * static_cast<size_t>(RowCount)) {}

void Canvas::PutGlyph(int x, int y, wchar_t glyph, Style look) {
    if (!Contains(x, y)) return;
    // Overwriting half of a wide character blanks the other half.
    if (Cells[Place(x, y)].Glyph == 0 && glyph != 0 && x > 0) Cells[Place(x - 1, y)].Glyph = L' ';
    if (x + 1 < ColumnCount && Cells[Place(x + 1, y)].Glyph == 0) Cells[Place(x + 1, y)].Glyph = L' ';
    Cells[Place(x, y)] = {glyph, look};
}

int Canvas::Put(int x, int y, const std::string& text, Style look, int room) {
    const int end = std::min(x + std::min(room, kAllRoom), ColumnCount);
    for (std::string_view rest = text; !rest.empty();) {
        const WideCharacter character = TakeCharacter(&rest);
        // Accents, for instance, are left out: a cell holds one character.
        if (character.Columns == 0) continue;
        if (x + character.Columns > end) break;
        PutGlyph(x, y, character.Glyph, look);
        for (int i = 1; i < character.Columns; ++i) PutGlyph(x + i, y, 0, look);
        x += character.Columns;
    }
    return x;
}

void Canvas::PutRight(int end, int y, const std::string& text, Style look) {
    Put(end - ColumnsOf(text), y, text, look);
}

void Canvas::Clear(const Area& area) {
    for (int y = area.Y; y < area.Y + area.Height; ++y) {
        for (int x = area.X; x < area.X + area.Width; ++x) PutGlyph(x, y, L' ', Style::Normal);
    }
}

std::string Canvas::Text() const {
    std::string text;
    for (int y = 0; y < RowCount; ++y) {
        std::string line;
        for (int x = 0; x < ColumnCount; ++x) {
            if (const wchar_t glyph = At(x, y).Glyph; glyph != 0) AppendInLocale(glyph, &line);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}

void AppendInLocale(wchar_t glyph, std::string* text) {
    if (IsPrintableAscii(glyph)) {
        *text += static_cast<char>(glyph);
        return;
    }
    char bytes[MB_LEN_MAX];
    mbstate_t state{};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): it has a state of its own.
    const size_t count = wcrtomb(bytes, glyph, &state);
    if (count == static_cast<size_t>(-1)) {
        *text += '?';
    } else {
        text->append(bytes, count);
    }
}

int ColumnsOf(const std::string& text) {
    int columns = 0;
    for (std::string_view rest = text; !rest.empty();) columns += TakeCharacter(&rest).Columns;
    return columns;
}

bool LocaleIsUnicode() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the locale is set once, before any thread runs.
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}
