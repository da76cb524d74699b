#ifndef RHYTHM_H
#define RHYTHM_H

#include <chrono>
#include <deque>

#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// Tells when the sampler's next cycle is due, from the timestamps of its samples. Moments are steady-clock seconds.
class Rhythm {
public:
    explicit Rhythm(std::chrono::milliseconds interval);

    /// Interval and duration of a cycle together, as last measured.
    double Period() const { return PeriodSeconds; }

    /// The moment for the first look after the sampler was started at `now`.
    double AfterStart(double now) const;

    /// The moment to look again after a look at `now` that found the newest sample to be the last of `samples`.
    double AfterNewSample(const std::deque<GpuTelemetrySample>& samples, double now);

    /// The moment to look again after a look at `now` that found nothing new.
    double AfterNothing(double now);

private:
    double IntervalSeconds;
    double PeriodSeconds;
    double RetrySeconds;
};

}  // namespace gpu_feed

#endif  // RHYTHM_H
