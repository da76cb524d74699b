#ifndef GPU_MONITOR_QUERY_COMMANDS_H
#define GPU_MONITOR_QUERY_COMMANDS_H

#include <optional>

struct QueryOptions {
    /// NVML index of the only GPU to ask.
    std::optional<unsigned int> Gpu;
    bool bJson = false;
};

// Each asks the requested GPUs once and prints their answers. Result: the exit status, which is `kExitFailure` when a
// GPU did not answer. Throws `Failure`.

/// The identity of the GPUs.
int RunList(const QueryOptions& options);

/// All readings.
int RunSample(const QueryOptions& options);

/// The clocks that run and those that can be locked.
int RunClocks(const QueryOptions& options);

/// The power limit and its range.
int RunPower(const QueryOptions& options);

#endif  // GPU_MONITOR_QUERY_COMMANDS_H
