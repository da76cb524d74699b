#ifndef GPU_MONITOR_CSV_FORMAT_H
#define GPU_MONITOR_CSV_FORMAT_H

#include <string>

#include "nvml_gpu_monitor.h"

// Lines of comma-separated values, with their line breaks. A value that was not read is an empty field.

/// The names of the columns.
std::string CsvHeading();

/// One sample of one GPU.
std::string CsvLine(const GpuDeviceInfo& device, const GpuTelemetrySample& sample);

#endif  // GPU_MONITOR_CSV_FORMAT_H
