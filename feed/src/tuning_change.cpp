#include "gpu_feed/tuning_change.h"

#include <cmath>

namespace gpu_feed {

namespace {

using Kind = TuningChange::Kind;

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

bool CanSetPower(const GpuPowerCapabilities& capabilities) {
    return capabilities.State == GpuCapabilityState::Supported;
}

bool CanSetDefaultPower(const GpuPowerCapabilities& capabilities) {
    return CanSetPower(capabilities) && capabilities.DefaultWatts > 0.0;
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

std::optional<TuningChange> PowerWayBack(const TuningChange& change, const GpuPowerCapabilities& capabilities) {
    if (const std::optional<TuningChange> undo = PowerUndo(capabilities)) return undo;
    const TuningChange reset = {Kind::ResetPower};
    return capabilities.DefaultWatts > 0.0 && change != reset ? std::optional(reset) : std::nullopt;
}

}  // namespace gpu_feed
