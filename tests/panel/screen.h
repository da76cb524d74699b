#ifndef SCREEN_H
#define SCREEN_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "imgui.h"

/// A text that ImGui has given its backend in the latest frame.
struct SeenText {
    std::string Text;
    /// In its first letter.
    ImVec2 Place;
    ImU32 Color;
};

/// What the user sees that contains `part`, read back from the corners of ImGui's triangles: a letter is where its
/// picture in the font is used. Nothing in the window may be scrolled away.
inline std::vector<SeenText> Seen(const std::string& part) {
    const ImFont& font = *ImGui::GetIO().Fonts->Fonts[0];
    std::map<std::pair<float, float>, const ImFontGlyph*> glyphs;
    for (const ImFontGlyph& glyph : font.Glyphs) glyphs[{glyph.U0, glyph.V0}] = &glyph;
    std::vector<SeenText> texts;
    // Where the next letter of the latest text would be.
    ImVec2 next;
    for (int list = 0; list < ImGui::GetDrawData()->CmdListsCount; ++list) {
        const ImVector<ImDrawVert>& corners = ImGui::GetDrawData()->CmdLists[list]->VtxBuffer;
        for (int i = 0; i + 1 < corners.Size; ++i) {
            const auto found = glyphs.find({corners[i].uv.x, corners[i].uv.y});
            if (found == glyphs.end() || corners[i + 1].uv.y != corners[i].uv.y) continue;
            const ImFontGlyph& glyph = *found->second;
            const ImVec2 pen = {corners[i].pos.x - glyph.X0, corners[i].pos.y - glyph.Y0};
            const float gap = pen.x - next.x;
            const bool bGoesOn = pen.y == next.y && gap > -1.0F && gap < 1.5F * font.GetCharAdvance(' ');
            if (!bGoesOn) texts.push_back({"", {pen.x + 2.0F, pen.y + 0.5F * font.FontSize}, corners[i].col});
            texts.back().Text += bGoesOn && gap > 1.0F ? " " : "";
            texts.back().Text += static_cast<char>(glyph.Codepoint);
            next = {pen.x + glyph.AdvanceX, pen.y};
        }
    }
    std::vector<SeenText> seen;
    for (const SeenText& text : texts) {
        if (text.Text.find(part) != std::string::npos) seen.push_back(text);
    }
    return seen;
}

#endif  // SCREEN_H
