#ifndef GPU_OVERLAY_WINDOW_PLACES_H
#define GPU_OVERLAY_WINDOW_PLACES_H

#include <imgui.h>

/// Where ImGui's windows are: the scene's window on the left, the panel on the right. The user may move them, until the
/// size of the display or of texts changes.
class WindowPlaces {
public:
    /// To be called once per frame, before the others.
    void Update();
    /// Place the window that ImGui begins next.
    void PlaceScene() const;
    void PlacePanel() const;

private:
    ImVec2 Space;
    float Em = 0.0F;
    ImGuiCond When = ImGuiCond_Always;
    bool bNarrow = false;
    ImVec2 ScenePlace;
    float SceneWidth = 0.0F;
    ImVec2 PanelPlace;
    ImVec2 PanelSize;
};

#endif  // GPU_OVERLAY_WINDOW_PLACES_H
