#ifndef GPU_PANEL_GPU_PANEL_H
#define GPU_PANEL_GPU_PANEL_H

#include <memory>

#include "gpu_feed/monitor_feed.h"

namespace gpu_panel {

/// Shows the GPUs of a feed with Dear ImGui.
class GpuPanel {
public:
    explicit GpuPanel(gpu_feed::MonitorFeed* feed);
    ~GpuPanel();

    GpuPanel(const GpuPanel&) = delete;
    GpuPanel& operator=(const GpuPanel&) = delete;

    /// Draws into ImGui's current window. To be called once per frame.
    void Draw();

private:
    gpu_feed::MonitorFeed* const Feed;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_GPU_PANEL_H
