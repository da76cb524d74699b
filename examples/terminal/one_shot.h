#ifndef GPU_MONITOR_ONE_SHOT_H
#define GPU_MONITOR_ONE_SHOT_H

#include <optional>

struct SampleOptions {
    /// NVML index of the only GPU to read.
    std::optional<unsigned int> Gpu;
    bool bJson = false;
};

/// Prints the identity of every GPU. Result: the exit status. Throws `Failure`.
int RunList(bool bJson);

/// Reads every GPU once, or one of them, and prints the readings. Result: the exit status, which is a failure when a
/// GPU could not be read. Throws `Failure`.
int RunSample(const SampleOptions& options);

#endif  // GPU_MONITOR_ONE_SHOT_H
