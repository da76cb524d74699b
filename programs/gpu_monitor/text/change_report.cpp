#include "text/change_report.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <vector>

#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_text.h"

using namespace gpu_feed;

namespace {

using Kind = TuningChange::Kind;

bool Contains(const std::vector<GpuClockPair>& pairs, const GpuClockPair& pair) {
    return std::find(pairs.begin(), pairs.end(), pair) != pairs.end();
}

int Distance(const GpuClockPair& a, const GpuClockPair& b) {
    return std::abs(a.GraphicsClockMHz - b.GraphicsClockMHz) + std::abs(a.MemoryClockMHz - b.MemoryClockMHz);
}

/// The pairs of `listed` that are nearest to `pair`.
std::vector<GpuClockPair> NearestPairs(const std::vector<GpuClockPair>& listed, const GpuClockPair& pair) {
    // The user may have given the memory clock first.
    const GpuClockPair swapped{pair.MemoryClockMHz, pair.GraphicsClockMHz};
    if (Contains(listed, swapped)) return {swapped};
    std::vector<GpuClockPair> nearest;
    for (const GpuClockPair& candidate : listed) {
        const int lead = nearest.empty() ? 0 : Distance(nearest.front(), pair) - Distance(candidate, pair);
        if (lead > 0) nearest.clear();
        if (lead >= 0) nearest.push_back(candidate);
    }
    return nearest;
}

/// Why other clocks run than those that were locked.
std::string ClockDifference(const GpuTelemetrySample& now) {
    const bool bRead = now.GraphicsClockMHz >= 0 && now.MemoryClockMHz >= 0;
    if (!bRead) return "The driver took the lock, but the clocks cannot be read.";
    const std::string limits = LimitText(now);
    return "The driver took the lock, but other clocks run; " +
           (limits == kNotRead ? "it does not say what limits them." : "limited by: " + limits + '.');
}

std::string PowerDifference(const GpuPowerCapabilities& now) {
    return now.CurrentWatts < 0.0 ? "The driver took the limit, but what is in force cannot be read."
                                  : "The driver took the limit, but another one is in force.";
}

}  // namespace

bool RunsPair(const GpuTelemetrySample& sample, const GpuClockPair& pair) {
    return sample.GraphicsClockMHz == pair.GraphicsClockMHz && sample.MemoryClockMHz == pair.MemoryClockMHz;
}

Details LockReport(const GpuClockPair& pair, const GpuTelemetrySample& now, unsigned int gpu,
                   const std::string& simulateOption) {
    Details details = {{"Asked", ClocksText(pair.GraphicsClockMHz, pair.MemoryClockMHz)},
                       {"Running", ClocksText(now.GraphicsClockMHz, now.MemoryClockMHz)}};
    if (!RunsPair(now, pair)) details.push_back({"Note", ClockDifference(now)});
    details.push_back({"Undo", "releases the clocks and brings no earlier lock back:"});
    details.push_back({"", CommandOf({Kind::ResetClocks}, gpu, simulateOption), true});
    return details;
}

Details ReleaseReport(const GpuTelemetrySample& now, unsigned int gpu, const std::string& simulateOption) {
    return {{"Asked", "no locked clocks"},
            {"Running", ClocksText(now.GraphicsClockMHz, now.MemoryClockMHz)},
            {"Undo", "impossible: NVML does not say what was locked. To lock again:"},
            {"", CommandLineFor("lock-clocks", gpu, "GRAPHICS MEMORY", simulateOption), true}};
}

Details PowerReport(const TuningChange& change, const GpuPowerCapabilities& before, const GpuPowerCapabilities& now,
                    unsigned int gpu, const std::string& simulateOption) {
    const double asked = AskedWatts(change, before);
    const double inForce = now.CurrentWatts < 0.0 ? asked : now.CurrentWatts;
    Details details = {{"Asked", WattsText(asked)}};
    for (const Detail& detail : PowerDetails(now)) details.push_back(detail);
    if (!IsSameLimit(now.CurrentWatts, asked)) details.push_back({"Note", PowerDifference(now)});
    if (IsSameLimit(before.CurrentWatts, inForce) && IsSameLimit(before.CurrentWatts, asked)) {
        details.push_back({"Undo", "not needed: the limit was the same before"});
    } else if (const std::optional<TuningChange> undo = PowerUndo(before)) {
        details.push_back({"Undo", CommandOf(*undo, gpu, simulateOption), true});
    } else {
        details.push_back({"Undo", "to the default only; what was in force before cannot be set:"});
        details.push_back({"", CommandOf({Kind::ResetPower}, gpu, simulateOption), true});
    }
    return details;
}

double AskedWatts(const TuningChange& change, const GpuPowerCapabilities& capabilities) {
    return change.What == Kind::SetPower ? change.Watts : capabilities.DefaultWatts;
}

std::string NoteOf(const Details& report) {
    const auto isNote = [](const Detail& detail) { return detail.Label == "Note"; };
    const auto note = std::find_if(report.begin(), report.end(), isNote);
    return note == report.end() ? "" : note->Text;
}

std::string UndoOf(const Details& report) {
    const Detail& last = report.back();
    return last.bCommand ? last.Text : "";
}

std::string HalfLockAdvice(HalfLock half, unsigned int gpu, const std::string& simulateOption) {
    const std::string release = " To release it: " + CommandOf({Kind::ResetClocks}, gpu, simulateOption);
    return HalfLockText(half) + (half == HalfLock::MayRemain ? release : "");
}

std::string LockAdvice(const GpuClockPair& pair, const std::string& error, const GpuClockCapabilities& capabilities,
                       unsigned int gpu, const std::string& simulateOption) {
    if (!capabilities.CanControl) return capabilities.Status == error ? "" : capabilities.Status;
    if (Contains(capabilities.SupportedPairs, pair)) return {};
    std::string nearest;
    for (const GpuClockPair& each : NearestPairs(capabilities.SupportedPairs, pair)) {
        nearest += (nearest.empty() ? "Nearest: " : " or ") + ClocksText(each.GraphicsClockMHz, each.MemoryClockMHz);
    }
    return nearest + ".\nAll that can be locked: " + CommandLineFor("clocks", gpu, "", simulateOption);
}

std::string PowerAdvice(const TuningChange& change, const GpuPowerCapabilities& before) {
    if (before.State != GpuCapabilityState::Supported) return {};
    const double asked = AskedWatts(change, before);
    if (asked < 0.0) return "The default limit of this GPU cannot be read.";
    return IsInRange(asked, before) ? "" : "This GPU takes " + RangeText(before) + '.';
}
