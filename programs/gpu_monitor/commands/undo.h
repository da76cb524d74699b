#ifndef GPU_MONITOR_UNDO_H
#define GPU_MONITOR_UNDO_H

#include <filesystem>
#include <string>

#include "gpu_feed/tuning_change.h"

// Changes that a program left behind because it was killed before it could take them back. `simulateOption` is the
// option that simulates GPUs as this run has it, or empty.

/// Where this program notes changes. Those of simulated GPUs are noted only where GPU_MONITOR_JOURNAL names a folder.
std::filesystem::path JournalFolder();

bool HasLeftChanges();

/// Prints on standard error what was left changed and how to undo it.
void PrintLeftChanges(const std::string& simulateOption);

/// Takes back what was left changed, the latest first. Prints what is in force afterwards or, on standard error, why a
/// change could not go back; with `bJson`, one object.
///
/// Result: the exit status. Throws `Failure`.
int RunUndo(bool bJson);

/// Removes the notes of what was left changed of this setting: the user has made another change of it.
void ForgetLeftChanges(const GpuDeviceInfo& device, gpu_feed::TuningControl control);

#endif  // GPU_MONITOR_UNDO_H
