#ifndef GPU_PANEL_GPU_PLOTS_H
#define GPU_PANEL_GPU_PLOTS_H

#include "gpu_feed/feed_data.h"
#include "time_axis.h"

namespace gpu_panel {

/// The plots of one GPU. Keeps what it has prepared of the history, so that a frame costs what it shows.
class GpuPlots {
public:
    /// Draws the plots below each other, as wide as the window's content. `axis` is shared by all GPUs.
    void Draw(const gpu_feed::FeedGpu& gpu, const gpu_feed::FeedMoment& moment, TimeAxis* axis);
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_GPU_PLOTS_H
