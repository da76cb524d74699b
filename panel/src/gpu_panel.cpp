#include "gpu_panel/gpu_panel.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "gpu_feed/reading_text.h"
#include "gpu_section.h"
#include "imgui.h"
#include "look.h"
#include "outstanding.h"
#include "time_axis.h"
#include "time_row.h"

using namespace gpu_feed;
using std::chrono::milliseconds;

namespace gpu_panel {

namespace {

struct IntervalChoice {
    milliseconds Interval;
    const char* Label;
};

constexpr IntervalChoice kIntervals[] = {
    {milliseconds(100), "100 ms"}, {milliseconds(200), "200 ms"}, {milliseconds(500), "500 ms"},
    {milliseconds(1000), "1 s"},   {milliseconds(2000), "2 s"},   {milliseconds(5000), "5 s"},
    {milliseconds(10000), "10 s"},
};

/// In font sizes.
constexpr float kIntervalWidth = 6.0F;

constexpr const char* kRescan = "Rescan";

/// What the button that ends or resumes sampling is called.
const char* PauseLabel(FeedState state) {
    return state == FeedState::Paused ? "Resume" : "Pause";
}

}  // namespace

/// Everything behind the panel's interface.
class GpuPanel::Content {
public:
    Content(FeedRequests* feed, std::string simulateOption) : Feed(feed), SimulateOption(std::move(simulateOption)) {}

    void Draw();

private:
    void TakeGpus(const FeedData& data);
    void TakeMissing(const FeedData& data);
    void DrawTop(const FeedMoment& moment);
    void DrawControls(const FeedMoment& moment);
    void DrawInterval(milliseconds interval);
    void DrawNotice(const FeedMoment& moment);
    void DrawUnavailable(const FeedData& data);

