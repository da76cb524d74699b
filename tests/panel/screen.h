#ifndef SCREEN_H
#define SCREEN_H

#include <algorithm>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "imgui.h"

/// \file
/// What a user of Dear ImGui sees, on a backend that draws nothing.

/// A text of the latest frame.
struct SeenText {
    std::string Text;
    /// In its first letter.
    ImVec2 Place;
    ImU32 Color;
};

/// Reads texts back from the triangles that ImGui gives a backend: a letter is where its picture in the font is used.
class TextReader {
public:
    TextReader() : Font(*ImGui::GetIO().Fonts->Fonts[0]) {
        for (const ImFontGlyph& glyph : Font.Glyphs) Glyphs[{glyph.U0, glyph.V0}] = &glyph;
    }

    std::vector<SeenText> Read() {
        const ImDrawData& data = *ImGui::GetDrawData();
        for (int list = 0; list < data.CmdListsCount; ++list) {
            for (const ImDrawCmd& command : data.CmdLists[list]->CmdBuffer) ReadCommand(*data.CmdLists[list], command);
        }
        return std::move(Texts);
    }

private:
    void ReadCommand(const ImDrawList& list, const ImDrawCmd& command) {
        const ImVec4& clip = command.ClipRect;
        for (unsigned int i = 0; i < command.ElemCount; i += 3) {
            const auto corner = [&](unsigned int n) -> const ImDrawVert& {
                const ImDrawIdx index = list.IdxBuffer[static_cast<int>(command.IdxOffset + i + n)];
                return list.VtxBuffer[static_cast<int>(command.VtxOffset + index)];
            };
            const ImDrawVert& first = corner(0);
            const auto glyph = Glyphs.find({first.uv.x, first.uv.y});
            // The first of a letter's two triangles has its upper edge.
            const bool bLetter = glyph != Glyphs.end() && corner(1).uv.y == first.uv.y;
            const bool bVisible =
                first.pos.x >= clip.x && first.pos.x < clip.z && first.pos.y >= clip.y && first.pos.y < clip.w;
            if (bLetter && bVisible) Add(*glyph->second, first);
        }
    }

    void Add(const ImFontGlyph& glyph, const ImDrawVert& corner) {
        const ImVec2 pen = {corner.pos.x - glyph.X0, corner.pos.y - glyph.Y0};
        const float gap = pen.x - Next.x;
        const bool bGoesOn = !Texts.empty() && pen.y == Next.y && gap > -1.0F && gap < 1.5F * Font.GetCharAdvance(' ');
        if (!bGoesOn) Texts.push_back({"", {pen.x + 2.0F, pen.y + 0.5F * Font.FontSize}, corner.col});
        if (bGoesOn && gap > 1.0F) Texts.back().Text += ' ';
        Texts.back().Text += static_cast<char>(glyph.Codepoint);
        Next = {pen.x + glyph.AdvanceX, pen.y};
    }

    const ImFont& Font;
    std::map<std::pair<float, float>, const ImFontGlyph*> Glyphs;
    std::vector<SeenText> Texts;
    /// Where the next letter of the latest text would be.
    ImVec2 Next;
};

/// The texts of the latest frame that contain `part`.
inline std::vector<SeenText> Seen(const std::string& part) {
    std::vector<SeenText> found;
    for (const SeenText& text : TextReader().Read()) {
        if (text.Text.find(part) != std::string::npos) found.push_back(text);
    }
    return found;
}

#endif  // SCREEN_H
