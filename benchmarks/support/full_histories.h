#ifndef FULL_HISTORIES_H
#define FULL_HISTORIES_H

#include <cstdint>

#include "nvml_gpu_monitor.h"

constexpr int kFullHistorySamples = 6000;

/// Lets `monitor` run until the histories of all `boards`, which answer at once, are full. The monitor is stopped then,
/// and its histories are there.
void FillHistories(NvmlGpuMonitor* monitor, int64_t boards);

#endif  // FULL_HISTORIES_H
