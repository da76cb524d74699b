#ifndef COMMON_SIMULATE_H
#define COMMON_SIMULATE_H

#include <optional>
#include <string>

/// The file name of NVML, under which the monitor finds the simulator too.
constexpr const char* kNvmlLibrary = "libnvidia-ml.so.1";

/// The GPUs that --simulate without a value simulates: those of NVML_SIM_BOARDS, or one.
std::string DefaultBoards();

/// Empty when `boards` names the GPUs to simulate, by their number, their kinds or the file of a recording, or is the
/// default. Otherwise why it does not, for the user.
std::string SimulationError(const std::string& boards);

/// With a value of the option --simulate, makes every monitor that starts afterwards find the simulated NVML, with
/// `boards` as its GPUs, and prints on standard error that GPUs are simulated and, with `bChanges`, how long changes
/// last.
///
/// Result: the option as this run has it, for commands that the user may type later; empty without one. Throws
/// `Failure` for an empty value, and when the simulator is missing or cannot be loaded. Call it before any thread runs:
/// it sets an environment variable.
std::string Simulate(const std::optional<std::string>& boards, bool bChanges);

/// Whether the NVML that this process finds is the simulated one, in whichever way it finds it.
bool IsNvmlSimulated();

#endif  // COMMON_SIMULATE_H
