#ifndef GPU_PANEL_GPU_FACTS_H
#define GPU_PANEL_GPU_FACTS_H

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "outstanding.h"

namespace gpu_panel {

/// How much a value or a state needs attention.
enum class Tone { Quiet, Normal, Warning, Danger };

/// A value in words.
struct LabelledFact {
    const char* Label = "";
    std::string Value;
};

/// A value that is a part of a whole.
struct GaugeFact : LabelledFact {
    /// From 0 to 1; negative when it was not read.
    float Fraction = -1.0F;
    /// A limit of the value, likewise.
    float Mark = -1.0F;
    Tone Look = Tone::Normal;
};

/// A word with its tone.
struct TonedWord {
    std::string Word;
    Tone Look = Tone::Normal;
};

/// What is shown of one GPU, in words and fractions. Texts are written in place, so that once they have been as long as
/// they get, new values allocate nothing.
class GpuFacts {
public:
    static constexpr int kGaugeCount = 8;
    static constexpr int kDetailCount = 11;

    /// To be called once per frame; works only where something has changed. `gpu` is one of `moment.Data`.
    void Update(const gpu_feed::FeedMoment& moment, const std::shared_ptr<const gpu_feed::FeedGpu>& gpu);

    gpu_feed::GpuState State() const { return LatestState; }
    /// Whether the values are those of now. Otherwise they are the last known ones.
    bool IsCurrent() const;
    /// Whether there is any value to show.
    bool HasValues() const { return Shown->Latest.TimestampSeconds != 0.0; }

    std::string Title;
    std::string StateText;
    /// For the heading, in the order power, temperature, utilization; a dash for what was not read.
    std::array<std::string, 3> KeyFigures;
    float Utilization = 0.0F;
    std::array<GaugeFact, kGaugeCount> Gauges;
    std::array<LabelledFact, kDetailCount> Details;
    std::vector<TonedWord> Limits;
    /// What the program has changed and not taken back.
    std::vector<OutstandingChange> Outstanding;

private:
    void UpdateValues();
    void UpdateLimits();
    void UpdateState(const gpu_feed::FeedMoment& moment);
    void UpdateOutstanding(const gpu_feed::FeedData& data);

    std::shared_ptr<const gpu_feed::FeedGpu> Shown;
    std::shared_ptr<const gpu_feed::FeedData> Data;
    gpu_feed::GpuState LatestState = gpu_feed::GpuState::Starting;
    uint64_t LimitMask = 0;
    /// What `StateText` was made from.
    double StatePeriod = -1.0;
    double StateAge = -1.0;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_GPU_FACTS_H
