#ifndef GPU_PANEL_TUNING_SECTION_H
#define GPU_PANEL_TUNING_SECTION_H

#include <cstddef>
#include <string>
#include <vector>

#include "gpu_feed/clock_groups.h"
#include "gpu_feed/tuning_flow.h"

namespace gpu_panel {

/// Lets the user change the clocks and the power limit of one GPU. Choosing changes nothing on the GPU; only buttons
/// do.
class TuningSection {
public:
    /// As the constructor of `TuningFlow`.
    TuningSection(gpu_feed::FeedRequests* feed, const std::string& gpuKey, const std::string& simulateOption)
        : Flow(feed, gpuKey, simulateOption) {}

    void Draw(const gpu_feed::FeedMoment& moment);

    /// Whether a change of this setting is being made here, up to its end. Other panels make changes, too.
    bool IsChanging(gpu_feed::TuningControl control) const;

private:
    void Prepare(double now);
    void PrepareClocks(const GpuClockCapabilities& clocks);
    void PreparePower(const GpuPowerCapabilities& power);

    void DrawStep(const gpu_feed::FeedMoment& moment);
    void DrawKeeping(const gpu_feed::FeedMoment& moment);
    void DrawEnding();
    void DrawClocks(const gpu_feed::FeedMoment& moment);
    void DrawMemoryClock();
    void DrawGraphicsClock();
    void DrawPower(const gpu_feed::FeedMoment& moment);
    /// A button that makes `change`; where `problem` is not empty it is disabled, and says why.
    void DrawApply(const char* label, const gpu_feed::FeedMoment& moment, const gpu_feed::TuningChange& change,
                   const std::string& problem = {});

    const std::vector<int>& GraphicsClocks() const { return Groups.at(Chosen.MemoryClockMHz); }
    /// The place of the chosen graphics clock, or of the one nearest to it.
    size_t GraphicsPlace() const;

    gpu_feed::TuningFlow Flow;

    // What the driver has answered, in words.
    bool bAnswered = false;
    std::vector<GpuClockPair> Pairs;
    gpu_feed::ClockGroups Groups;
    std::string ClocksLine;
    std::string PowerLine;
    /// Why the chosen power limit cannot be set.
    std::string PowerProblem;
    std::string StepLine;
    std::string ReadBackLine;
    /// When they were written, and in which step.
    double PreparedAt = 0.0;
    gpu_feed::TuningStep PreparedStep = gpu_feed::TuningStep::Asking;

    // What the user has chosen.
    GpuClockPair Chosen;
    double Watts = -1.0;

    /// What the latest hovered button does, and what it will go back to.
    gpu_feed::TuningChange HintFor{gpu_feed::TuningChange::Kind::ResetClocks};
    std::string Hint;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_TUNING_SECTION_H
