#ifndef GPU_MONITOR_QUERY_COMMANDS_H
#define GPU_MONITOR_QUERY_COMMANDS_H

#include <string>

struct QueryOptions {
    /// Index or UUID of the only GPU to ask; empty: all.
    std::string Gpu;
    bool bJson = false;
};

// Each asks the requested GPUs once and prints their answers. Result: the exit status, which is `kExitFailure` when a
// GPU did not answer. Throws `Failure`.

/// The identity of the GPUs. Those that are known to be missing are named on standard error.
int RunList(const QueryOptions& options);

/// All readings, and the processes that use video memory.
int RunSample(const QueryOptions& options);

/// The clocks that run and those that can be locked.
int RunClocks(const QueryOptions& options);

/// The power limit and its range.
int RunPower(const QueryOptions& options);

#endif  // GPU_MONITOR_QUERY_COMMANDS_H
