#ifndef GPU_MONITOR_TEXT_FORMAT_H
#define GPU_MONITOR_TEXT_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "gpu_feed/readings.h"

// Every text ends with a line break. A value that was not read shows as a dash.

/// The identity of every GPU, a paragraph each.
std::string ListText(const std::vector<GpuDeviceInfo>& devices);

/// A table with a row per reading and a column per GPU, in as many blocks as lines of `width` characters take.
std::string SampleText(const std::vector<GpuReading>& gpus, size_t width);

/// The column headings of the stream and, below, their units.
std::string StreamHeading();

/// One sample of one GPU as a line of the stream, taken `seconds` after its start.
std::string StreamText(const GpuDeviceInfo& device, const GpuTelemetrySample& sample, double seconds);

// The rest gives words for a line, without a line break.

/// What NVML tells about the clocks, in the words of the table and the stream.
std::string LimitText(const GpuTelemetrySample& sample);

/// An amount of video memory, as the table shows it.
std::string MemoryText(uint64_t bytes);

/// The reading with this JSON key as the table shows it: its number, and its unit if `bUnit`.
std::string ReadingText(const std::string& key, const GpuTelemetrySample& sample, bool bUnit = true);

#endif  // GPU_MONITOR_TEXT_FORMAT_H
