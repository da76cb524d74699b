#ifndef GPU_MONITOR_READING_TEXT_H
#define GPU_MONITOR_READING_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "gpu_feed/readings.h"
#include "nvml_gpu_monitor.h"

// These texts have no line break. A value that was not read shows as a dash.

/// A reading as a number.
std::string ReadingNumber(gpu_feed::ReadingId id, const GpuTelemetrySample& sample);

/// A unit as the locale can show it: `bUnicode` gives temperatures the degree sign.
std::string UnitText(const std::string& unit, bool bUnicode);

/// A reading as a number with its unit.
std::string ReadingText(gpu_feed::ReadingId id, const GpuTelemetrySample& sample, bool bUnicode = false);

/// An amount of video memory, shown as the reading is.
std::string MemoryText(uint64_t bytes);

/// The reasons that NVML gives for the clocks that run.
std::string LimitText(const GpuTelemetrySample& sample);

/// As many of these reasons as fit into `width`, at least one, and then the number of the others.
std::string ShortLimitText(const GpuTelemetrySample& sample, size_t width);

#endif  // GPU_MONITOR_READING_TEXT_H
