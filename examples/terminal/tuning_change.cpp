#include "tuning_change.h"

#include <cmath>

#include "tuning_format.h"

namespace {

using Kind = TuningChange::Kind;

}  // namespace

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

TuningControl ControlOf(const TuningChange& change) {
    const bool bClocks = change.What == Kind::LockClocks || change.What == Kind::ResetClocks;
    return bClocks ? TuningControl::Clocks : TuningControl::Power;
}

std::string ActionText(const TuningChange& change) {
    switch (change.What) {
        case Kind::LockClocks:
            return "lock the clocks to " + ClocksText(change.Pair.GraphicsClockMHz, change.Pair.MemoryClockMHz);
        case Kind::ResetClocks: return "release the clocks";
        case Kind::SetPower: return "set the power limit to " + WattsText(change.Watts);
        case Kind::ResetPower: break;
    }
    return "go back to the default power limit";
}

std::string CommandLineFor(const std::string& command, unsigned int gpu, const std::string& values,
                           const std::string& simulateOption) {
    std::string text = "gpu_monitor " + command + " --gpu " + std::to_string(gpu);
    for (const std::string& word : {values, simulateOption}) text += word.empty() ? "" : ' ' + word;
    return text;
}

std::string CommandOf(const TuningChange& change, unsigned int gpu, const std::string& simulateOption) {
    const auto line = [gpu, &simulateOption](const char* command, const std::string& values = "") {
        return CommandLineFor(command, gpu, values, simulateOption);
    };
    const auto& [graphics, memory] = change.Pair;
    switch (change.What) {
        case Kind::LockClocks: return line("lock-clocks", std::to_string(graphics) + ' ' + std::to_string(memory));
        case Kind::ResetClocks: return line("reset-clocks");
        case Kind::SetPower: return line("set-power", WattsNumber(change.Watts));
        case Kind::ResetPower: break;
    }
    return line("reset-power");
}

bool IsSameLimit(double watts, double otherWatts) {
    return std::llround(watts * 1000.0) == std::llround(otherWatts * 1000.0);
}

bool IsInRange(double watts, const GpuPowerCapabilities& capabilities) {
    return watts >= capabilities.MinimumWatts && watts <= capabilities.MaximumWatts;
}

std::optional<TuningChange> PowerUndo(const GpuPowerCapabilities& before) {
    if (IsSameLimit(before.CurrentWatts, before.DefaultWatts)) return TuningChange{Kind::ResetPower};
    if (!IsInRange(before.CurrentWatts, before)) return std::nullopt;
    return TuningChange{Kind::SetPower, {}, before.CurrentWatts};
}

std::future<TuningResult> Request(MonitorFeed* feed, const std::string& gpuKey, const TuningChange& change) {
    switch (change.What) {
        case Kind::LockClocks: return feed->LockClocks(gpuKey, change.Pair);
        case Kind::ResetClocks: return feed->ResetClocks(gpuKey);
        case Kind::SetPower: return feed->SetPowerLimit(gpuKey, change.Watts);
        case Kind::ResetPower: break;
    }
    return feed->ResetPowerLimit(gpuKey);
}

TuningChange ChangeLedger::UndoOf(const std::string& gpuKey, const TuningChange& change,
                                  const TuningChange& original) const {
    const auto entry = Changes.find({gpuKey, ControlOf(change)});
    return entry == Changes.end() ? original : entry->second.InForce;
}

void ChangeLedger::Note(const FeedGpu& gpu, const TuningChange& change, const TuningChange& original) {
    const auto entry = Changes.try_emplace({gpu.Key, ControlOf(change)}, Entry{gpu.Device, original, original}).first;
    entry->second.InForce = change;
    if (entry->second.Before == change) Changes.erase(entry);
}
