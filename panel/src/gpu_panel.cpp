#include "gpu_panel/gpu_panel.h"

namespace gpu_panel {

GpuPanel::GpuPanel(gpu_feed::MonitorFeed* feed) : Feed(feed) {}

GpuPanel::~GpuPanel() = default;

void GpuPanel::Draw() {
    static_cast<void>(Feed->Moment());
}

}  // namespace gpu_panel
