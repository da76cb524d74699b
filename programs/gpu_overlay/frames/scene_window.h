#ifndef GPU_OVERLAY_SCENE_WINDOW_H
#define GPU_OVERLAY_SCENE_WINDOW_H

#include <array>
#include <cstddef>
#include <string>

#include "gpu_profiler.h"

constexpr int kLeastLoad = 1;
constexpr int kMostLoad = 100;

/// What the user sets in the window.
struct SceneControls {
    /// From `kLeastLoad` to `kMostLoad`.
    int Load = kLeastLoad;
    bool bVsync = true;
};

/// The scene's own ImGui window: its controls and what the profiler has measured.
class SceneWindow {
public:
    /// `renderer` is what draws; `notice` is a sentence for the user, or empty.
    SceneWindow(std::string renderer, std::string notice);

    /// Draws into ImGui's current window. To be called once per frame.
    void Draw(SceneControls* controls);

private:
    void DrawFrameTimes();
    void DrawScopes() const;
    void DrawCounters() const;

    const std::string Renderer;
    const std::string Notice;
    GPUProfiler::FrameSnapshot Latest;
    bool bMeasured = false;
    /// GPU times of the latest frames in milliseconds; the oldest is at `Next`.
    std::array<float, 180> Times{};
    size_t Next = 0;
};

#endif  // GPU_OVERLAY_SCENE_WINDOW_H
