#ifndef GPU_FEED_CHANGE_JOURNAL_H
#define GPU_FEED_CHANGE_JOURNAL_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "gpu_feed/tuning_change.h"
#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// A change that a program meant to take back when it noted this.
struct NotedChange {
    /// The kernel's id of the boot in which this was noted.
    std::string BootId;
    /// The program, and when it was started, in clock ticks since boot.
    int Pid = 0;
    uint64_t ProcessStart = 0;
    /// Only index, name and UUID.
    GpuDeviceInfo Device = {};
    /// What was in force before the program changed it.
    TuningChange Before = {TuningChange::Kind::ResetClocks};
    /// What the program had set until then, or `Before`. It is in force if `Set` was never made.
    TuningChange Earlier = Before;
    TuningChange Set = Before;
};

/// Notes in a folder what a program has changed, so that it can be undone after the program was killed: one small file
/// for each setting of a GPU, which is replaced as a whole. Programs that run at the same time can share a folder.
///
/// Failure: an operation that returns a text gives one sentence for the user, or an empty text after success.
/// Exceptions: only for lack of memory. Threads: any.
class ChangeJournal {
public:
    /// Notes nothing.
    ChangeJournal() = default;
    /// The folder is created when it is needed.
    explicit ChangeJournal(std::filesystem::path folder) : Folder(std::move(folder)) {}

    /// Notes that the program is about to make `change`; `record` is what it has done to this setting before. The
    /// sentence can also be that another program has changed the setting and still runs.
    std::string Note(const TuningRecord& record, const TuningChange& change) const;

    /// Removes what the program has noted of this setting.
    std::string Remove(const TuningRecord& record) const;
    std::string Remove(const NotedChange& noted) const;

    /// The changes that programs which have ended left behind, the latest first. Settings that a running program has
    /// changed too are left out, because that program will take its change back. Reads only files that belong to root
    /// or the caller and that nobody else can write. Removes what was noted before the latest boot.
    std::vector<NotedChange> LeftChanges() const;

    /// Removes what programs that do not run any more have noted of this setting: the user has decided about it anew.
    void ForgetLeftChanges(const GpuDeviceInfo& device, TuningControl control) const;

private:
    std::vector<NotedChange> ReadNotes() const;

    std::filesystem::path Folder;
};

/// The folder in which the programs of this user note changes: for root one that everyone can read, otherwise one below
/// $XDG_STATE_HOME or ~/.local/state. Empty when neither is known.
std::filesystem::path DefaultJournalFolder();

/// The folders whose notes this user should know: root's and `DefaultJournalFolder`.
std::vector<std::filesystem::path> DefaultJournalFolders();

}  // namespace gpu_feed

#endif  // GPU_FEED_CHANGE_JOURNAL_H
