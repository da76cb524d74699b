#ifndef GPU_MONITOR_TABLE_FORMAT_H
#define GPU_MONITOR_TABLE_FORMAT_H

#include <cstddef>
#include <string>
#include <vector>

#include "text/query_answers.h"

// Every text ends with a line break. A value that was not read shows as a dash.

/// The identity of every GPU, a paragraph each.
std::string ListText(const std::vector<GpuDeviceInfo>& devices);

/// A table with a row per reading and a column per GPU, in as many blocks as lines of `width` characters take.
std::string SampleText(const std::vector<GpuReadings>& gpus, size_t width);

#endif  // GPU_MONITOR_TABLE_FORMAT_H
