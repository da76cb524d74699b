#ifndef GPU_MONITOR_SIMULATE_H
#define GPU_MONITOR_SIMULATE_H

#include <string>

/// Empty when `boards` says which GPUs to simulate: their number or their kinds. Otherwise what is wrong, for the user.
std::string SimulationError(const std::string& boards);

/// Makes every monitor that starts afterwards find the simulated NVML, with `boards` as its GPUs.
///
/// Throws `Failure` when the simulator is missing or cannot be loaded. Call it before any thread runs: it sets an
/// environment variable.
void UseSimulatedNvml(const std::string& boards);

/// Whether `UseSimulatedNvml` has been called.
bool IsSimulating();

/// What the user of simulated GPUs should know, as a line; `bChanges`: the command changes them.
std::string SimulationNotice(bool bChanges);

#endif  // GPU_MONITOR_SIMULATE_H
