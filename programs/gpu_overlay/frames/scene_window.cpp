#include "frames/scene_window.h"

#include <imgui.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace {

constexpr float kPlotLines = 3.0F;
constexpr ImGuiTableFlags kTwoColumns = ImGuiTableFlags_SizingStretchProp;

/// A row of a table with two columns: a name, and `value`, which ends at the right edge.
void DrawRow(const char* name, int depth, const char* value) {
    ImGui::TableNextColumn();
    ImGui::SetCursorPosX(ImGui::GetCursorPosX() + static_cast<float>(depth) * ImGui::GetFontSize());
    ImGui::TextUnformatted(name);
    ImGui::TableNextColumn();
    const float space = ImGui::GetContentRegionAvail().x - ImGui::CalcTextSize(value).x;
    ImGui::SetCursorPosX(ImGui::GetCursorPosX() + std::max(0.0F, space));
    ImGui::TextUnformatted(value);
}

void DrawTime(const char* name, int depth, double milliseconds) {
    char value[32] = "-";
    if (milliseconds > 0.0) std::snprintf(value, sizeof value, "%.2f ms", milliseconds);
    DrawRow(name, depth, value);
}

}  // namespace

SceneWindow::SceneWindow(std::string renderer, std::string notice)
    : Renderer(std::move(renderer)), Notice(std::move(notice)) {}

void SceneWindow::Draw(SceneControls* controls) {
    const uint64_t before = Latest.FrameNumber;
    bMeasured = GPUProfiler::Get()->GetLatestSnapshot(&Latest);
    if (bMeasured && Latest.FrameNumber != before) {
        Times[Next] = static_cast<float>(Latest.GpuFrameTimeMs);
        Next = (Next + 1) % Times.size();
    }
    if (!Notice.empty()) ImGui::TextWrapped("%s", Notice.c_str());
    ImGui::TextDisabled("%s", Renderer.c_str());
    ImGui::SetNextItemWidth(-ImGui::CalcTextSize("Load ").x);
    ImGui::SliderInt("Load", &controls->Load, kLeastLoad, kMostLoad, "%d", ImGuiSliderFlags_AlwaysClamp);
    ImGui::Checkbox("Wait for the display", &controls->bVsync);
    if (!bMeasured) return;
    DrawFrameTimes();
    DrawScopes();
    DrawCounters();
}

void SceneWindow::DrawFrameTimes() {
    ImGui::Separator();
    ImGui::PushItemWidth(-1.0F);
    ImGui::PlotLines("##frames", Times.data(), static_cast<int>(Times.size()), static_cast<int>(Next), nullptr, 0.0F,
                     *std::max_element(Times.begin(), Times.end()) * 1.2F,
                     ImVec2(0.0F, kPlotLines * ImGui::GetFontSize()));
    ImGui::PopItemWidth();
}

void SceneWindow::DrawScopes() const {
    if (!ImGui::BeginTable("times", 2, kTwoColumns)) return;
    char framesPerSecond[32];
    std::snprintf(framesPerSecond, sizeof framesPerSecond, "%.1f", static_cast<double>(ImGui::GetIO().Framerate));
    DrawRow("Frames per second", 0, framesPerSecond);
    DrawTime("GPU", 0, Latest.GpuFrameTimeMs);
    for (const GPUProfiler::ScopeTime& scope : Latest.Scopes) DrawTime(scope.Name, scope.Depth + 1, scope.GpuTimeMs);
    DrawTime("CPU", 0, Latest.CpuFrameTimeMs);
    ImGui::EndTable();
}

void SceneWindow::DrawCounters() const {
    if (Latest.Counters.empty() || !ImGui::BeginTable("counters", 2, kTwoColumns)) return;
    for (const GPUProfiler::CounterValue& counter : Latest.Counters) {
        char value[32];
        std::snprintf(value, sizeof value, "%.0f", counter.Value);
        DrawRow(counter.Name, 0, value);
    }
    ImGui::EndTable();
}
