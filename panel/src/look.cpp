#include "look.h"

#include <algorithm>
#include <string_view>

namespace gpu_panel {

namespace {

constexpr const char* kDots = "...";

float GridGap() {
    return ImGui::GetFontSize() * 1.5F;
}

bool IsDark(const ImVec4& color) {
    return 0.3F * color.x + 0.6F * color.y + 0.1F * color.z < 0.5F;
}

}  // namespace

Palette CurrentPalette() {
    const ImU32 text = ImGui::GetColorU32(ImGuiCol_Text);
    const ImU32 dim = ImGui::GetColorU32(ImGuiCol_Text, 0.62F);
    const ImU32 track = ImGui::GetColorU32(ImGuiCol_Text, 0.13F);
    if (IsDark(ImGui::GetStyleColorVec4(ImGuiCol_WindowBg))) {
        return {text,
                dim,
                track,
                IM_COL32(79, 156, 232, 255),
                IM_COL32(86, 196, 140, 255),
                IM_COL32(240, 173, 64, 255),
                IM_COL32(242, 107, 96, 255)};
    }
    return {text,
            dim,
            track,
            IM_COL32(21, 101, 192, 255),
            IM_COL32(23, 127, 70, 255),
            IM_COL32(168, 92, 0, 255),
            IM_COL32(190, 32, 32, 255)};
}

ImU32 WithAlpha(ImU32 color, float alpha) {
    ImVec4 parts = ImGui::ColorConvertU32ToFloat4(color);
    parts.w *= alpha;
    return ImGui::ColorConvertFloat4ToU32(parts);
}

float PutFitted(ImVec2 position, float width, ImU32 color, std::string_view text) {
    ImDrawList* const list = ImGui::GetWindowDrawList();
    const char* const begin = text.data();
    const char* end = begin + text.size();
    const float whole = ImGui::CalcTextSize(begin, end).x;
    if (whole <= width) {
        list->AddText(position, color, begin, end);
        return position.x + whole;
    }
    const float dots = ImGui::CalcTextSize(kDots).x;
    const float room = width - dots;
    if (room <= 0.0F) return position.x;
    const float size = ImGui::GetFontSize();
    const float kept = ImGui::GetFont()->CalcTextSizeA(size, room, 0.0F, begin, end, &end).x;
    list->AddText(position, color, begin, end);
    list->AddText({position.x + kept, position.y}, color, kDots);
    return position.x + kept + dots;
}

void FittedText(float width, ImU32 color, std::string_view text) {
    const ImVec2 position = ImGui::GetCursorScreenPos();
    const float end = PutFitted(position, width, color, text);
    ImGui::Dummy({end - position.x, ImGui::GetTextLineHeight()});
}

void Banner(ImU32 color, const char* text) {
    const ImGuiStyle& style = ImGui::GetStyle();
    const float edge = ImGui::GetFontSize() * 0.25F;
    const ImVec2 from = ImGui::GetCursorScreenPos();
    const float width = ImGui::GetContentRegionAvail().x;
    const ImVec2 inset = {edge + style.FramePadding.x * 2.0F, style.FramePadding.y * 1.5F};
    const float textWidth = std::max(width - 2.0F * inset.x, ImGui::GetFontSize());
    const ImVec2 size = ImGui::CalcTextSize(text, nullptr, false, textWidth);
    const ImVec2 to = {from.x + width, from.y + size.y + 2.0F * inset.y};
    ImDrawList* const list = ImGui::GetWindowDrawList();
    list->AddRectFilled(from, to, WithAlpha(color, 0.16F), style.FrameRounding);
    list->AddRectFilled(from, {from.x + edge, to.y}, color, style.FrameRounding);
    list->AddText(ImGui::GetFont(), ImGui::GetFontSize(), {from.x + inset.x, from.y + inset.y},
                  ImGui::GetColorU32(ImGuiCol_Text), text, nullptr, textWidth);
    ImGui::Dummy({width, to.y - from.y});
}

float ChipWidth(std::string_view word) {
    return ImGui::CalcTextSize(word.data(), word.data() + word.size()).x + ImGui::GetFontSize() * 0.8F;
}

void Chip(ImU32 color, std::string_view word) {
    const ImVec2 from = ImGui::GetCursorScreenPos();
    const ImVec2 to = {from.x + ChipWidth(word), from.y + ImGui::GetTextLineHeight()};
    const float height = to.y - from.y;
    ImDrawList* const list = ImGui::GetWindowDrawList();
    list->AddRectFilled(from, to, WithAlpha(color, 0.22F), height * 0.3F);
    list->AddText({from.x + ImGui::GetFontSize() * 0.4F, from.y}, color, word.data(), word.data() + word.size());
    ImGui::Dummy({to.x - from.x, height});
}

void SameLineIfRoomFor(float width) {
    const float right = ImGui::GetCursorScreenPos().x + ImGui::GetContentRegionAvail().x;
    if (ImGui::GetItemRectMax().x + ImGui::GetStyle().ItemSpacing.x + width <= right) ImGui::SameLine();
}

float ButtonWidth(const char* label) {
    return ImGui::CalcTextSize(label, nullptr, true).x + 2.0F * ImGui::GetStyle().FramePadding.x;
}

Grid::Grid(int count, float leastWidth, float cellHeight)
    : Origin(ImGui::GetCursorScreenPos()), Height(cellHeight), Count(count) {
    const float gap = GridGap();
    const float available = ImGui::GetContentRegionAvail().x;
    const int most = std::clamp(static_cast<int>((available + gap) / (leastWidth + gap)), 1, count);
    // Rows of the same length where possible: as few rows, and then as few columns, as there is room for.
    const int rows = (count + most - 1) / most;
    Columns = (count + rows - 1) / rows;
    Width = std::max((available + gap) / static_cast<float>(Columns) - gap, 1.0F);
}

Grid::~Grid() {
    const int rows = (Count + Columns - 1) / Columns;
    ImGui::Dummy({ImGui::GetContentRegionAvail().x, static_cast<float>(rows) * Height});
}

ImVec2 Grid::Next() {
    const float gap = GridGap();
    const int column = Placed % Columns;
    const int row = Placed / Columns;
    ++Placed;
    return {Origin.x + static_cast<float>(column) * (Width + gap), Origin.y + static_cast<float>(row) * Height};
}

}  // namespace gpu_panel
