#include "outstanding.h"

#include <cmath>

#include "gpu_feed/tuning_text.h"
#include "imgui.h"
#include "look.h"

using namespace gpu_feed;

namespace gpu_panel {

namespace {

constexpr const char* kKeep = "Keep";
constexpr const char* kTakeBack = "Take back";
/// In font sizes.
constexpr float kGoesBackWidth = 10.0F;

}  // namespace

void OutstandingChange::Update(const TuningRecord& record, const char* prefix) {
    const bool bSame = GpuKey == record.GpuKey && InForce == record.InForce;
    if (!bSame || Text.empty()) Text = prefix + OutcomeText(record.InForce);
    GpuKey = record.GpuKey;
    InForce = record.InForce;
    Deadline = record.Deadline;
    Problem = record.Problem.empty() ? record.Warning : record.Problem;
}

void OutstandingChange::Draw(FeedRequests* feed, double now, bool bAsking) const {
    const TuningControl control = InForce.Control();
    ImGui::PushID(static_cast<int>(control));
    FittedText(ImGui::GetContentRegionAvail().x, CurrentPalette().Warning, Text);
    if (bAsking && Deadline > now) {
        SameLineIfRoomFor(ImGui::GetFontSize() * kGoesBackWidth + ButtonWidth(kKeep) + ButtonWidth(kTakeBack));
        ImGui::Text("goes back in %.0f s", std::ceil(Deadline - now));
        ImGui::SameLine();
        if (ImGui::SmallButton(kKeep)) feed->Keep(GpuKey, control);
        ImGui::SameLine();
    } else {
        SameLineIfRoomFor(ButtonWidth(kTakeBack));
    }
    // How it ends is seen in what is published.
    if (ImGui::SmallButton(kTakeBack)) static_cast<void>(feed->TakeBack(GpuKey, control));
    if (!Problem.empty()) Banner(CurrentPalette().Danger, Problem.c_str());
    ImGui::PopID();
}

}  // namespace gpu_panel
