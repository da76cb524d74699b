#include "tuning_session.h"

#include <algorithm>
#include <cmath>

#include "clock.h"

namespace {

using Kind = TuningChange::Kind;

TuningResult Ask(NvmlGpuMonitor* monitor, unsigned int index, const TuningChange& change) {
    TuningResult answer;
    switch (change.What) {
        case Kind::LockClocks: answer.Result = monitor->SetLockedClock(index, change.Pair, &answer.Error); break;
        case Kind::ResetClocks: answer.Result = monitor->RestoreDefaultClocks(index, &answer.Error); break;
        case Kind::SetPower: answer.Result = monitor->SetPowerLimit(index, change.Watts, &answer.Error); break;
        case Kind::ResetPower: answer.Result = monitor->RestoreDefaultPowerLimit(index, &answer.Error); break;
    }
    return answer;
}

}  // namespace

TuningControl TuningChange::Control() const {
    const bool bClocks = What == Kind::LockClocks || What == Kind::ResetClocks;
    return bClocks ? TuningControl::Clocks : TuningControl::Power;
}

bool operator==(const TuningChange& a, const TuningChange& b) {
    if (a.What != b.What) return false;
    switch (a.What) {
        case Kind::LockClocks: return a.Pair == b.Pair;
        case Kind::SetPower: return IsSameLimit(a.Watts, b.Watts);
        case Kind::ResetClocks:
        case Kind::ResetPower: break;
    }
    return true;
}

bool IsSameLimit(double watts, double otherWatts) {
    return std::llround(watts * 1000.0) == std::llround(otherWatts * 1000.0);
}

bool IsInRange(double watts, const GpuPowerCapabilities& capabilities) {
    return watts >= capabilities.MinimumWatts && watts <= capabilities.MaximumWatts;
}

std::optional<TuningChange> PowerUndo(const GpuPowerCapabilities& capabilities) {
    const double watts = capabilities.CurrentWatts;
    if (watts < 0.0) return std::nullopt;
    if (IsSameLimit(watts, capabilities.DefaultWatts)) return TuningChange{Kind::ResetPower};
    if (!IsInRange(watts, capabilities)) return std::nullopt;
    return TuningChange{Kind::SetPower, {}, watts};
}

bool HasFailedHalfWay(const std::string& error) {
    return error.find("memory locked-clock control") != std::string::npos;
}

TuningResult TuningSession::Make(NvmlGpuMonitor* monitor, const std::string& gpuKey, const GpuDeviceInfo& device,
                                 const TuningChange& change, double keepSeconds) {
    const std::optional<TuningChange> previous = InForceNow(monitor, gpuKey, device.Index, change);
    if (!previous) return Ask(monitor, device.Index, change);
    // Before it is made: from then on it can be in force.
    TuningRecord* record = Note(gpuKey, device, change, *previous);
    TuningResult result = Ask(monitor, device.Index, change);
    if (result.Result != GpuClockOperationResult::Success) {
        NoteFailure(monitor, record, &result);
    } else if (change != *previous) {
        record->Deadline = NowSeconds() + keepSeconds;
    }
    return result;
}

std::optional<TuningChange> TuningSession::InForceNow(NvmlGpuMonitor* monitor, const std::string& gpuKey,
                                                      unsigned int index, const TuningChange& change) {
    if (change.Control() == TuningControl::Power) {
        GpuPowerCapabilities capabilities;
        monitor->GetPowerCapabilities(index, &capabilities);
        return PowerUndo(capabilities);
    }
    // NVML does not tell locks: only those of this program are known.
    const TuningRecord* record = Find(gpuKey, TuningControl::Clocks);
    if (record != nullptr && record->InForce.What == Kind::LockClocks) return record->InForce;
    return change.What == Kind::ResetClocks ? std::nullopt : std::optional(TuningChange{Kind::ResetClocks});
}

TuningRecord* TuningSession::Find(const std::string& gpuKey, TuningControl control) {
    const auto record = std::find_if(Changes.begin(), Changes.end(), [&](const TuningRecord& each) {
        return each.GpuKey == gpuKey && each.Before.Control() == control;
    });
    return record == Changes.end() ? nullptr : &*record;
}

TuningRecord* TuningSession::Note(const std::string& gpuKey, const GpuDeviceInfo& device, const TuningChange& change,
                                  const TuningChange& previous) {
    TuningRecord* record = Find(gpuKey, change.Control());
    if (record == nullptr) {
        record = &Changes.emplace_back(TuningRecord{gpuKey, device, previous, previous, previous});
    } else if (record->InForce != previous) {
        // Another program has changed it since: that is what this one finds now.
        record->Before = previous;
    }
    record->InForce = change;
    record->Previous = previous;
    record->Deadline = 0.0;
    record->Problem.clear();
    return record;
}

void TuningSession::NoteFailure(NvmlGpuMonitor* monitor, TuningRecord* record, TuningResult* result) {
    const TuningChange release = {Kind::ResetClocks};
    if (HasFailedHalfWay(result->Error)) {
        const bool bReleased = Ask(monitor, record->Device.Index, release).Result == GpuClockOperationResult::Success;
        if (bReleased) record->InForce = release;
        result->Error +=
            std::string(" ") + (bReleased ? kBothLocksReleased : "Its graphics clock may still be locked.");
    } else if (result->Result != GpuClockOperationResult::Error) {
        record->InForce = record->Previous;
    }
}

void TuningSession::Keep(const std::string& gpuKey, TuningControl control) {
    if (TuningRecord* record = Find(gpuKey, control)) record->Deadline = 0.0;
}

TuningResult TuningSession::GoBack(NvmlGpuMonitor* monitor, const TuningChange& to, TuningRecord* record) {
    record->Deadline = 0.0;
    TuningResult result = Ask(monitor, record->Device.Index, to);
    if (result.Result == GpuClockOperationResult::Success) record->InForce = to;
    record->Problem = result.Error;
    return result;
}

TuningResult TuningSession::TakeBack(NvmlGpuMonitor* monitor, const std::string& gpuKey, TuningControl control) {
    TuningRecord* record = Find(gpuKey, control);
    if (record == nullptr) return {GpuClockOperationResult::Error, "Nothing was changed."};
    return GoBack(monitor, record->Previous, record);
}

void TuningSession::TakeBackOverdue(NvmlGpuMonitor* monitor, double now) {
    for (TuningRecord& record : Changes) {
        if (record.Deadline != 0.0 && record.Deadline <= now) GoBack(monitor, record.Previous, &record);
    }
}

std::vector<TuningResult> TuningSession::TakeAllBack(NvmlGpuMonitor* monitor) {
    std::vector<TuningResult> results;
    for (TuningRecord& record : Changes) {
        if (record.IsOutstanding()) results.push_back(GoBack(monitor, record.Before, &record));
    }
    return results;
}

std::optional<double> TuningSession::NextDeadline() const {
    std::optional<double> next;
    for (const TuningRecord& record : Changes) {
        if (record.Deadline != 0.0) next = std::min(next.value_or(record.Deadline), record.Deadline);
    }
    return next;
}
