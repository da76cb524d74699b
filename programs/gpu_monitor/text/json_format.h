#ifndef GPU_MONITOR_JSON_FORMAT_H
#define GPU_MONITOR_JSON_FORMAT_H

#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "text/query_answers.h"

// Every text ends with a line break. A value that was not read is left out.

/// One object with the identity of every GPU in `devices`.
std::string ListJson(const std::string& driverVersion, const std::vector<GpuDeviceInfo>& devices);

/// One object with identity and reading of every GPU in `gpus`, which may be empty.
std::string SampleJson(const std::string& driverVersion, const std::vector<GpuReadings>& gpus);

/// One object with the clocks of every GPU in `gpus`, which may be empty.
std::string ClocksJson(const std::string& driverVersion, const std::vector<GpuClocks>& gpus);

/// One object with the power limit of every GPU in `gpus`, which may be empty.
std::string PowerJson(const std::string& driverVersion, const std::vector<GpuPower>& gpus);

/// One sample of one GPU as one line, with the GPU's processes unless `processes` is null.
std::string StreamJson(const GpuDeviceInfo& device, const GpuTelemetrySample& sample,
                       const std::vector<gpu_feed::FeedProcess>* processes);

#endif  // GPU_MONITOR_JSON_FORMAT_H
