#ifndef GPU_PANEL_PLOT_DRAWING_H
#define GPU_PANEL_PLOT_DRAWING_H

#include <cstddef>
#include <vector>

#include "imgui.h"
#include "look.h"
#include "plot_table.h"

namespace gpu_panel {

/// What a curve shows in one column of pixels.
struct CurvePoint {
    float X;
    /// The highest and the lowest value; `Top` is above `Bottom` or at it.
    float Top;
    float Bottom;
    /// Whether a line leads here from the point before.
    bool bConnected;
};

/// Draws a curve, smoothed at its edges. Where points are side by side, it fills all that lies between their values.
void DrawCurve(ImDrawList* list, const std::vector<CurvePoint>& points, ImU32 color, float thickness);

/// Fills what is below a curve, fading towards `base`.
void FillBelow(ImDrawList* list, const std::vector<CurvePoint>& points, ImU32 color, float base);

// ---- Colors, for people with any color vision ----

ImU32 ColorOf(CurveRole role, const Palette& palette);
/// Of lines and areas behind curves; `strength` 1 is that of text.
ImU32 FaintColor(float strength);

// ---- Limiting reasons, by the number of their bit ----

constexpr size_t kReasonBits = 64;
ImU32 ColorOfReason(size_t bit, const Palette& palette);
const char* ReasonWord(size_t bit);

}  // namespace gpu_panel

#endif  // GPU_PANEL_PLOT_DRAWING_H
