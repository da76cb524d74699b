#include "commands/tuning_panel.h"

#include <chrono>
#include <utility>

#include "text/change_text.h"
#include "text/tuning_format.h"
#include "view/keys.h"

using namespace gpu_feed;

namespace {

using Kind = TuningChange::Kind;
using Stage = TuningStage;

constexpr double kKeepSeconds = 10.0;
constexpr double kRefreshSeconds = 0.5;

template <typename Result>
bool IsReady(const std::future<Result>& answer) {
    return answer.valid() && answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

}  // namespace

TuningPanel::TuningPanel(FeedRequests* feed, std::shared_ptr<const FeedGpu> gpu, std::string simulateOption)
    : Feed(feed), SimulateOption(std::move(simulateOption)) {
    Shown.Gpu = std::move(gpu);
    Ask();
}

void TuningPanel::Ask() {
    RequestCapabilities();
    Shown.Stage = Stage::Asking;
}

void TuningPanel::RequestCapabilities() {
    CapabilityAnswer = Feed->QueryTuning(GpuKey());
    AskedAt = Feed->Moment().Now;
}

const TuningRecord* TuningPanel::RecordIn(const FeedMoment& moment) const {
    return moment.Data->FindTuning(GpuKey(), Shown.Change.Control());
}

// ---- Keys ----

void TuningPanel::OnKey(int key) {
    switch (Shown.Stage) {
        case Stage::Menu: OnMenuKey(key); break;
        case Stage::ChoosingClocks: OnClockKey(key); break;
        case Stage::ChoosingPower: OnPowerKey(key); break;
        case Stage::Confirming: OnConfirmKey(key); break;
        case Stage::Keeping: OnKeepKey(key); break;
        case Stage::Message:
            if (key == EnterKey || key == EscapeKey) Ask();
            break;
        case Stage::Asking:
            if (key == EscapeKey) Shown.Stage = Stage::Closed;
            break;
        // A change that is being made cannot be cancelled.
        case Stage::Applying:
        case Stage::TakingBack:
        case Stage::Closed: break;
    }
}

void TuningPanel::OnMenuKey(int key) {
    if (key == EscapeKey || key == 't' || key == 'q') Shown.Stage = Stage::Closed;
    if (Shown.Clocks.CanControl) {
        if (key == 'c') {
            Shown.ChosenClocks = ClockChoice(Shown.Clocks);
            Shown.Stage = Stage::ChoosingClocks;
        }
        if (key == 'r') Confirm({Kind::ResetClocks});
    }
    if (key == 'p' && CanSetPower(Shown)) {
        Shown.ChosenPower = PowerChoice(Shown.Power);
        Shown.Problem.clear();
        Shown.Stage = Stage::ChoosingPower;
    }
    if (key == 'd' && CanSetDefault(Shown)) Confirm({Kind::ResetPower});
}

void TuningPanel::OnClockKey(int key) {
    if (key == EscapeKey) Shown.Stage = Stage::Menu;
    if (key == EnterKey) Confirm({Kind::LockClocks, Shown.ChosenClocks.Pair()});
    Shown.ChosenClocks.OnKey(key);
}

void TuningPanel::OnPowerKey(int key) {
    if (key == EscapeKey) Shown.Stage = Stage::Menu;
    Shown.Problem.clear();
    Shown.ChosenPower.OnKey(key);
    if (key == EnterKey) ChoosePower();
}

void TuningPanel::ChoosePower() {
    const GpuPowerCapabilities& power = Shown.Power;
    const double watts = Shown.ChosenPower.Watts();
    if (!IsInRange(watts, power)) {
        Shown.Problem = "This GPU takes " + RangeText(power) + '.';
    } else if (IsSameLimit(watts, power.CurrentWatts)) {
        Shown.Problem = "This limit is in force already.";
    } else if (IsSameLimit(watts, power.DefaultWatts)) {
        Confirm({Kind::ResetPower});
    } else {
        Confirm({Kind::SetPower, {}, watts});
    }
}

void TuningPanel::OnConfirmKey(int key) {
    if (key == EnterKey) Apply();
    if (key == EscapeKey || key == 'n') Shown.Stage = Stage::Menu;
}

void TuningPanel::OnKeepKey(int key) {
    const FeedMoment moment = Feed->Moment();
    const TuningRecord* record = RecordIn(moment);
    // It goes back already.
    if (record == nullptr || record->Deadline <= moment.Now) return;
    if (key == 'y') {
        Feed->Keep(GpuKey(), Shown.Change.Control());
        Ask();
    }
    if (key == 'n' || key == EscapeKey) {
        Answer = Feed->TakeBack(GpuKey(), Shown.Change.Control());
        Shown.Stage = Stage::TakingBack;
    }
}

// ---- Changes ----

void TuningPanel::Confirm(const TuningChange& change) {
    Shown.Change = change;
    Shown.Stage = Stage::Confirming;
}

void TuningPanel::Apply() {
    Answer = Feed->Tune(GpuKey(), Shown.Change, kKeepSeconds);
    Shown.Stage = Stage::Applying;
}

void TuningPanel::OnTime() {
    RefreshCapabilities();
    if (Shown.Stage == Stage::Applying && IsReady(Answer)) TakeResult(Answer.get());
    if (Shown.Stage == Stage::TakingBack && IsReady(Answer)) ShowTakenBack(Answer.get());
    if (Shown.Stage == Stage::Keeping) WatchDeadline();
}

void TuningPanel::RefreshCapabilities() {
    const Stage stage = Shown.Stage;
    // The latest answer stays while something is chosen from it.
    const bool bRefreshed = stage == Stage::Menu || stage == Stage::Confirming || stage == Stage::Keeping;
    if ((bRefreshed || stage == Stage::Asking) && IsReady(CapabilityAnswer)) {
        auto [clocks, power, bRights] = CapabilityAnswer.get();
        Shown.Clocks = std::move(clocks);
        Shown.Power = std::move(power);
        Shown.bRights = bRights;
        Shown.bReadBack = stage == Stage::Keeping;
        if (stage == Stage::Asking) Shown.Stage = Stage::Menu;
    }
    const bool bDue = Feed->Moment().Now >= AskedAt + kRefreshSeconds;
    if (bRefreshed && bDue && !CapabilityAnswer.valid()) RequestCapabilities();
}

void TuningPanel::TakeResult(const TuningResult& result) {
    if (result.Result != GpuClockOperationResult::Success) {
        const std::string halfLock = HalfLockText(result.Half);
        DialogLines lines = {{"The driver did not do it:"},
                             {result.Error + (halfLock.empty() ? "" : ' ' + halfLock), Style::Alarm}};
        if (result.Result == GpuClockOperationResult::NoPermission) lines.push_back({kRightsAdvice});
        ShowMessage(lines);
        return;
    }
    const FeedMoment moment = Feed->Moment();
    const TuningRecord* record = RecordIn(moment);
    if (record == nullptr || (record->Deadline == 0.0 && record->InForce == Shown.Change)) {
        ShowMessage({{"Done: " + OutcomeText(Shown.Change) + '.'}});
        return;
    }
    // An answer that is under way may be older than the change.
    RequestCapabilities();
    Shown.bReadBack = false;
    Shown.Stage = Stage::Keeping;
}

/// The feed takes the change back by itself.
void TuningPanel::WatchDeadline() {
    const FeedMoment moment = Feed->Moment();
    const TuningRecord* record = RecordIn(moment);
    if (record == nullptr || record->Deadline != 0.0) return;
    const bool bFailed = !record->Problem.empty();
    ShowTakenBack({bFailed ? GpuClockOperationResult::Error : GpuClockOperationResult::Success, record->Problem});
}

void TuningPanel::ShowTakenBack(const TuningResult& result) {
    const FeedMoment moment = Feed->Moment();
    const TuningRecord* record = RecordIn(moment);
    if (record == nullptr || result.Result == GpuClockOperationResult::Success) {
        ShowMessage({{"It went back" + (record == nullptr ? "." : " to: " + OutcomeText(record->InForce) + '.')}});
        return;
    }
    ShowMessage({{"It could not go back:"},
                 {result.Error, Style::Alarm},
                 {"To try again: " + CommandOf(record->Previous, Shown.Gpu->Device.Index, SimulateOption)}});
}

void TuningPanel::ShowMessage(DialogLines lines) {
    Shown.Message = std::move(lines);
    Shown.Stage = Stage::Message;
}
