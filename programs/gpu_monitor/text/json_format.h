#ifndef GPU_MONITOR_JSON_FORMAT_H
#define GPU_MONITOR_JSON_FORMAT_H

#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "text/change_report.h"
#include "text/query_answers.h"

// Every text ends with a line break. A value that was not read is left out. `problems` are sentences about what is
// missing, in a list of that name.

/// One object with the identity of every GPU.
std::string ListJson(const std::string& driverVersion, const std::vector<GpuDeviceInfo>& devices,
                     const std::vector<std::string>& problems = {});

/// One object with the identity, the readings and the processes of every GPU in `gpus`, which may be empty.
std::string SampleJson(const std::string& driverVersion, const std::vector<GpuReadings>& gpus,
                       const std::vector<std::string>& problems = {});

/// One object with the clocks of every GPU in `gpus`, which may be empty.
std::string ClocksJson(const std::string& driverVersion, const std::vector<GpuClocks>& gpus,
                       const std::vector<std::string>& problems = {});

/// One object with the power limit of every GPU in `gpus`, which may be empty.
std::string PowerJson(const std::string& driverVersion, const std::vector<GpuPower>& gpus,
                      const std::vector<std::string>& problems = {});

/// One object with what a change did to every GPU in `gpus`.
std::string ChangesJson(const gpu_feed::TuningChange& change, const std::vector<GpuChange>& gpus,
                        const std::vector<std::string>& problems);

/// One object with how each change was taken back.
std::string UndoneJson(const std::vector<GpuChange>& changes);

/// One object, in one line, in place of an answer.
std::string FailureJson(const std::string& sentence, int exitStatus);

/// One sample of one GPU as one line, with the GPU's processes unless `processes` is null.
std::string StreamJson(const GpuDeviceInfo& device, const GpuTelemetrySample& sample,
                       const std::vector<gpu_feed::FeedProcess>* processes);

#endif  // GPU_MONITOR_JSON_FORMAT_H
