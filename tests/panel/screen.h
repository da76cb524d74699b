#ifndef SCREEN_H
#define SCREEN_H

#include <cmath>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "imgui.h"

/// \file
/// What a user of Dear ImGui sees and does, on a backend that draws nothing.

/// A text of the latest frame, and the middle of its first letter.
struct SeenText {
    std::string Text;
    ImVec2 Place;
};

/// Reads the texts back from the triangles that ImGui gives a backend: each letter is where its picture is in the font.
inline std::vector<SeenText> SeenTexts() {
    const ImFont& font = *ImGui::GetIO().Fonts->Fonts[0];
    std::map<std::pair<float, float>, const ImFontGlyph*> glyphs;
    for (const ImFontGlyph& glyph : font.Glyphs) glyphs[{glyph.U0, glyph.V0}] = &glyph;
    std::vector<SeenText> texts;
    ImVec2 next;
    const ImDrawData& data = *ImGui::GetDrawData();
    for (int list = 0; list < data.CmdListsCount; ++list) {
        const ImDrawList& commands = *data.CmdLists[list];
        for (const ImDrawCmd& command : commands.CmdBuffer) {
            for (unsigned int i = 0; i < command.ElemCount; i += 3) {
                const ImDrawIdx* const corners = &commands.IdxBuffer[static_cast<int>(command.IdxOffset + i)];
                const ImDrawVert& first = commands.VtxBuffer[static_cast<int>(corners[0] + command.VtxOffset)];
                const ImDrawVert& second = commands.VtxBuffer[static_cast<int>(corners[1] + command.VtxOffset)];
                const auto found = glyphs.find({first.uv.x, first.uv.y});
                // The first triangle of a letter is along its upper edge.
                if (found == glyphs.end() || second.uv.y != first.uv.y) continue;
                const ImFontGlyph& glyph = *found->second;
                const ImVec4& clip = command.ClipRect;
                if (first.pos.x < clip.x || first.pos.x >= clip.z || first.pos.y < clip.y || first.pos.y >= clip.w)
                    continue;
                const ImVec2 pen = {first.pos.x - glyph.X0, first.pos.y - glyph.Y0};
                const float gap = pen.x - next.x;
                const bool bGoesOn =
                    !texts.empty() && pen.y == next.y && gap > -1.0F && gap < 1.5F * font.GetCharAdvance(' ');
                if (!bGoesOn) texts.push_back({"", {pen.x + 2.0F, pen.y + 0.5F * font.FontSize}});
                if (bGoesOn && gap > 1.0F) texts.back().Text += ' ';
                texts.back().Text += static_cast<char>(glyph.Codepoint);
                next = {pen.x + glyph.AdvanceX, pen.y};
            }
        }
    }
    return texts;
}

#endif  // SCREEN_H
