#ifndef RHYTHM_H
#define RHYTHM_H

#include <chrono>

namespace gpu_feed {

/// Finds out when the sampler's next cycle is due, from the timestamps of its samples. Moments are steady-clock
/// seconds.
class Rhythm {
public:
    explicit Rhythm(std::chrono::milliseconds interval);

    /// The moment for the first look after the sampler was started at `now`.
    double AfterStart(double now) const;

    /// The moment to look again after a look at `now` that found a new sample, taken at `newest`. `periodSeconds`: as
    /// `FeedGpu::PeriodSeconds`.
    double AfterNewSample(double newest, double periodSeconds, double now);

    /// The moment to look again after a look at `now` that found nothing new.
    double AfterNothing(double now);

private:
    double IntervalSeconds;
    double RetrySeconds;
};

}  // namespace gpu_feed

#endif  // RHYTHM_H
