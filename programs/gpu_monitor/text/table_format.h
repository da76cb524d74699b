#ifndef GPU_MONITOR_TABLE_FORMAT_H
#define GPU_MONITOR_TABLE_FORMAT_H

#include <cstddef>
#include <string>
#include <vector>

#include "text/query_answers.h"

// Every text ends with a line break. A value that was not read shows as a dash.

/// A paragraph for each GPU with its identity.
std::string ListText(const std::vector<GpuDeviceInfo>& devices);

/// A table with a row for each reading and a column for each GPU. GPUs that do not fit into lines of `width` characters
/// follow in another block below. At the end, a table of the processes, if there are any.
std::string SampleText(const std::vector<GpuReadings>& gpus, size_t width);

#endif  // GPU_MONITOR_TABLE_FORMAT_H
