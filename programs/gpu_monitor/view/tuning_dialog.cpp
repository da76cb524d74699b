#include "view/tuning_dialog.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "text/change_text.h"
#include "text/text_layout.h"
#include "text/tuning_format.h"

using namespace gpu_feed;

namespace {

using Kind = TuningChange::Kind;

/// Graphics clocks that are listed on either side of the chosen one.
constexpr int kNeighbours = 3;
constexpr int kClockWidth = 18;

constexpr const char* kNoRights =
    "This program lacks root's rights (CAP_SYS_ADMIN), so the driver will probably refuse changes.";

std::string RunningText(const GpuClockCapabilities& clocks) {
    return "Running " + ClocksText(clocks.CurrentGraphicsClockMHz, clocks.CurrentMemoryClockMHz);
}

/// What the program has set and not taken back; null when there is nothing.
const TuningRecord* OutstandingRecord(const FeedData& data, const TuningDialog& dialog, TuningControl control) {
    const TuningRecord* record = data.FindTuning(dialog.Gpu->Key, control);
    return record == nullptr || !record->IsOutstanding() ? nullptr : record;
}

// ---- The way back ----

/// What the change will go back to, as far as is known before it is made; empty when there is no way back.
std::optional<TuningChange> WayBack(const FeedData& data, const TuningDialog& dialog) {
    const TuningChange& change = dialog.Change;
    if (change.Control() == TuningControl::Power) return PowerWayBack(change, dialog.Power);
    if (const TuningRecord* record = OutstandingRecord(data, dialog, TuningControl::Clocks)) return record->InForce;
    return change.What == Kind::ResetClocks ? std::nullopt : std::optional(TuningChange{Kind::ResetClocks});
}

std::string WayBackText(const FeedData& data, const TuningDialog& dialog) {
    const std::optional<TuningChange> back = WayBack(data, dialog);
    if (!back) return "There is no way back: what is in force now cannot be set again.";
    if (*back == dialog.Change) return "That is in force already.";
    const bool bExact = dialog.Change.Control() == TuningControl::Clocks || PowerUndo(dialog.Power).has_value();
    return "Then you are asked whether to keep it. Without an answer within 10 s it goes back to: " +
           OutcomeText(*back) + '.' + (bExact ? "" : " What is in force now cannot be set again.");
}

// ---- Stages ----

Dialog WaitDialog(const FeedMoment& moment, const std::string& what, const char* keys) {
    Dialog dialog = {"", {{what + " ..."}}, keys};
    if (moment.DriverSilence >= 1.0) {
        dialog.Lines.push_back({DriverSilenceText(moment.DriverSilence), Style::Warning});
    }
    return dialog;
}

Dialog MenuDialog(const FeedMoment& moment, const TuningDialog& dialog) {
    const GpuPowerCapabilities& power = dialog.Power;
    DialogLines lines;
    // Simulated GPUs ask for no rights.
    if (!dialog.bRights && !moment.bSimulated) lines = {{kNoRights, Style::Warning}, {""}};
    const auto beginPart = [&](const char* title, const std::string& can, TuningControl control) {
        lines.push_back({title, Style::Title});
        lines.push_back({can});
        const TuningRecord* record = OutstandingRecord(*moment.Data, dialog, control);
        if (record != nullptr) lines.push_back({"Changed here: " + OutcomeText(record->InForce), Style::Warning});
    };
    beginPart("Clocks", dialog.Clocks.CanControl ? "Can be locked." : "Cannot be locked: " + dialog.Clocks.Status,
              TuningControl::Clocks);
    if (dialog.Clocks.CanControl) {
        lines.push_back({RunningText(dialog.Clocks)});
        lines.push_back({"c  lock to a pair      r  release", Style::Strong});
    }
    lines.push_back({""});
    beginPart("Power limit", CanSetPower(dialog) ? "Can be set." : "Cannot be set: " + power.Status,
              TuningControl::Power);
    if (CanSetPower(dialog)) {
        lines.push_back({"In force " + WattsText(power.CurrentWatts) + ", default " + WattsText(power.DefaultWatts) +
                         ", range " + RangeText(power)});
        lines.push_back(
            {CanSetDefault(dialog) ? "p  set a limit         d  set the default" : "p  set a limit", Style::Strong});
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
    const GpuPowerCapabilities& power = dialog.Power;
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
    DialogLines lines = {
        {"This will " + ActionText(dialog.Change) + ", for every program that uses this GPU.", Style::Strong},
        {WayBackText(data, dialog)}};
    if (dialog.Change.What == Kind::LockClocks) {
        lines.push_back({"A lock that another program has set cannot be brought back: NVML does not show it."});
    }
    return {"", lines, "Enter applies   n or Esc back"};
}

Dialog KeepDialog(const FeedMoment& moment, const TuningDialog& dialog) {
    const TuningControl control = dialog.Change.Control();
    const TuningRecord* record = moment.Data->FindTuning(dialog.Gpu->Key, control);
    const double left = record == nullptr ? 0.0 : std::max(std::ceil(record->Deadline - moment.Now), 0.0);
    const std::string now = control == TuningControl::Clocks ? RunningText(dialog.Clocks)
                                                             : "In force " + WattsText(dialog.Power.CurrentWatts);
    DialogLines lines = {{"The driver took it: " + OutcomeText(dialog.Change) + '.'},
                         {dialog.bReadBack ? now : "Reading it back ...", Style::Strong},
                         {""},
                         {"Keep it? It goes back in " + Number(left, 0) + " s.", Style::Warning},
                         {"What is kept is asked about when you leave with q; Ctrl-C takes it back."}};
    if (record != nullptr && !record->Warning.empty()) lines.push_back({record->Warning, Style::Warning});
    return {"", lines, "y keep   n or Esc go back"};
}

Dialog DialogOf(const FeedMoment& moment, const TuningDialog& dialog) {
    const char* const kLeaving = "Ctrl-C leaves";
    switch (dialog.Stage) {
        case TuningStage::Asking: return WaitDialog(moment, "Asking what can be changed", "Esc closes");
        case TuningStage::Menu: return MenuDialog(moment, dialog);
        case TuningStage::ChoosingClocks: return ClockDialog(dialog.ChosenClocks);
        case TuningStage::ChoosingPower: return PowerDialog(dialog);
        case TuningStage::Confirming: return ConfirmDialog(*moment.Data, dialog);
        case TuningStage::Applying: return WaitDialog(moment, "Changing", kLeaving);
        case TuningStage::Keeping: return KeepDialog(moment, dialog);
        case TuningStage::TakingBack: return WaitDialog(moment, "Going back", kLeaving);
        case TuningStage::Message: return {"", dialog.Message, "Enter or Esc goes on"};
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

bool CanSetPower(const TuningDialog& dialog) {
    return dialog.Power.State == GpuCapabilityState::Supported;
}

bool CanSetDefault(const TuningDialog& dialog) {
    return CanSetPower(dialog) && dialog.Power.DefaultWatts > 0.0;
}
