#ifndef GPU_MONITOR_TEXT_FORMAT_H
#define GPU_MONITOR_TEXT_FORMAT_H

#include <cstddef>
#include <string>
#include <vector>

#include "readings.h"

// Every text ends with a line break. A value that was not read shows as a dash.

/// The identity of every GPU, a paragraph each.
std::string ListText(const std::vector<GpuDeviceInfo>& devices);

/// A table with a row per reading and a column per GPU, in as many blocks as lines of `width` characters take.
std::string SampleText(const std::vector<GpuReading>& gpus, size_t width);

/// The column headings of the stream and, below, their units.
std::string StreamHeading();

/// One sample of one GPU as a line of the stream, taken `seconds` after its start.
std::string StreamText(const GpuDeviceInfo& device, const GpuTelemetrySample& sample, double seconds);

/// What limits the clocks, in the words of the table and the stream, without a line break.
std::string LimitText(const GpuTelemetrySample& sample);

#endif  // GPU_MONITOR_TEXT_FORMAT_H
