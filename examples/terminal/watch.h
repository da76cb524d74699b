#ifndef GPU_MONITOR_WATCH_H
#define GPU_MONITOR_WATCH_H

#include <map>
#include <optional>

#include "nvml_gpu_monitor.h"

/// Notices GPUs that no longer answer. Moments are steady-clock seconds.
class Watch {
public:
    /// `onlyGpu` is the index of the one GPU that is shown; without it all are.
    Watch(std::optional<unsigned int> onlyGpu, double startedAt);

    /// Takes note of one GPU's part in a cycle; `sample` is null when it has none. Says so once per GPU on standard
    /// error when it seems lost.
    void OnCycle(unsigned int index, const GpuTelemetrySample* sample);

    /// To be called after each look at the samples, at `now`, with the sampler's period.
    ///
    /// Throws `Failure` when no GPU that is shown has given a reading for too long.
    void OnLook(double now, double period);

private:
    struct GpuState {
        double LastReadingAt;
        unsigned int MissedCycles = 0;
        bool bReported = false;
    };

    std::optional<unsigned int> OnlyGpu;
    double StartedAt;
    double LastReadingAt;
    bool bReadingSinceLook = false;
    /// The first look without a reading after the last one with some.
    std::optional<double> SilentSince;
    std::map<unsigned int, GpuState> Gpus;
};

#endif  // GPU_MONITOR_WATCH_H
