#include "run/window_places.h"

#include <algorithm>

namespace {

// Widths in heights of a line.
constexpr float kSceneEms = 20.0F;
constexpr float kPanelEms = 40.0F;
constexpr float kLeastEmsForBoth = 50.0F;

}  // namespace

void WindowPlaces::Update() {
    const ImVec2 space = ImGui::GetIO().DisplaySize;
    const float em = ImGui::GetFontSize();
    const bool bSame = space.x == Space.x && space.y == Space.y && em == Em;
    When = bSame ? ImGuiCond_FirstUseEver : ImGuiCond_Always;
    if (bSame) return;
    Space = space;
    Em = em;
    const float gap = 0.6F * em;
    const ImVec2 room = {space.x - 2.0F * gap, space.y - 2.0F * gap};
    // Where there is no room for both, the scene's window is only its title, above the panel.
    bNarrow = space.x < kLeastEmsForBoth * em;
    ScenePlace = {gap, gap};
    SceneWidth = bNarrow ? room.x : kSceneEms * em;
    const float above = bNarrow ? ImGui::GetFrameHeight() + gap : 0.0F;
    const float beside = bNarrow ? 0.0F : SceneWidth + gap;
    PanelSize = {std::min(std::max(0.5F * space.x, kPanelEms * em), room.x - beside), room.y - above};
    PanelPlace = {space.x - PanelSize.x - gap, gap + above};
}

void WindowPlaces::PlaceScene() const {
    ImGui::SetNextWindowPos(ScenePlace, When);
    // As high as what it shows.
    ImGui::SetNextWindowSizeConstraints({SceneWidth, 0.0F}, {SceneWidth, PanelSize.y});
    ImGui::SetNextWindowCollapsed(bNarrow, When);
}

void WindowPlaces::PlacePanel() const {
    ImGui::SetNextWindowPos(PanelPlace, When);
    ImGui::SetNextWindowSize(PanelSize, When);
}
