#ifndef GPU_MONITOR_READING_TEXT_H
#define GPU_MONITOR_READING_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "gpu_feed/readings.h"
#include "nvml_gpu_monitor.h"

// Words for a line, without a line break. A value that was not read shows as a dash.

/// A reading as a number.
std::string ReadingNumber(gpu_feed::ReadingId id, const GpuTelemetrySample& sample);

/// A reading as a number with its unit.
std::string ReadingText(gpu_feed::ReadingId id, const GpuTelemetrySample& sample);

/// An amount of video memory, shown as the reading is.
std::string MemoryText(uint64_t bytes);

/// What NVML says about the clocks.
std::string LimitText(const GpuTelemetrySample& sample);

/// As many of these words as fit into `width`, then the number of the others.
std::string ShortLimitText(const GpuTelemetrySample& sample, size_t width);

#endif  // GPU_MONITOR_READING_TEXT_H
