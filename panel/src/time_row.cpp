#include "time_row.h"

#include <string>

#include "imgui.h"
#include "look.h"
#include "plot_frame.h"

namespace gpu_panel {

namespace {

/// The length has this much room, so that the buttons beside it stay where they are.
constexpr const char* kLongestText = "16 h 40 min";

bool RowButton(const char* label, const char* help) {
    SameLineIfRoomFor(ButtonWidth(label));
    const bool bPressed = ImGui::SmallButton(label);
    if (ImGui::IsItemHovered()) ImGui::SetTooltip("%s", help);
    return bPressed;
}

void DrawLength(double seconds) {
    const std::string text = ShortDuration(seconds + 0.5);
    const ImVec2 room = ImGui::CalcTextSize(kLongestText);
    SameLineIfRoomFor(room.x);
    const ImVec2 start = ImGui::GetCursorScreenPos();
    const float left = start.x + (room.x - ImGui::CalcTextSize(text.c_str()).x) / 2.0F;
    ImGui::GetWindowDrawList()->AddText(ImVec2(left, start.y), ImGui::GetColorU32(ImGuiCol_Text), text.c_str());
    ImGui::Dummy(room);
}

}  // namespace

void DrawTimeRow(TimeAxis* axis) {
    ImGui::PushID(axis);
    ImGui::TextUnformatted("Plots");
    if (RowButton("-", "shorter (wheel over a plot)")) axis->Step(-1);
    DrawLength(axis->Length());
    if (RowButton("+", "longer (wheel over a plot)")) axis->Step(1);
    if (RowButton("All", "the whole history")) axis->ShowAll();
    const bool bFollows = axis->IsFollowing();
    ImGui::BeginDisabled(bFollows);
    if (RowButton("Follow", "the present again (double click on a plot)")) axis->Follow();
    ImGui::EndDisabled();
    const char* const state = bFollows ? "following" : "paused view";
    SameLineIfRoomFor(ImGui::CalcTextSize(state).x);
    const Palette palette = CurrentPalette();
    ImGui::PushStyleColor(ImGuiCol_Text, bFollows ? palette.Dim : palette.Warning);
    ImGui::TextUnformatted(state);
    ImGui::PopStyleColor();
    ImGui::PopID();
}

}  // namespace gpu_panel
