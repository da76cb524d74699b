#ifndef GPU_MONITOR_SIMULATE_H
#define GPU_MONITOR_SIMULATE_H

#include <string>

/// The file name of NVML, under which the monitor finds the simulator too.
constexpr const char* kNvmlLibrary = "libnvidia-ml.so.1";

/// Empty when `boards` names the GPUs to simulate, by their number or their kinds. Otherwise why it does not, for the
/// user.
std::string SimulationError(const std::string& boards);

/// Makes every monitor that starts afterwards find the simulated NVML, with `boards` as its GPUs.
///
/// Throws `Failure` when the simulator is missing or cannot be loaded. Call it before any thread runs: it sets an
/// environment variable.
void UseSimulatedNvml(const std::string& boards);

/// Whether the NVML that this process finds is the simulated one, in whichever way it finds it.
bool IsNvmlSimulated();

/// A line that says that GPUs are simulated and, with `bChanges`, how long changes last.
std::string SimulationNotice(bool bChanges);

#endif  // GPU_MONITOR_SIMULATE_H
