#ifndef COMMON_LEFT_CHANGES_H
#define COMMON_LEFT_CHANGES_H

#include <filesystem>
#include <string>
#include <vector>

#include "gpu_feed/change_journal.h"
#include "gpu_feed/tuning_change.h"

// Changes that a program left behind because it was killed before it could take them back.

/// A change, and the journal that notes it.
struct LeftChange {
    gpu_feed::ChangeJournal Journal;
    gpu_feed::NotedChange Noted;
};

/// Where this program notes changes. Those of simulated GPUs are noted only where GPU_MONITOR_JOURNAL names a folder.
std::filesystem::path JournalFolder();

/// The changes that this user should know, the latest of each folder first.
std::vector<LeftChange> LeftChanges();

/// Prints on standard error what was left changed and how to undo it. `simulateOption` is the option that simulates
/// GPUs as this run has it, or empty.
void PrintLeftChanges(const std::string& simulateOption);

/// Removes the notes of what was left changed of this setting: the user has made another change of it.
void ForgetLeftChanges(const GpuDeviceInfo& device, gpu_feed::TuningControl control);

#endif  // COMMON_LEFT_CHANGES_H
