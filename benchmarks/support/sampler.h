#ifndef SAMPLER_H
#define SAMPLER_H

#include <cstdint>
#include <ctime>

#include "nvml_gpu_monitor.h"

/// The most samples that a history keeps.
constexpr int kFullHistorySamples = 6000;

/// Readings of one GPU so far, of all monitors of this process together.
uint64_t ReadingsSoFar();

/// Drives the sampler thread of a monitor cycle by cycle, and measures the CPU time of that thread.
///
/// It waits awake and takes neither the monitor's lock nor NVML's, so that nothing gets in the sampler's way.
class SamplerDriver {
public:
    /// Starts `monitor`, whose first cycle comes at once.
    SamplerDriver(NvmlGpuMonitor* monitor, int64_t boards);
    ~SamplerDriver() { Driven->Stop(); }
    SamplerDriver(const SamplerDriver&) = delete;
    SamplerDriver& operator=(const SamplerDriver&) = delete;

    /// One cycle. Result: the CPU seconds of the sampler thread from asleep to asleep, wake-up included.
    double Cycle();

private:
    double SamplerSeconds() const;
    /// Returns when the CPU clock of the sampler stops: the thread sleeps, or was interrupted. In the second
    /// case the rest of its cycle counts to the next cycle, so no time is lost.
    void WaitUntilAsleep();

    NvmlGpuMonitor* Driven;
    uint64_t Boards;
    clockid_t SamplerClock{};
    double LatestSeconds = 0.0;
};

/// Lets `monitor` run until the histories of all `boards` are full, and stops it. The boards answer at once.
void FillHistories(NvmlGpuMonitor* monitor, int64_t boards);

#endif  // SAMPLER_H
