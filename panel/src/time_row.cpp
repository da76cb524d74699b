#include "time_row.h"

#include "imgui.h"
#include "plot_frame.h"

namespace gpu_panel {

namespace {

/// Goes on in the row, if `label` has room in it.
void ContinueRow(const char* label) {
    ImGui::SameLine();
    const float width = ImGui::CalcTextSize(label).x + 2.0F * ImGui::GetStyle().FramePadding.x;
    if (ImGui::GetContentRegionAvail().x < width) ImGui::NewLine();
}

bool RowButton(const char* label, const char* help) {
    ContinueRow(label);
    const bool bPressed = ImGui::SmallButton(label);
    if (ImGui::IsItemHovered()) ImGui::SetTooltip("%s", help);
    return bPressed;
}

}  // namespace

void DrawTimeRow(TimeAxis* axis) {
    ImGui::PushID(axis);
    ImGui::AlignTextToFramePadding();
    ImGui::TextUnformatted("Plots show");
    if (RowButton("-", "a shorter time (wheel over a plot)")) axis->Step(-1);
    const std::string span = ShortDuration(axis->Length() + 0.5);
    ContinueRow(span.c_str());
    ImGui::TextUnformatted(span.c_str());
    if (RowButton("+", "a longer time (wheel over a plot)")) axis->Step(1);
    if (RowButton("All", "the whole history")) axis->ShowAll();
    if (axis->IsFollowing()) {
        ContinueRow("following");
        ImGui::TextDisabled("following");
    } else {
        if (RowButton("Follow", "the present again (double click on a plot)")) axis->Follow();
        ContinueRow("paused view");
        ImGui::TextColored(ImGui::GetStyleColorVec4(ImGuiCol_PlotHistogram), "paused view");
    }
    ImGui::PopID();
}

}  // namespace gpu_panel
