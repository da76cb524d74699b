#include "gpu_feed/tuning_flow.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_text.h"

namespace gpu_feed {

namespace {

using Kind = TuningChange::Kind;
using Step = TuningStep;

constexpr double kRefreshSeconds = 0.5;

template <typename Result>
bool IsReady(const std::future<Result>& answer) {
    return answer.valid() && answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

}  // namespace

TuningFlow::TuningFlow(FeedRequests* feed, std::string gpuKey, std::string simulateOption)
    : Feed(feed), GpuKey(std::move(gpuKey)), SimulateOption(std::move(simulateOption)) {
    Ask();
}

void TuningFlow::Ask() {
    RequestCapabilities();
    Now = Step::Asking;
}

void TuningFlow::RequestCapabilities() {
    CapabilityAnswer = Feed->QueryTuning(GpuKey);
    AskedAt = Feed->Moment().Now;
}

const TuningRecord* TuningFlow::RecordIn(const FeedMoment& moment) const {
    return moment.Data->FindTuning(GpuKey, Made.Control());
}

void TuningFlow::Update() {
    RefreshCapabilities();
    if (Now == Step::Applying && IsReady(Answer)) TakeResult(Answer.get());
    if (Now == Step::TakingBack && IsReady(Answer)) EndBack(Answer.get());
    if (Now == Step::Keeping) WatchDeadline();
}

void TuningFlow::RefreshCapabilities() {
    const bool bRefreshed = Now == Step::Ready || Now == Step::Keeping || Now == Step::Ended;
    if ((bRefreshed || Now == Step::Asking) && IsReady(CapabilityAnswer)) {
        Latest = CapabilityAnswer.get();
        bReadBack = Now == Step::Keeping;
        if (Now == Step::Asking) Now = Step::Ready;
    }
    const bool bDue = Feed->Moment().Now >= AskedAt + kRefreshSeconds;
    if (bRefreshed && bDue && !CapabilityAnswer.valid()) RequestCapabilities();
}

// ---- What the user decides ----

void TuningFlow::Apply(const TuningChange& change) {
    if (Now != Step::Ready) return;
    Made = change;
    Answer = Feed->Tune(GpuKey, change, kKeepSeconds);
    Now = Step::Applying;
}

void TuningFlow::Keep() {
    if (Now != Step::Keeping || SecondsLeft(Feed->Moment()) == 0.0) return;
    Feed->Keep(GpuKey, Made.Control());
    Ask();
}

void TuningFlow::TakeBack() {
    if (Now != Step::Keeping || SecondsLeft(Feed->Moment()) == 0.0) return;
    Answer = Feed->TakeBack(GpuKey, Made.Control());
    Now = Step::TakingBack;
}

void TuningFlow::Dismiss() {
    if (Now == Step::Ended) Ask();
}

// ---- What the feed answers ----

void TuningFlow::TakeResult(const TuningResult& result) {
    if (result.Result != GpuClockOperationResult::Success) {
        const std::string halfLock = HalfLockText(result.Half);
        const bool bNoRights = result.Result == GpuClockOperationResult::NoPermission;
        EndWith({TuningEnding::Kind::Refused, "The driver did not do it:",
                 result.Error + (halfLock.empty() ? "" : ' ' + halfLock), bNoRights ? kRightsAdvice : ""});
        return;
    }
    const FeedMoment moment = Feed->Moment();
    const TuningRecord* record = RecordIn(moment);
    if (record == nullptr || (record->Deadline == 0.0 && record->InForce == Made)) {
        EndWith({TuningEnding::Kind::Done, "Done: " + OutcomeText(Made) + '.'});
        return;
    }
    // An answer that is under way may be older than the change.
    RequestCapabilities();
    bReadBack = false;
    Now = Step::Keeping;
}

/// The feed takes the change back by itself, and another part of the interface may have kept it or taken it back.
void TuningFlow::WatchDeadline() {
    const FeedMoment moment = Feed->Moment();
    const TuningRecord* record = RecordIn(moment);
    if (record == nullptr || record->Deadline != 0.0) return;
    const bool bFailed = !record->Problem.empty();
    if (!bFailed && record->InForce == Made) {
        Ask();
        return;
    }
    EndBack({bFailed ? GpuClockOperationResult::Error : GpuClockOperationResult::Success, record->Problem});
}

void TuningFlow::EndBack(const TuningResult& result) {
    const FeedMoment moment = Feed->Moment();
    const TuningRecord* record = RecordIn(moment);
    if (record == nullptr || result.Result == GpuClockOperationResult::Success) {
        EndWith({TuningEnding::Kind::WentBack,
                 "It went back" + (record == nullptr ? "." : " to: " + OutcomeText(record->InForce) + '.')});
        return;
    }
    EndWith({TuningEnding::Kind::DidNotGoBack, "It could not go back:", result.Error,
             TryAgainText(*record, record->Previous, SimulateOption)});
}

void TuningFlow::EndWith(TuningEnding ending) {
    End = std::move(ending);
    Now = Step::Ended;
}

// ---- What the user reads ----

double TuningFlow::SecondsLeft(const FeedMoment& moment) const {
    const TuningRecord* record = RecordIn(moment);
    return record == nullptr ? 0.0 : std::max(record->Deadline - moment.Now, 0.0);
}

std::string TuningFlow::ReadBackText() const {
    if (!bReadBack) return "Reading it back ...";
    return Made.Control() == TuningControl::Clocks ? RunningText(Latest.Clocks)
                                                   : "In force " + WattsText(Latest.Power.CurrentWatts);
}

std::string TuningFlow::WayBackText(const FeedData& data, const TuningChange& change) const {
    const bool bClocks = change.Control() == TuningControl::Clocks;
    std::optional<TuningChange> back = PowerWayBack(change, Latest.Power);
    if (bClocks) {
        const TuningRecord* record = data.FindOutstanding(GpuKey, TuningControl::Clocks);
        back = record != nullptr                  ? std::optional(record->InForce)
               : change.What == Kind::ResetClocks ? std::nullopt
                                                  : std::optional(TuningChange{Kind::ResetClocks});
    }
    if (!back) return "There is no way back: what is in force now cannot be set again.";
    if (*back == change) return "That is in force already.";
    const bool bExact = bClocks || PowerUndo(Latest.Power).has_value();
    return "Then you are asked whether to keep it. Without an answer within " + Number(kKeepSeconds, 0) +
           " s it goes back to: " + OutcomeText(*back) + '.' +
           (bExact ? "" : " What is in force now cannot be set again.");
}

// ---- Power limits ----

std::string WhyNotPower(double watts, const GpuPowerCapabilities& capabilities) {
    if (!CanSetPower(capabilities)) return CanSetText(capabilities);
    if (!IsInRange(watts, capabilities)) return "This GPU takes " + RangeText(capabilities) + '.';
    return IsSameLimit(watts, capabilities.CurrentWatts) ? "This limit is in force already." : "";
}

TuningChange PowerChangeTo(double watts, const GpuPowerCapabilities& capabilities) {
    if (IsSameLimit(watts, capabilities.DefaultWatts)) return {Kind::ResetPower};
    return {Kind::SetPower, {}, watts};
}

}  // namespace gpu_feed
