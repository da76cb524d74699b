#include "gpu_plots.h"

namespace gpu_panel {

void GpuPlots::Draw(const gpu_feed::FeedGpu& gpu, const gpu_feed::FeedMoment& moment, TimeAxis* axis) {
    static_cast<void>(gpu);
    static_cast<void>(moment);
    static_cast<void>(axis);
}

}  // namespace gpu_panel