    FeedRequests* const Feed;
    const std::string SimulateOption;
    TimeAxis Axis;
    /// In the order of `FeedData::Gpus`.
    std::vector<std::unique_ptr<GpuSection>> Sections;
    /// Changes of GPUs that a rescan did not find any more.
    std::vector<OutstandingChange> Missing;
    /// What these were taken from.
    std::shared_ptr<const FeedData> Taken;
    /// `DriverSilenceText` of this many seconds.
    std::string SilenceLine;
    double SilenceSeconds = 0.0;
};

GpuPanel::GpuPanel(FeedRequests* feed, const std::string& simulateOption)
    : Drawn(std::make_unique<Content>(feed, simulateOption)) {}

GpuPanel::~GpuPanel() = default;

void GpuPanel::Draw() {
    // Panels in the same window are told apart.
    ImGui::PushID(this);
    Drawn->Draw();
    ImGui::PopID();
}

void GpuPanel::DrawWindow(const char* title, bool* open) {
    const float em = ImGui::GetFontSize();
    ImGui::SetNextWindowSize({44.0F * em, 56.0F * em}, ImGuiCond_FirstUseEver);
    if (ImGui::Begin(title, open)) Draw();
    ImGui::End();
}

void GpuPanel::Content::Draw() {
    const FeedMoment moment = Feed->Moment();
    const FeedData& data = *moment.Data;
    if (Taken != moment.Data) {
        Taken = moment.Data;
        TakeGpus(data);
        TakeMissing(data);
    }
    // Plots do not move while sampling is paused, so that the user can study them.
    Axis.Update(data.State == FeedState::Paused ? data.PausedAt : moment.Now);
    DrawTop(moment);
    DrawNotice(moment);
    for (size_t i = 0; i < Missing.size(); ++i) {
        ImGui::PushID(static_cast<int>(i));
        Missing[i].Draw(Feed, moment.Now, true);
        ImGui::PopID();
    }
    if (!Sections.empty()) DrawTimeRow(&Axis);
    const bool bAlone = Sections.size() == 1;
    for (size_t i = 0; i < Sections.size(); ++i) {
        Sections[i]->Update(moment, data.Gpus[i]);
        Sections[i]->Draw(moment, &Axis, bAlone, i == 0);
    }
}

/// Gives each GPU the section that it had before, or a new one.
void GpuPanel::Content::TakeGpus(const FeedData& data) {
    const auto isOf = [](const std::unique_ptr<GpuSection>& section, const std::shared_ptr<const FeedGpu>& gpu) {
        return section->Key() == gpu->Key;
    };
    if (std::equal(Sections.begin(), Sections.end(), data.Gpus.begin(), data.Gpus.end(), isOf)) return;
    std::vector<std::unique_ptr<GpuSection>> sections;
    for (const auto& gpu : data.Gpus) {
        const auto known = std::find_if(Sections.begin(), Sections.end(),
                                        [&](const auto& section) { return section && isOf(section, gpu); });
        sections.push_back(known != Sections.end() ? std::move(*known)
                                                   : std::make_unique<GpuSection>(Feed, gpu->Key, SimulateOption));
    }
    Sections = std::move(sections);
}

void GpuPanel::Content::TakeMissing(const FeedData& data) {
    Missing.clear();
    for (const TuningRecord& record : data.Tuning) {
        if (!record.IsOutstanding() || data.Find(record.GpuKey) != nullptr) continue;
        Missing.emplace_back().Update(record, (GpuInSentence(record.Device) + ": ").c_str());
    }
}

// ---- Top ----

void GpuPanel::Content::DrawTop(const FeedMoment& moment) {
    const FeedData& data = *moment.Data;
    const auto isLive = [&moment](const auto& gpu) {
        const GpuState state = StateOf(moment, *gpu);
        return state == GpuState::Live || state == GpuState::Paused;
    };
    const size_t count = data.Gpus.size();
    const auto live = static_cast<size_t>(std::count_if(data.Gpus.begin(), data.Gpus.end(), isLive));
    // Without a GPU there is nothing to control; the notice below says what can be done.
    if (count == 0) return;
    ImGui::AlignTextToFramePadding();
    ImGui::Text(count == 1 ? "%zu GPU" : "%zu GPUs", count);
    if (data.State == FeedState::Sampling && live < count) {
        ImGui::SameLine();
        ImGui::TextDisabled("%zu without data", count - live);
    }
    if (moment.bSimulated) {
        ImGui::SameLine();
        ImGui::SetCursorPosY(ImGui::GetCursorPosY() + ImGui::GetStyle().FramePadding.y);
        Chip(CurrentPalette().Accent, "simulated");
    }
    DrawControls(moment);
}

void GpuPanel::Content::DrawControls(const FeedMoment& moment) {
    const FeedState state = moment.Data->State;
    const float width = kIntervalWidth * ImGui::GetFontSize() + ButtonWidth(PauseLabel(state)) + ButtonWidth(kRescan) +
                        2.0F * ImGui::GetStyle().ItemSpacing.x;
    SameLineIfRoomFor(width + ImGui::GetFontSize());
    const float room = ImGui::GetContentRegionAvail().x;
    ImGui::SetCursorPosX(ImGui::GetCursorPosX() + std::max(room - width, 0.0F));
    DrawInterval(moment.Data->Interval);
    SameLineIfRoomFor(ButtonWidth(PauseLabel(state)));
    const bool bPaused = state == FeedState::Paused;
    ImGui::BeginDisabled(!bPaused && state != FeedState::Sampling);
    if (ImGui::Button(PauseLabel(state))) bPaused ? Feed->Resume() : Feed->Pause();
    ImGui::EndDisabled();
    SameLineIfRoomFor(ButtonWidth(kRescan));
    // One at a time: each would start NVML once more.
    ImGui::BeginDisabled(state == FeedState::Starting);
    if (ImGui::Button(kRescan)) Feed->Rescan();
    ImGui::EndDisabled();
    if (ImGui::IsItemHovered()) ImGui::SetTooltip("Looks anew for the driver and its GPUs.");
}

void GpuPanel::Content::DrawInterval(milliseconds interval) {
    // Another program part may have set an interval that is not offered here.
    std::array<char, 24> label{};
    static_cast<void>(std::snprintf(label.data(), label.size(), "%lld ms", static_cast<long long>(interval.count())));
    const char* shown = label.data();
    for (const IntervalChoice& choice : kIntervals) {
        if (choice.Interval == interval) shown = choice.Label;
    }
    ImGui::SetNextItemWidth(kIntervalWidth * ImGui::GetFontSize());
    const bool bOpen = ImGui::BeginCombo("##interval", shown);
    if (!bOpen && ImGui::IsItemHovered()) ImGui::SetTooltip("The time between two readings.");
    if (!bOpen) return;
    for (const IntervalChoice& choice : kIntervals) {
        if (ImGui::Selectable(choice.Label, choice.Interval == interval)) Feed->SetInterval(choice.Interval);
    }
    ImGui::EndCombo();
}

// ---- States of the whole ----

void GpuPanel::Content::DrawNotice(const FeedMoment& moment) {
    const FeedData& data = *moment.Data;
    const Palette palette = CurrentPalette();
    if (IsDriverHanging(moment)) {
        const double seconds = std::floor(moment.DriverSilence);
        if (seconds != SilenceSeconds) {
            SilenceSeconds = seconds;
            SilenceLine = DriverSilenceText(seconds) + " What is shown are the last known values.";
        }
        Banner(palette.Danger, SilenceLine.c_str());
    } else if (data.State == FeedState::Starting && data.Gpus.empty()) {
        ImGui::TextDisabled("Looking for GPUs%.*s", 1 + static_cast<int>(ImGui::GetTime() * 2.0) % 3, "...");
        if (moment.DriverSilence >= 1.0) ImGui::TextDisabled("The driver may take some seconds to load.");
    } else if (data.State == FeedState::Unavailable) {
        DrawUnavailable(data);
    } else if (data.State == FeedState::Paused) {
        Banner(palette.Warning, "Paused: values are from before the pause.");
    }
}

void GpuPanel::Content::DrawUnavailable(const FeedData& data) {
    Banner(CurrentPalette().Warning, data.Status.c_str());
    ImGui::PushTextWrapPos(0.0F);
    ImGui::TextDisabled("%s", "GPU readings need an NVIDIA GPU and its driver. Nothing else depends on them.");
    ImGui::PopTextWrapPos();
    if (ImGui::Button("Try again")) Feed->Rescan();
}

}  // namespace gpu_panel
