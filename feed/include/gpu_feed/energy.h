#ifndef GPU_FEED_ENERGY_H
#define GPU_FEED_ENERGY_H

#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// Energy that a GPU has used, and the time over which it was counted. The difference of two counts is what was used
/// between them; when its time is shorter than the time between them, the power was not known for the rest.
struct EnergyCount {
    double Joules = 0.0;
    double Seconds = 0.0;
};

/// `count` with what was used from `before` to `sample`, which follows it: the time between them with the mean of both
/// powers. Nothing where one of them has no power reading, or where samples are missing: where the time is longer than
/// three periods.
EnergyCount CountEnergy(const EnergyCount& count, const GpuTelemetrySample& before, const GpuTelemetrySample& sample,
                        double periodSeconds);

}  // namespace gpu_feed

#endif  // GPU_FEED_ENERGY_H
