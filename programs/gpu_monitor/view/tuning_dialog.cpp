#include "view/tuning_dialog.h"

#include <cmath>

#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_text.h"
#include "text/text_layout.h"
#include "view/dialog.h"

using namespace gpu_feed;

namespace {

using Kind = TuningChange::Kind;

/// Graphics clocks that are listed on either side of the chosen one.
constexpr int kNeighbours = 3;
constexpr int kClockWidth = 18;

// ---- Stages ----

Dialog WaitDialog(const FeedMoment& moment, const std::string& what, const char* keys) {
    Dialog dialog = {"", {{what + " ..."}}, keys};
    if (moment.DriverSilence >= 1.0) {
        dialog.Lines.push_back({DriverSilenceText(moment.DriverSilence), Style::Warning});
    }
    return dialog;
}

Dialog MenuDialog(const FeedMoment& moment, const TuningDialog& dialog) {
    const auto& [clocks, power, bRights] = dialog.Flow.Capabilities();
    DialogLines lines;
    // Simulated GPUs ask for no rights.
    if (!bRights && !moment.bSimulated) lines = {{kNoRights, Style::Warning}, {""}};
    const auto beginPart = [&](const char* title, const std::string& can, TuningControl control) {
        lines.push_back({title, Style::Title});
        lines.push_back({can});
        const TuningRecord* record = moment.Data->FindOutstanding(dialog.Gpu->Key, control);
        if (record != nullptr) lines.push_back({"Changed here: " + OutcomeText(record->InForce), Style::Warning});
    };
    beginPart("Clocks", CanLockText(clocks), TuningControl::Clocks);
    if (clocks.CanControl) {
        lines.push_back({RunningText(clocks)});
        lines.push_back({"c  lock to a pair      r  release", Style::Strong});
    }
    lines.push_back({""});
    beginPart("Power limit", CanSetText(power), TuningControl::Power);
    if (CanSetPower(power)) {
        lines.push_back({PowerText(power)});
        lines.push_back({CanSetDefaultPower(power) ? "p  set a limit         d  set the default" : "p  set a limit",
                         Style::Strong});
    }
    return {"", lines, "Esc, t or q closes"};
}

Dialog ClockDialog(const ClockChoice& choice) {
    DialogLines lines = {
        {"Memory    " + std::to_string(choice.Pair().MemoryClockMHz) + " MHz (" +
             std::to_string(choice.MemoryNumber()) + " of " + std::to_string(choice.MemoryCount()) + ')',
         Style::Strong},
        {"Graphics"}};
    const std::vector<int>& clocks = choice.GraphicsClocks();
    for (int offset = kNeighbours; offset >= -kNeighbours; --offset) {
        const std::ptrdiff_t place = static_cast<std::ptrdiff_t>(choice.ChosenPlace()) + offset;
        const bool bListed = place >= 0 && place < static_cast<std::ptrdiff_t>(clocks.size());
        const std::string clock = bListed ? std::to_string(clocks[static_cast<size_t>(place)]) + " MHz" : "";
        lines.push_back({Right(clock, kClockWidth), offset == 0 ? Style::Selected : Style::Normal});
    }
    return {"", lines, "Up Down graphics   Left Right memory   Enter chooses   Esc back"};
}

Dialog PowerDialog(const TuningDialog& dialog) {
    const GpuPowerCapabilities& power = dialog.Flow.Capabilities().Power;
    const double watts = dialog.ChosenPower.Watts();
    const PowerLevels levels = {watts, watts, power.DefaultWatts, power.MinimumWatts, power.MaximumWatts};
    return {"",
            {{"Limit  " + dialog.ChosenPower.Text() + " W", Style::Strong},
             {"", Style::Normal, levels},
             {"Range " + RangeText(power) + ", default " + WattsText(power.DefaultWatts)},
             {dialog.Problem, Style::Alarm}},
            "Arrows 1 W   PgUp PgDn 10 W   or type it   Enter chooses   Esc back"};
}

Dialog ConfirmDialog(const FeedData& data, const TuningDialog& dialog) {
    DialogLines lines = {{IntentText(dialog.Chosen), Style::Strong}, {dialog.Flow.WayBackText(data, dialog.Chosen)}};
    if (dialog.Chosen.What == Kind::LockClocks) {
        lines.push_back({"A lock that another program has set cannot be brought back: NVML does not show it."});
    }
    return {"", lines, "Enter applies   n or Esc back"};
}

Dialog KeepDialog(const FeedMoment& moment, const TuningFlow& flow) {
    const TuningRecord* record = flow.RecordIn(moment);
    DialogLines lines = {
        {TakenText(flow.Change())},
        {flow.ReadBackText(), Style::Strong},
        {""},
        {"Keep it? It goes back in " + Number(std::ceil(flow.SecondsLeft(moment)), 0) + " s.", Style::Warning},
        {"What is kept is asked about when you leave with q; Ctrl-C takes it back."}};
    if (record != nullptr && !record->Warning.empty()) lines.push_back({record->Warning, Style::Warning});
    return {"", lines, "y keep   n or Esc go back"};
}

Dialog EndDialog(const TuningEnding& ending) {
    DialogLines lines = {{ending.Sentence}};
    if (!ending.Problem.empty()) lines.push_back({ending.Problem, Style::Alarm});
    if (!ending.Advice.empty()) lines.push_back({ending.Advice});
    return {"", lines, "Enter or Esc goes on"};
}

Dialog FlowDialog(const FeedMoment& moment, const TuningDialog& dialog) {
    const char* const kLeaving = "Ctrl-C leaves";
    switch (dialog.Flow.Step()) {
        case TuningStep::Asking: return WaitDialog(moment, "Asking what can be changed", "Esc closes");
        case TuningStep::Ready: return MenuDialog(moment, dialog);
        case TuningStep::Applying: return WaitDialog(moment, "Changing", kLeaving);
        case TuningStep::Keeping: return KeepDialog(moment, dialog.Flow);
        case TuningStep::TakingBack: return WaitDialog(moment, "Going back", kLeaving);
        case TuningStep::Ended: break;
    }
    return EndDialog(dialog.Flow.Ending());
}

Dialog DialogOf(const FeedMoment& moment, const TuningDialog& dialog) {
    switch (dialog.Stage) {
        case TuningStage::InFlow: return FlowDialog(moment, dialog);
        case TuningStage::ChoosingClocks: return ClockDialog(dialog.ChosenClocks);
        case TuningStage::ChoosingPower: return PowerDialog(dialog);
        case TuningStage::Confirming: return ConfirmDialog(*moment.Data, dialog);
        case TuningStage::Closed: break;
    }
    return {};
}

}  // namespace

void DrawTuning(Canvas* canvas, const FeedMoment& moment, const TuningDialog& dialog) {
    Dialog content = DialogOf(moment, dialog);
    content.Title = "Tune " + GpuTitle(dialog.Gpu->Device);
    DrawDialog(canvas, content);
}
