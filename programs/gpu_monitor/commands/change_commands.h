#ifndef GPU_MONITOR_CHANGE_COMMANDS_H
#define GPU_MONITOR_CHANGE_COMMANDS_H

#include <optional>
#include <string>

#include "nvml_gpu_monitor.h"

struct TuningOptions {
    /// NVML index of the only GPU to change.
    std::optional<unsigned int> Gpu;
    /// The option that simulates GPUs, as this run has it, or empty: every command that is told to the user carries it.
    std::string SimulateOption;
};

// Each changes the wanted GPUs, one after the other whatever becomes of the others, and prints for each what is in
// force afterwards and how it is undone, or on standard error why it was refused. Result: the exit status. Throws
// `Failure`.

/// Locks the clocks of GPUs to one pair.
int RunLockClocks(const TuningOptions& options, const GpuClockPair& pair);

/// Releases locked clocks.
int RunResetClocks(const TuningOptions& options);

/// Sets the power limit of GPUs.
int RunSetPower(const TuningOptions& options, double watts);

/// Sets the power limit of GPUs to their defaults.
int RunResetPower(const TuningOptions& options);

#endif  // GPU_MONITOR_CHANGE_COMMANDS_H
