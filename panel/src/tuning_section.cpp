#include "tuning_section.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "gpu_feed/tuning_text.h"
#include "imgui.h"
#include "look.h"

using namespace gpu_feed;

namespace gpu_panel {

namespace {

using Kind = TuningChange::Kind;

/// Texts are written anew this often, because the flow asks the driver again meanwhile.
constexpr double kRefreshSeconds = 0.25;
/// In font sizes.
constexpr float kLabelWidth = 8.0F;
constexpr float kWidgetWidth = 18.0F;
constexpr float kTypedWidth = 10.0F;

void Wrapped(const std::string& text) {
    ImGui::PushTextWrapPos(0.0F);
    ImGui::TextUnformatted(text.data(), text.data() + text.size());
    ImGui::PopTextWrapPos();
}

void Wrapped(const std::string& text, ImU32 color) {
    ImGui::PushStyleColor(ImGuiCol_Text, color);
    Wrapped(text);
    ImGui::PopStyleColor();
}

/// A label before the next widget, or above it where there is no room, and the widget's width, which leaves room for
/// `others` beside it.
void LabelNext(const char* label, float others = 0.0F) {
    const float em = ImGui::GetFontSize();
    const float available = ImGui::GetContentRegionAvail().x;
    const bool bBeside = available >= (kLabelWidth + 0.5F * kWidgetWidth) * em;
    ImGui::AlignTextToFramePadding();
    ImGui::TextUnformatted(label);
    if (bBeside) ImGui::SameLine(ImGui::GetCursorPosX() + kLabelWidth * em);
    const float room = ImGui::GetContentRegionAvail().x - others;
    ImGui::SetNextItemWidth(std::clamp(room, em, kWidgetWidth * em));
}

/// "1500 MHz" in place.
using ClockText = std::array<char, 24>;

ClockText MegahertzText(int megahertz) {
    ClockText text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%d MHz", megahertz));
    return text;
}

}  // namespace

void TuningSection::Draw(const FeedMoment& moment) {
    Flow.Update();
    Prepare(moment.Now);
    if (!bAnswered) {
        ImGui::TextDisabled("Asking what can be changed ...");
        if (moment.DriverSilence >= 1.0) ImGui::TextDisabled("Waiting for the driver: %.0f s", moment.DriverSilence);
        return;
    }
    // Simulated GPUs ask for no rights.
    if (!Flow.Capabilities().bRights && !moment.bSimulated) Wrapped(kNoRights, CurrentPalette().Warning);
    DrawStep(moment);
    const bool bReady = Flow.Step() == TuningStep::Ready;
    ImGui::BeginDisabled(!bReady);
    DrawClocks(moment);
    ImGui::Spacing();
    DrawPower(moment);
    ImGui::EndDisabled();
}

bool TuningSection::IsChanging(TuningControl control) const {
    const TuningStep step = Flow.Step();
    return step != TuningStep::Ready && step != TuningStep::Ended && Flow.Change().Control() == control;
}

// ---- Texts ----

void TuningSection::Prepare(double now) {
    if (Flow.Step() == PreparedStep && now < PreparedAt + kRefreshSeconds) return;
    PreparedStep = Flow.Step();
    PreparedAt = now;
    if (PreparedStep == TuningStep::Ready) bAnswered = true;
    if (!bAnswered) return;
    PrepareClocks(Flow.Capabilities().Clocks);
    PreparePower(Flow.Capabilities().Power);
    StepLine = TakenText(Flow.Change());
    ReadBackLine = Flow.ReadBackText();
    Hint.clear();
}

void TuningSection::PrepareClocks(const GpuClockCapabilities& clocks) {
    ClocksLine = clocks.CanControl ? RunningText(clocks) : CanLockText(clocks);
    if (Pairs == clocks.SupportedPairs) return;
    const bool bFirst = Groups.empty();
    Pairs = clocks.SupportedPairs;
    Groups = GroupByMemoryClock(Pairs);
    if (Groups.empty()) return;
    // The choice begins with what runs.
    if (bFirst) Chosen = {clocks.CurrentGraphicsClockMHz, clocks.CurrentMemoryClockMHz};
    if (Groups.count(Chosen.MemoryClockMHz) == 0) Chosen.MemoryClockMHz = Groups.begin()->first;
    Chosen.GraphicsClockMHz = GraphicsClocks()[GraphicsPlace()];
}

void TuningSection::PreparePower(const GpuPowerCapabilities& power) {
    if (!CanSetPower(power)) {
        PowerLine = CanSetText(power);
        return;
    }
    PowerLine = PowerText(power);
    if (Watts < 0.0) Watts = power.CurrentWatts;
    PowerProblem = WhyNotPower(Watts, power);
}

size_t TuningSection::GraphicsPlace() const {
    return NearestPlace(GraphicsClocks(), Chosen.GraphicsClockMHz);
}

// ---- How far a change has come ----

void TuningSection::DrawStep(const FeedMoment& moment) {
    switch (Flow.Step()) {
        case TuningStep::Applying: ImGui::TextUnformatted("Changing ..."); break;
        case TuningStep::TakingBack: ImGui::TextUnformatted("Going back ..."); break;
        case TuningStep::Keeping: DrawKeeping(moment); break;
        case TuningStep::Ended: DrawEnding(); break;
        case TuningStep::Asking:
        case TuningStep::Ready: break;
    }
}

void TuningSection::DrawKeeping(const FeedMoment& moment) {
    const Palette palette = CurrentPalette();
    const double left = Flow.SecondsLeft(moment);
    Wrapped(StepLine, palette.Good);
    Wrapped(ReadBackLine);
    ImGui::PushStyleColor(ImGuiCol_PlotHistogram, palette.Warning);
    ImGui::ProgressBar(static_cast<float>(left / TuningFlow::kKeepSeconds), {-1.0F, ImGui::GetFontSize() * 0.3F}, "");
    ImGui::PopStyleColor();
    ImGui::AlignTextToFramePadding();
    ImGui::Text("Keep it? It goes back in %.0f s.", std::ceil(left));
    SameLineIfRoomFor(ButtonWidth("Keep") + ButtonWidth("Take back"));
    if (ImGui::Button("Keep")) Flow.Keep();
    ImGui::SameLine();
    if (ImGui::Button("Take back")) Flow.TakeBack();
}

void TuningSection::DrawEnding() {
    const TuningEnding& end = Flow.Ending();
    Wrapped(end.Sentence);
    if (!end.Problem.empty()) Wrapped(end.Problem, CurrentPalette().Danger);
    if (!end.Advice.empty()) Wrapped(end.Advice);
    if (ImGui::Button("OK")) Flow.Dismiss();
}

// ---- Choosing ----

void TuningSection::DrawApply(const char* label, const FeedMoment& moment, const TuningChange& change,
                              const std::string& problem) {
    ImGui::BeginDisabled(!problem.empty());
    if (ImGui::Button(label)) Flow.Apply(change);
    ImGui::EndDisabled();
    if (!ImGui::IsItemHovered(ImGuiHoveredFlags_AllowWhenDisabled)) return;
    if (Hint.empty() || HintFor != change) {
        HintFor = change;
        Hint = problem.empty() ? IntentText(change) + ' ' + Flow.WayBackText(*moment.Data, change) : problem;
    }
    ImGui::BeginTooltip();
    ImGui::PushTextWrapPos(ImGui::GetFontSize() * 26.0F);
    ImGui::TextUnformatted(Hint.data(), Hint.data() + Hint.size());
    ImGui::PopTextWrapPos();
    ImGui::EndTooltip();
}

void TuningSection::DrawClocks(const FeedMoment& moment) {
    ImGui::TextUnformatted("Clocks");
    Wrapped(ClocksLine, CurrentPalette().Dim);
    if (Groups.empty()) return;
    DrawMemoryClock();
    DrawGraphicsClock();
    DrawApply("Apply clocks", moment, {Kind::LockClocks, Chosen});
    ImGui::SameLine();
    DrawApply("Release clocks", moment, {Kind::ResetClocks});
}

void TuningSection::DrawMemoryClock() {
    LabelNext("Memory clock");
    if (!ImGui::BeginCombo("##memory", MegahertzText(Chosen.MemoryClockMHz).data())) return;
    for (const auto& [clock, graphicsClocks] : Groups) {
        const bool bChosen = clock == Chosen.MemoryClockMHz;
        if (ImGui::Selectable(MegahertzText(clock).data(), bChosen)) {
            Chosen.MemoryClockMHz = clock;
            Chosen.GraphicsClockMHz = GraphicsClocks()[GraphicsPlace()];
        }
        if (bChosen) ImGui::SetItemDefaultFocus();
    }
    ImGui::EndCombo();
}

void TuningSection::DrawGraphicsClock() {
    const std::vector<int>& clocks = GraphicsClocks();
    const int last = static_cast<int>(clocks.size()) - 1;
    int place = static_cast<int>(GraphicsPlace());
    const float arrow = ImGui::GetFrameHeight() + ImGui::GetStyle().ItemSpacing.x;
    LabelNext("Graphics clock", 2.0F * arrow);
    // The place in the list is what moves; its clock is what shows.
    ImGui::SliderInt("##graphics", &place, 0, last, MegahertzText(Chosen.GraphicsClockMHz).data(),
                     ImGuiSliderFlags_NoInput);
    ImGui::SameLine();
    if (ImGui::ArrowButton("##lower", ImGuiDir_Left)) --place;
    ImGui::SameLine();
    if (ImGui::ArrowButton("##higher", ImGuiDir_Right)) ++place;
    Chosen.GraphicsClockMHz = clocks[static_cast<size_t>(std::clamp(place, 0, last))];
}

void TuningSection::DrawPower(const FeedMoment& moment) {
    const GpuPowerCapabilities& power = Flow.Capabilities().Power;
    ImGui::TextUnformatted("Power limit");
    Wrapped(PowerLine, CurrentPalette().Dim);
    if (!CanSetPower(power)) return;
    const double before = Watts;
    LabelNext("Limit");
    ImGui::SliderScalar("##watts", ImGuiDataType_Double, &Watts, &power.MinimumWatts, &power.MaximumWatts, "%.0f W");
    SameLineIfRoomFor(kTypedWidth * ImGui::GetFontSize());
    ImGui::SetNextItemWidth(std::min(ImGui::GetContentRegionAvail().x, kTypedWidth * ImGui::GetFontSize()));
    ImGui::InputDouble("##typed", &Watts, 1.0, 10.0, "%g W");
    if (Watts != before) {
        PowerProblem = WhyNotPower(Watts, power);
        Hint.clear();
    }
    DrawApply("Apply limit", moment, PowerChangeTo(Watts, power), PowerProblem);
    if (!CanSetDefaultPower(power)) return;
    ImGui::SameLine();
    DrawApply("Default limit", moment, {Kind::ResetPower});
}

}  // namespace gpu_panel
