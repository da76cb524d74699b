#include "gpu_feed/tuning_text.h"

#include "gpu_feed/reading_text.h"

namespace gpu_feed {

namespace {

using Kind = TuningChange::Kind;

std::string MegahertzText(int megahertz) {
    return megahertz < 0 ? kNotRead : std::to_string(megahertz) + " MHz";
}

std::string PairText(const TuningChange& change) {
    return ClocksText(change.Pair.GraphicsClockMHz, change.Pair.MemoryClockMHz);
}

}  // namespace

std::string ClocksText(int graphicsMHz, int memoryMHz) {
    if (graphicsMHz < 0 && memoryMHz < 0) return kNotRead;
    return MegahertzText(graphicsMHz) + " graphics, " + MegahertzText(memoryMHz) + " memory";
}

std::string WattsNumber(double watts) {
    std::string text = Number(watts, 3);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
}

std::string WattsText(double watts) {
    return watts < 0.0 ? kNotRead : WattsNumber(watts) + " W";
}

std::string RangeText(double minimumWatts, double maximumWatts) {
    return minimumWatts < 0.0 ? kNotRead : WattsNumber(minimumWatts) + " to " + WattsText(maximumWatts);
}

std::string RangeText(const GpuPowerCapabilities& capabilities) {
    return RangeText(capabilities.MinimumWatts, capabilities.MaximumWatts);
}

std::string RunningText(const GpuClockCapabilities& capabilities) {
    return "Running " + ClocksText(capabilities.CurrentGraphicsClockMHz, capabilities.CurrentMemoryClockMHz);
}

std::string PowerText(const GpuPowerCapabilities& capabilities) {
    return "In force " + WattsText(capabilities.CurrentWatts) + ", default " + WattsText(capabilities.DefaultWatts) +
           ", range " + RangeText(capabilities);
}

std::string CanLockText(const GpuClockCapabilities& capabilities) {
    return capabilities.CanControl ? "Can be locked." : "Cannot be locked: " + capabilities.Status;
}

std::string CanSetText(const GpuPowerCapabilities& capabilities) {
    return CanSetPower(capabilities) ? "Can be set." : "Cannot be set: " + capabilities.Status;
}

std::string ActionText(const TuningChange& change) {
    switch (change.What) {
        case Kind::LockClocks: return "lock the clocks to " + PairText(change);
        case Kind::ResetClocks: return "release the clocks";
        case Kind::SetPower: return "set the power limit to " + WattsText(change.Watts);
        case Kind::ResetPower: break;
    }
    return "set the power limit back to the default";
}

std::string IntentText(const TuningChange& change) {
    return "This will " + ActionText(change) + ", for every program that uses this GPU.";
}

std::string TakenText(const TuningChange& change) {
    return "The driver took it: " + OutcomeText(change) + '.';
}

std::string OutcomeText(const TuningChange& change) {
    switch (change.What) {
        case Kind::LockClocks: return "clocks locked to " + PairText(change);
        case Kind::ResetClocks: return "clocks released";
        case Kind::SetPower: return "power limit " + WattsText(change.Watts);
        case Kind::ResetPower: break;
    }
    return "default power limit";
}

std::string HalfLockText(HalfLock half) {
    switch (half) {
        case HalfLock::Released: return "Both locks of this GPU were released, an earlier one too.";
        case HalfLock::MayRemain: return "Its graphics clock may still be locked.";
        case HalfLock::None: break;
    }
    return {};
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

std::string TryAgainText(const TuningRecord& record, const TuningChange& back, const std::string& simulateOption) {
    return record.bGpuGone ? "" : "To try again: " + CommandOf(back, record.Device.Index, simulateOption);
}

}  // namespace gpu_feed
