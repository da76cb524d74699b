#ifndef GPU_MONITOR_STREAM_FORMAT_H
#define GPU_MONITOR_STREAM_FORMAT_H

#include <string>

#include "nvml_gpu_monitor.h"

// Every text ends with a line break. A value that was not read shows as a dash.

/// The column headings of the stream and, below, their units.
std::string StreamHeading();

/// One sample of one GPU as a line of the stream, taken `seconds` after its start.
std::string StreamText(const GpuDeviceInfo& device, const GpuTelemetrySample& sample, double seconds);

#endif  // GPU_MONITOR_STREAM_FORMAT_H
