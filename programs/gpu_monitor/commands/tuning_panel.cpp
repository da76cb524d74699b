#include "commands/tuning_panel.h"

#include <utility>

#include "view/keys.h"

using namespace gpu_feed;

namespace {

using Kind = TuningChange::Kind;
using Stage = TuningStage;

}  // namespace

TuningPanel::TuningPanel(FeedRequests* feed, const std::shared_ptr<const FeedGpu>& gpu, std::string simulateOption)
    : Shown{gpu, TuningFlow(feed, gpu->Key, std::move(simulateOption))} {}

void TuningPanel::OnTime() {
    // The latest answer stays while something is chosen from it.
    if (Shown.Stage != Stage::ChoosingClocks && Shown.Stage != Stage::ChoosingPower) Shown.Flow.Update();
}

// ---- Keys ----

void TuningPanel::OnKey(int key) {
    switch (Shown.Stage) {
        case Stage::InFlow: OnFlowKey(key); break;
        case Stage::ChoosingClocks: OnClockKey(key); break;
        case Stage::ChoosingPower: OnPowerKey(key); break;
        case Stage::Confirming: OnConfirmKey(key); break;
        case Stage::Closed: break;
    }
}

void TuningPanel::OnFlowKey(int key) {
    switch (Shown.Flow.Step()) {
        case TuningStep::Asking:
            if (key == EscapeKey) Shown.Stage = Stage::Closed;
            break;
        case TuningStep::Ready: OnMenuKey(key); break;
        case TuningStep::Keeping:
            if (key == 'y') Shown.Flow.Keep();
            if (key == 'n' || key == EscapeKey) Shown.Flow.TakeBack();
            break;
        case TuningStep::Ended:
            if (key == EnterKey || key == EscapeKey) Shown.Flow.Dismiss();
            break;
        // A change that is being made cannot be cancelled.
        case TuningStep::Applying:
        case TuningStep::TakingBack: break;
    }
}

void TuningPanel::OnMenuKey(int key) {
    const auto& [clocks, power, bRights] = Shown.Flow.Capabilities();
    if (key == EscapeKey || key == 't' || key == 'q') Shown.Stage = Stage::Closed;
    if (clocks.CanControl) {
        if (key == 'c') {
            Shown.ChosenClocks = ClockChoice(clocks);
            Shown.Stage = Stage::ChoosingClocks;
        }
        if (key == 'r') Confirm({Kind::ResetClocks});
    }
    if (key == 'p' && CanSetPower(power)) {
        Shown.ChosenPower = PowerChoice(power);
        Shown.Problem.clear();
        Shown.Stage = Stage::ChoosingPower;
    }
    if (key == 'd' && CanSetDefaultPower(power)) Confirm({Kind::ResetPower});
}

void TuningPanel::OnClockKey(int key) {
    if (key == EscapeKey) Shown.Stage = Stage::InFlow;
    if (key == EnterKey) Confirm({Kind::LockClocks, Shown.ChosenClocks.Pair()});
    Shown.ChosenClocks.OnKey(key);
}

void TuningPanel::OnPowerKey(int key) {
    if (key == EscapeKey) Shown.Stage = Stage::InFlow;
    Shown.Problem.clear();
    Shown.ChosenPower.OnKey(key);
    if (key == EnterKey) ChoosePower();
}

void TuningPanel::ChoosePower() {
    const GpuPowerCapabilities& power = Shown.Flow.Capabilities().Power;
    const double watts = Shown.ChosenPower.Watts();
    Shown.Problem = WhyNotPower(watts, power);
    if (Shown.Problem.empty()) Confirm(PowerChangeTo(watts, power));
}

void TuningPanel::OnConfirmKey(int key) {
    if (key == EnterKey) Shown.Flow.Apply(Shown.Chosen);
    if (key == EnterKey || key == EscapeKey || key == 'n') Shown.Stage = Stage::InFlow;
}

void TuningPanel::Confirm(const TuningChange& change) {
    Shown.Chosen = change;
    Shown.Stage = Stage::Confirming;
}
