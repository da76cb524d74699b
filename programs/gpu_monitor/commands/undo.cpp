#include "commands/undo.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "commands/change_commands.h"
#include "commands/gpu_discovery.h"
#include "commands/silent_driver.h"
#include "commands/simulate.h"
#include "gpu_feed/change_journal.h"
#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_session.h"
#include "gpu_feed/tuning_text.h"
#include "terminal/failure.h"
#include "terminal/output.h"
#include "text/change_report.h"
#include "text/json_format.h"

using namespace gpu_feed;

namespace {

namespace fs = std::filesystem;
using OperationResult = GpuClockOperationResult;

/// Null when the user has not named a folder.
const char* NamedFolder() {
    return std::getenv("GPU_MONITOR_JOURNAL");
}

struct LeftChange {
    ChangeJournal Journal;
    NotedChange Noted;
};

/// Where changes are noted that concern this user.
std::vector<fs::path> JournalFolders() {
    const bool bUsual = NamedFolder() == nullptr && !IsNvmlSimulated();
    return bUsual ? DefaultJournalFolders() : std::vector{JournalFolder()};
}

std::vector<LeftChange> LeftChanges() {
    std::vector<LeftChange> left;
    for (const fs::path& folder : JournalFolders()) {
        const ChangeJournal journal(folder);
        for (const NotedChange& noted : journal.LeftChanges()) left.push_back({journal, noted});
    }
    return left;
}

bool IsInForce(const TuningChange& change, const GpuPowerCapabilities& power) {
    return IsSameLimit(AskedWatts(change, power), power.CurrentWatts);
}

/// What the user has to know when a noted change need not be taken back; empty when it has to be. Clocks always have
/// to: NVML does not show locks.
std::string WhyNot(const NotedChange& noted, const GpuPowerCapabilities& power) {
    if (noted.Set.Control() == TuningControl::Clocks || power.CurrentWatts < 0.0) return {};
    if (IsInForce(noted.Before, power)) return "is back already: " + OutcomeText(noted.Before);
    if (IsInForce(noted.Set, power) || IsInForce(noted.Earlier, power)) return {};
    return "was changed again since, and is left as it is: power limit " + WattsText(power.CurrentWatts);
}

/// How taking a noted change back ended.
struct Undone {
    TuningResult Answer;
    /// What is in force, for the user; empty after a failure.
    std::string Outcome;
};

Undone TakeBack(NvmlGpuMonitor* monitor, const GpuDeviceInfo& device, const NotedChange& noted) {
    GpuPowerCapabilities power;
    monitor->GetPowerCapabilities(device.Index, &power);
    const std::string whyNot = WhyNot(noted, power);
    if (!whyNot.empty()) return {{OperationResult::Success}, whyNot};
    const TuningResult answer = TuningSession().Make(monitor, device.Uuid, device, noted.Before);
    const bool bSuccess = answer.Result == OperationResult::Success;
    return {answer, bSuccess ? "went back to: " + OutcomeText(noted.Before) : ""};
}

class UndoCommand {
public:
    /// Result: the exit status. Throws `Failure`.
    int Run(const std::vector<LeftChange>& left, bool bJson) {
        Devices = DiscoverGpus("", &Monitor);
        std::vector<GpuChange> changes;
        changes.reserve(left.size());
        for (const LeftChange& change : left) {
            changes.push_back(ChangeOrExplain(change.Noted.Device, [this, &change] { return Undo(change); }));
        }
        const int status = Conclude(changes);
        Print(changes, bJson);
        return status;
    }

private:
    /// Not before everything is back: the output can fail.
    static void Print(const std::vector<GpuChange>& changes, bool bJson) {
        std::string text;
        for (const GpuChange& change : changes) {
            const std::string gpu = GpuInSentence(change.Device);
            if (!change.Error.empty()) std::cerr << gpu << ": " << change.Error << '\n';
            const std::string outcome = NoteOf(change.Report);
            if (!outcome.empty()) text.append(gpu).append(" ").append(outcome).append(".\n");
        }
        WriteOutput(bJson ? UndoneJson(changes) : text);
    }

    GpuChange Undo(const LeftChange& left) {
        const NotedChange& noted = left.Noted;
        const auto device = std::find_if(Devices.begin(), Devices.end(), [&noted](const GpuDeviceInfo& each) {
            return each.Uuid == noted.Device.Uuid;
        });
        if (device == Devices.end()) {
            return {noted.Device, OperationResult::Error, "There is no GPU " + noted.Device.Uuid + " now."};
        }
        const Undone undone = Monitor.Ask(
            [device = *device, noted](NvmlGpuMonitor* monitor) { return TakeBack(monitor, device, noted); });
        if (undone.Outcome.empty()) return {*device, undone.Answer.Result, undone.Answer.Error};
        const std::string problem = left.Journal.Remove(noted);
        const OperationResult result = problem.empty() ? OperationResult::Success : OperationResult::Error;
        return {*device, result, problem, {}, {{"Note", undone.Outcome}}};
    }

    PatientMonitor Monitor;
    std::vector<GpuDeviceInfo> Devices;
};

}  // namespace

fs::path JournalFolder() {
    if (const char* const named = NamedFolder()) return named;
    return IsNvmlSimulated() ? fs::path() : DefaultJournalFolder();
}

bool HasLeftChanges() {
    return !LeftChanges().empty();
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

int RunUndo(bool bJson) {
    const std::vector<LeftChange> left = LeftChanges();
    if (!left.empty()) return UndoCommand().Run(left, bJson);
    WriteOutput(bJson ? UndoneJson({}) : "Nothing to undo.\n");
    return kExitSuccess;
}

void ForgetLeftChanges(const GpuDeviceInfo& device, TuningControl control) {
    for (const fs::path& folder : JournalFolders()) ChangeJournal(folder).ForgetLeftChanges(device, control);
}
