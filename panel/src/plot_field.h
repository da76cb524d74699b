#ifndef GPU_PANEL_PLOT_FIELD_H
#define GPU_PANEL_PLOT_FIELD_H

#include "imgui.h"
#include "plot_frame.h"

namespace gpu_panel {

/// The part of a plot that shows curves or a band: a child window, because that keeps the wheel from scrolling the
/// host's window, and because buffers of 16-bit indices have room for one plot of any width, but not for all.
class PlotField {
public:
    /// Begins it, with its background and the lines of the time axis, and lets the user move the time axis.
    PlotField(const PlotFrame& frame, const char* name, ImVec2 corner, float height);
    /// Draws what marks the pointer's moment, and ends it.
    ~PlotField();

    PlotField(const PlotField&) = delete;
    PlotField& operator=(const PlotField&) = delete;

    /// Null when nothing of it can be seen.
    ImDrawList* List() const { return Drawing; }

private:
    void TakeInput();
    void DrawTimeLines();

    const PlotFrame& Frame;
    ImVec2 Corner;
    float Height;
    ImDrawList* Drawing = nullptr;
};

/// Draws the labels of the time axis below fields.
void DrawTimeLabels(const PlotFrame& frame, ImVec2 corner);

}  // namespace gpu_panel

#endif  // GPU_PANEL_PLOT_FIELD_H
