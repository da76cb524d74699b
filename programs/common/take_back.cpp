#include "common/take_back.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <iostream>
#include <memory>
#include <vector>

#include "common/failure.h"
#include "common/left_driver.h"
#include "common/signals.h"
#include "gpu_feed/clock.h"
#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_text.h"

using namespace gpu_feed;

namespace {

using std::chrono::milliseconds;

constexpr auto kLookForStop = milliseconds(100);
/// How long taking back may last at least, and in sampling periods: a cycle of the sampler can come first.
constexpr double kLeastSeconds = 2.0;
constexpr double kLeastPeriods = 2.0;
constexpr double kUnknownPeriodSeconds = 6.0;

/// How long to wait for the driver, in seconds.
double PatienceWith(const FeedMoment& moment) {
    double patience = kLeastSeconds;
    if (IsDriverHanging(moment)) return patience;
    for (const auto& gpu : moment.Data->Gpus) {
        const bool bPeriodKnown = gpu->PeriodSeconds > 0.0;
        patience = std::max(patience, bPeriodKnown ? kLeastPeriods * gpu->PeriodSeconds : kUnknownPeriodSeconds);
    }
    return patience;
}

std::future<TuningResult> RequestTakeAllBack(MonitorFeed* feed) {
    const std::vector<TuningRecord> records = OutstandingChanges(*feed->Latest());
    // Otherwise a cycle could come first.
    feed->Pause();
    std::future<TuningResult> answer = feed->TakeAllBack();
    for (const TuningRecord& record : records) {
        std::cerr << GpuInSentence(record.Device) << ": going back to: " << OutcomeText(record.Before) << " ...\n";
    }
    return answer;
}

/// False: the driver has not answered, or the user has asked again for an end.
bool WaitForAnswer(const std::future<TuningResult>& answer, double patienceSeconds) {
    const double deadline = NowSeconds() + patienceSeconds;
    while (!HasFurtherStopCome() && NowSeconds() < deadline) {
        if (answer.wait_for(kLookForStop) == std::future_status::ready) return true;
    }
    return answer.wait_for(milliseconds(0)) == std::future_status::ready;
}

}  // namespace

int TakeChangesBack(MonitorFeed* feed, const std::string& simulateOption) {
    // A second signal must not end the program without a message.
    ExpectFurtherStop();
    const std::future<TuningResult> answer = RequestTakeAllBack(feed);
    const bool bAnswered = WaitForAnswer(answer, PatienceWith(feed->Moment()));
    const std::shared_ptr<const FeedData> data = feed->Latest();
    const std::vector<TuningRecord> left = OutstandingChanges(*data);
    for (const TuningRecord& record : data->Tuning) {
        if (!record.IsOutstanding() && !record.Warning.empty()) std::cerr << record.Warning << '\n';
    }
    if (!bAnswered) StopFeed(feed, milliseconds(0));
    for (const TuningRecord& record : left) {
        std::cerr << GpuInSentence(record.Device)
                  << ": did not go back: " << (bAnswered ? record.Problem : "The driver has not answered.") << '\n';
        const std::string again = TryAgainText(record, record.Before, simulateOption);
        if (!again.empty()) std::cerr << again << '\n';
    }
    return left.empty() ? kExitSuccess : kExitFailure;
}

void LeaveChanges(MonitorFeed* feed, const std::string& simulateOption) {
    for (const TuningRecord& record : OutstandingChanges(*feed->Latest())) {
        std::cerr << GpuInSentence(record.Device) << ": kept: " << OutcomeText(record.InForce)
                  << "\nTo undo it: " << CommandOf(record.Before, record.Device.Index, simulateOption) << '\n';
    }
    const std::string problem = feed->LeaveChanges();
    if (!problem.empty()) std::cerr << problem << '\n';
}
