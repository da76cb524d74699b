#include "run/retry.h"

#include <algorithm>

using namespace gpu_feed;

bool BackOff::IsDue(double now) {
    if (NextTry == 0.0) NextTry = now + Wait;
    if (now < NextTry) return false;
    Wait = std::min(2.0 * Wait, Longest);
    NextTry = now + Wait;
    return true;
}

RetryStep Retry::Next(const FeedMoment& moment) {
    // A try is in progress, or the feed waits for a cycle. Nothing is known before that has ended.
    if (moment.DriverSilence > 0.0) return RetryStep::None;
    const FeedData& data = *moment.Data;
    if (data.State == FeedState::Unavailable) {
        return Unavailable.IsDue(moment.Now) ? RetryStep::Resume : RetryStep::None;
    }
    if (data.State != FeedState::Sampling) return RetryStep::None;
    Unavailable.Reset();
    const auto isIn = [&](GpuState state) {
        return [&moment, state](const auto& gpu) { return StateOf(moment, *gpu) == state; };
    };
    if (std::any_of(data.Gpus.begin(), data.Gpus.end(), isIn(GpuState::Live))) Silent.Reset();
    if (!std::all_of(data.Gpus.begin(), data.Gpus.end(), isIn(GpuState::NoData))) return RetryStep::None;
    return Silent.IsDue(moment.Now) ? RetryStep::Rescan : RetryStep::None;
}
