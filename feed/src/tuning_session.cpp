#include "gpu_feed/tuning_session.h"

#include <algorithm>

#include "gpu_feed/clock.h"

namespace gpu_feed {
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

TuningResult TuningSession::Make(NvmlGpuMonitor* monitor, const std::string& gpuKey, const GpuDeviceInfo& device,
                                 const TuningChange& change, double keepSeconds, const std::function<void()>& onNoted) {
    const std::optional<TuningChange> previous = InForceNow(monitor, gpuKey, device.Index, change);
    if (!previous) return Ask(monitor, device.Index, change);
    TuningRecord* record = Find(gpuKey, change.Control());
    if (record == nullptr) {
        record = &Changes.emplace_back(TuningRecord{gpuKey, device, *previous, *previous, *previous});
    }
    const TuningRecord before = *record;
    record->InForce = change;
    if (before.Deadline == 0.0) record->Previous = *previous;
    record->Problem.clear();
    onNoted();
    TuningResult result = Ask(monitor, device.Index, change);
    if (result.Result != GpuClockOperationResult::Success) {
        NoteFailure(monitor, before, record, &result);
    } else {
        record->Deadline = change == record->Previous ? 0.0 : NowSeconds() + keepSeconds;
    }
    return result;
}

std::optional<TuningChange> TuningSession::InForceNow(NvmlGpuMonitor* monitor, const std::string& gpuKey,
                                                      unsigned int index, const TuningChange& change) {
    if (change.Control() == TuningControl::Power) {
        GpuPowerCapabilities capabilities;
        monitor->GetPowerCapabilities(index, &capabilities);
        return PowerWayBack(change, capabilities);
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

void TuningSession::NoteFailure(NvmlGpuMonitor* monitor, const TuningRecord& before, TuningRecord* record,
                                TuningResult* result) {
    if (!HasFailedHalfWay(result->Error)) {
        *record = before;
        return;
    }
    const TuningChange release = {Kind::ResetClocks};
    record->Deadline = 0.0;
    const bool bReleased = Ask(monitor, record->Device.Index, release).Result == GpuClockOperationResult::Success;
    if (bReleased) record->InForce = release;
    result->Error += std::string(" ") + (bReleased ? kBothLocksReleased : "Its graphics clock may still be locked.");
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

void TuningSession::TakeAllBack(NvmlGpuMonitor* monitor) {
    for (TuningRecord& record : Changes) {
        // One that has brought `Before` back must not go on to `Previous`.
        record.Deadline = 0.0;
        if (record.IsOutstanding()) GoBack(monitor, record.Before, &record);
    }
}

std::optional<double> TuningSession::NextDeadline() const {
    std::optional<double> next;
    for (const TuningRecord& record : Changes) {
        if (record.Deadline != 0.0) next = std::min(next.value_or(record.Deadline), record.Deadline);
    }
    return next;
}

}  // namespace gpu_feed
