#include "commands/undo.h"

#include <algorithm>
#include <iostream>
#include <vector>

#include "commands/change_commands.h"
#include "commands/gpu_discovery.h"
#include "commands/silent_driver.h"
#include "common/failure.h"
#include "common/left_changes.h"
#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_session.h"
#include "gpu_feed/tuning_text.h"
#include "terminal/output.h"
#include "text/change_report.h"
#include "text/json_format.h"

using namespace gpu_feed;

namespace {

using OperationResult = GpuClockOperationResult;

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

int RunUndo(bool bJson) {
    const std::vector<LeftChange> left = LeftChanges();
    if (!left.empty()) return UndoCommand().Run(left, bJson);
    WriteOutput(bJson ? UndoneJson({}) : "Nothing to undo.\n");
    return kExitSuccess;
}
