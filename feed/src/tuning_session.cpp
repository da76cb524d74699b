#include "gpu_feed/tuning_session.h"

#include <linux/capability.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <limits>
#include <new>

#include "gpu_feed/clock.h"

namespace gpu_feed {
namespace {

using Kind = TuningChange::Kind;

/// How long to wait for memory before a change is taken back.
constexpr double kMemoryWaitSeconds = 0.1;
/// Short enough to need no memory.
constexpr const char* kOutOfMemory = "Out of memory.";

TuningResult AskDriver(NvmlGpuMonitor* monitor, unsigned int gpu, const TuningChange& change) {
    TuningResult answer;
    switch (change.What) {
        case Kind::LockClocks: answer.Result = monitor->SetLockedClock(gpu, change.Pair, &answer.Error); break;
        case Kind::ResetClocks: answer.Result = monitor->RestoreDefaultClocks(gpu, &answer.Error); break;
        case Kind::SetPower: answer.Result = monitor->SetPowerLimit(gpu, change.Watts, &answer.Error); break;
        case Kind::ResetPower: answer.Result = monitor->RestoreDefaultPowerLimit(gpu, &answer.Error); break;
    }
    return answer;
}

/// Whether the graphics clock was locked and the memory clock was not. Only the monitor's sentence shows it.
bool HasFailedHalfWay(const TuningChange& change, const TuningResult& result) {
    return change.What == Kind::LockClocks && result.Error.find("memory locked-clock control") != std::string::npos;
}

/// Makes a change and leaves no half-made lock where that can be avoided: the monitor releases it as well, but does not
/// say whether that worked.
TuningResult Apply(NvmlGpuMonitor* monitor, unsigned int gpu, const TuningChange& change) {
    TuningResult result = AskDriver(monitor, gpu, change);
    if (HasFailedHalfWay(change, result)) {
        const bool bReleased = monitor->RestoreDefaultClocks(gpu) == GpuClockOperationResult::Success;
        result.Half = bReleased ? HalfLock::Released : HalfLock::MayRemain;
    }
    return result;
}

/// What is in force after a change with this result; `before` was in force when it began.
TuningChange InForceAfter(const TuningResult& result, const TuningChange& change, const TuningChange& before) {
    if (result.Half == HalfLock::Released) return {Kind::ResetClocks};
    const bool bChanged = result.Result == GpuClockOperationResult::Success || result.Half == HalfLock::MayRemain;
    return bChanged ? change : before;
}

}  // namespace

TuningResult TuningSession::Make(NvmlGpuMonitor* monitor, const std::string& gpuKey, const GpuDeviceInfo& device,
                                 const TuningChange& change, std::optional<double> keepSeconds,
                                 const std::function<void()>& onNoted) {
    GpuPowerCapabilities powerBefore;
    if (change.Control() == TuningControl::Power) monitor->GetPowerCapabilities(device.Index, &powerBefore);
    const std::optional<TuningChange> wayBack = WayBack(gpuKey, change, powerBefore);
    TuningResult result =
        wayBack ? MakeNoted(monitor, {gpuKey, device, *wayBack, *wayBack, *wayBack}, change, keepSeconds, onNoted)
                : Apply(monitor, device.Index, change);
    result.PowerBefore = powerBefore;
    const bool bStays = !wayBack && result.Result == GpuClockOperationResult::Success;
    if (bStays) Notes.ForgetLeftChanges(device, change.Control());
    return result;
}

std::optional<TuningChange> TuningSession::WayBack(const std::string& gpuKey, const TuningChange& change,
                                                   const GpuPowerCapabilities& powerBefore) {
    if (change.Control() == TuningControl::Power) return PowerWayBack(change, powerBefore);
    // NVML does not show locks, so only those of this session are known.
    const TuningRecord* record = Find(gpuKey, TuningControl::Clocks);
    if (record != nullptr && record->InForce.What == Kind::LockClocks) return record->InForce;
    return change.What == Kind::ResetClocks ? std::nullopt : std::optional(TuningChange{Kind::ResetClocks});
}

TuningResult TuningSession::MakeNoted(NvmlGpuMonitor* monitor, const TuningRecord& firstRecord,
                                      const TuningChange& change, std::optional<double> keepSeconds,
                                      const std::function<void()>& onNoted) {
    TuningRecord* record = Find(firstRecord.GpuKey, change.Control());
    if (record == nullptr) record = &Changes.emplace_back(firstRecord);
    record->Device = firstRecord.Device;
    record->bGpuGone = false;
    const TuningRecord before = *record;
    std::string warning = Notes.Note(before, change);
    record->InForce = change;
    record->Warning = std::move(warning);
    // If memory runs out from here on, the change goes back.
    record->Deadline = keepSeconds ? NowSeconds() + *keepSeconds : 0.0;
    if (before.Deadline == 0.0) record->Previous = firstRecord.Previous;
    record->Problem.clear();
    onNoted();
    TuningResult result = Apply(monitor, firstRecord.Device.Index, change);
    const bool bSuccess = result.Result == GpuClockOperationResult::Success;
    if (!bSuccess && result.Half == HalfLock::None) {
        *record = before;
        Settle(record);
        return result;
    }
    record->InForce = InForceAfter(result, change, before.InForce);
    const bool bGoesBack = bSuccess && keepSeconds && change != record->Previous;
    record->Deadline = bGoesBack ? NowSeconds() + *keepSeconds : 0.0;
    Settle(record);
    return result;
}

TuningRecord* TuningSession::Find(const std::string& gpuKey, TuningControl control) {
    const auto record = std::find_if(Changes.begin(), Changes.end(), [&](const TuningRecord& each) {
        return each.GpuKey == gpuKey && each.Before.Control() == control;
    });
    return record == Changes.end() ? nullptr : &*record;
}

void TuningSession::Keep(const std::string& gpuKey, TuningControl control) {
    if (TuningRecord* record = Find(gpuKey, control)) record->Deadline = 0.0;
}

TuningResult TuningSession::GoBack(NvmlGpuMonitor* monitor, TuningRecord* record) {
    record->Deadline = NowSeconds() + kMemoryWaitSeconds;
    TuningResult result = record->bGpuGone ? TuningResult{GpuClockOperationResult::Error, kGpuIsGone}
                                           : Apply(monitor, record->Device.Index, record->Previous);
    record->InForce = InForceAfter(result, record->Previous, record->InForce);
    record->Problem = result.Error;
    Settle(record);
    record->Deadline = 0.0;
    return result;
}

void TuningSession::Settle(TuningRecord* record) const {
    if (!record->IsOutstanding()) record->Warning = Notes.Remove(*record);
}

TuningResult TuningSession::TakeBack(NvmlGpuMonitor* monitor, const std::string& gpuKey, TuningControl control) {
    TuningRecord* record = Find(gpuKey, control);
    if (record == nullptr) return {GpuClockOperationResult::Error, "Nothing was changed."};
    return GoBack(monitor, record);
}

void TuningSession::TakeBackOverdue(NvmlGpuMonitor* monitor, double now) {
    for (TuningRecord& record : Changes) {
        if (record.Deadline == 0.0 || record.Deadline > now) continue;
        try {
            GoBack(monitor, &record);
        } catch (const std::bad_alloc&) {
            record.Problem = kOutOfMemory;
        }
    }
}

void TuningSession::TakeAllBack(NvmlGpuMonitor* monitor) {
    for (TuningRecord& record : Changes) {
        record.Previous = record.Before;
        record.Deadline = record.IsOutstanding() ? NowSeconds() : 0.0;
    }
    TakeBackOverdue(monitor, std::numeric_limits<double>::infinity());
}

void TuningSession::LoseGpus() {
    for (TuningRecord& record : Changes) record.bGpuGone = true;
}

void TuningSession::FindGpus(const std::function<const GpuDeviceInfo*(const std::string& gpuKey)>& find) {
    for (TuningRecord& record : Changes) {
        const GpuDeviceInfo* device = record.bGpuGone ? find(record.GpuKey) : nullptr;
        if (device == nullptr) continue;
        record.Device.Index = device->Index;
        record.bGpuGone = false;
    }
}

std::optional<double> TuningSession::NextDeadline() const {
    std::optional<double> next;
    for (const TuningRecord& record : Changes) {
        if (record.Deadline != 0.0) next = std::min(next.value_or(record.Deadline), record.Deadline);
    }
    return next;
}

bool HasTuningRights() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != "CapEff:") {
    }
    uint64_t capabilities = 0;
    if (!(status >> std::hex >> capabilities)) return geteuid() == 0;
    return (capabilities >> unsigned{CAP_SYS_ADMIN} & 1U) != 0;
}

}  // namespace gpu_feed
