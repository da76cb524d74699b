#ifndef GPU_OVERLAY_OVERLAY_H
#define GPU_OVERLAY_OVERLAY_H

#include <chrono>
#include <string>
#include <vector>

#include "frames/window.h"

struct OverlayOptions {
    /// The loads of the scene, at least one. Without `FramesPerLoad`, the first is only where the slider begins.
    std::vector<int> Loads{1};
    /// Above 0: draws so many frames with each load into memory, and ends.
    int FramesPerLoad = 0;
    /// Gets the last frame as PNG; empty: no file.
    std::string ScreenshotPath;
    /// Gets what the run has measured as JSON; empty: no file.
    std::string ReportPath;
    std::chrono::milliseconds Interval{1000};
    PixelSize Size{1280, 800};
    /// How much larger than usual texts are; 0: as the desktop wants them.
    double Scale = 0.0;
    /// The option that simulates GPUs, as this run has it, or empty: for the commands that the user may type later.
    std::string SimulateOption;
};

/// Shows the scene and the panel until the user closes the window, a stop signal comes, or all frames are drawn.
/// Result: the exit status, which is a failure when something could not be restored. Throws `Failure`.
int RunOverlay(const OverlayOptions& options);

#endif  // GPU_OVERLAY_OVERLAY_H
