#include "text/change_text.h"

#include "text/tuning_format.h"

using namespace gpu_feed;

namespace {

using Kind = TuningChange::Kind;

std::string PairText(const TuningChange& change) {
    return ClocksText(change.Pair.GraphicsClockMHz, change.Pair.MemoryClockMHz);
}

}  // namespace

std::string ActionText(const TuningChange& change) {
    switch (change.What) {
        case Kind::LockClocks: return "lock the clocks to " + PairText(change);
        case Kind::ResetClocks: return "release the clocks";
        case Kind::SetPower: return "set the power limit to " + WattsText(change.Watts);
        case Kind::ResetPower: break;
    }
    return "set the power limit back to the default";
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
