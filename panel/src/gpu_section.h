#ifndef GPU_PANEL_GPU_SECTION_H
#define GPU_PANEL_GPU_SECTION_H

#include <memory>
#include <optional>
#include <string>

#include "gpu_facts.h"
#include "gpu_feed/feed_requests.h"
#include "gpu_plots.h"
#include "process_table.h"
#include "time_axis.h"
#include "tuning_section.h"

namespace gpu_panel {

/// Everything that a panel shows of one GPU.
class GpuSection {
public:
    /// As the constructor of `GpuPanel`.
    GpuSection(gpu_feed::FeedRequests* feed, std::string gpuKey, std::string simulateOption);

    const std::string& Key() const { return GpuKey; }

    /// To be called once per frame, before `Draw`. `gpu` has this key and is one of `moment.Data`.
    void Update(const gpu_feed::FeedMoment& moment, const std::shared_ptr<const gpu_feed::FeedGpu>& gpu);

    /// `bAlone`: this is the only GPU, which is always open. `bOpenAtFirst`: until the user decides.
    void Draw(const gpu_feed::FeedMoment& moment, TimeAxis* axis, bool bAlone, bool bOpenAtFirst);

private:
    bool DrawHeading(bool bAlone, bool bOpenAtFirst);
    void DrawBody(const gpu_feed::FeedMoment& moment, TimeAxis* axis);
    void DrawLimits();
    void DrawGauges();
    void DrawDetails();
    void DrawTuning(const gpu_feed::FeedMoment& moment);
    void DrawIdentity() const;

    gpu_feed::FeedRequests* const Feed;
    const std::string GpuKey;
    const std::string SimulateOption;
    std::shared_ptr<const gpu_feed::FeedGpu> Gpu;
    GpuFacts Facts;
    GpuPlots Plots;
    ProcessTable Processes;
    /// Since the user has opened it first: it asks the driver.
    std::optional<TuningSection> Tuning;
    bool bTuningOpen = false;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_GPU_SECTION_H
