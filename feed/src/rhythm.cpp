#include "rhythm.h"

#include <algorithm>

namespace gpu_feed {

namespace {

/// How long after the expected start of a cycle to look. The sampler has begun its cycle by then, and the look waits
/// for the rest of it: a snapshot holds all of a cycle.
constexpr double kMarginSeconds = 0.005;
/// The wait after a look that found nothing new; each further such look doubles it.
constexpr double kFirstRetrySeconds = 0.01;

}  // namespace

Rhythm::Rhythm(std::chrono::milliseconds interval)
    : IntervalSeconds(std::chrono::duration<double>(interval).count()), RetrySeconds(kFirstRetrySeconds) {}

double Rhythm::AfterStart(double now) const {
    return now + kMarginSeconds;
}

double Rhythm::AfterNewSample(double newest, double periodSeconds, double now) {
    RetrySeconds = kFirstRetrySeconds;
    // The cycle has ended by now, so the next one starts within the interval. That bounds the guess when the last two
    // samples lie far apart because the process was suspended.
    const double latestStart = now + IntervalSeconds;
    return (periodSeconds == 0.0 ? latestStart : std::min(latestStart, newest + periodSeconds)) + kMarginSeconds;
}

double Rhythm::AfterNothing(double now) {
    const double next = now + RetrySeconds;
    RetrySeconds = std::min(RetrySeconds * 2.0, IntervalSeconds);
    return next;
}

}  // namespace gpu_feed
