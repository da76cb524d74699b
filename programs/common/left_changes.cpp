#include "common/left_changes.h"

#include <cstdlib>
#include <iostream>

#include "common/simulate.h"
#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_text.h"

using namespace gpu_feed;

namespace {

namespace fs = std::filesystem;

/// Null when the user has not named a folder.
const char* NamedFolder() {
    return std::getenv("GPU_MONITOR_JOURNAL");
}

/// Where changes are noted that concern this user.
std::vector<fs::path> JournalFolders() {
    const bool bUsual = NamedFolder() == nullptr && !IsNvmlSimulated();
    return bUsual ? DefaultJournalFolders() : std::vector{JournalFolder()};
}

}  // namespace

fs::path JournalFolder() {
    if (const char* const named = NamedFolder()) return named;
    return IsNvmlSimulated() ? fs::path() : DefaultJournalFolder();
}

std::vector<LeftChange> LeftChanges() {
    std::vector<LeftChange> left;
    for (const fs::path& folder : JournalFolders()) {
        const ChangeJournal journal(folder);
        for (const NotedChange& noted : journal.LeftChanges()) left.push_back({journal, noted});
    }
    return left;
}

void PrintLeftChanges(const std::string& simulateOption) {
    const std::vector<LeftChange> left = LeftChanges();
    for (const LeftChange& change : left) {
        std::cerr << GpuInSentence(change.Noted.Device)
                  << ": a program that has ended left this changed: " << OutcomeText(change.Noted.Set) << ".\n";
    }
    if (left.empty()) return;
    std::cerr << "To undo it: gpu_monitor undo" << (simulateOption.empty() ? "" : ' ' + simulateOption) << '\n';
}

void ForgetLeftChanges(const GpuDeviceInfo& device, TuningControl control) {
    for (const fs::path& folder : JournalFolders()) ChangeJournal(folder).ForgetLeftChanges(device, control);
}
