#ifndef GPU_MONITOR_RHYTHM_H
#define GPU_MONITOR_RHYTHM_H

#include <chrono>

#include "nvml_gpu_monitor.h"

/// Tells when the sampler's next cycle is due, from the timestamps of its samples. Moments are steady-clock seconds.
class Rhythm {
public:
    explicit Rhythm(std::chrono::milliseconds interval);

    /// Interval and duration of a cycle together, as last measured.
    double Period() const { return PeriodSeconds; }

    /// The moment for the first look after the sampler was started at `now`.
    double AfterStart(double now) const;

    /// The moment to look again after a look at `now` that found `history` to have the newest sample.
    double AfterNewSample(const GpuTelemetryHistory& history, double now);

    /// The moment to look again after a look at `now` that found nothing new.
    double AfterNothing(double now);

private:
    double IntervalSeconds;
    double PeriodSeconds;
    double RetrySeconds;
};

#endif  // GPU_MONITOR_RHYTHM_H
