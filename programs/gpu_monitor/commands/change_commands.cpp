#include "commands/change_commands.h"

#include <poll.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <utility>
#include <vector>

#include "commands/gpu_discovery.h"
#include "gpu_feed/clock.h"
#include "terminal/failure.h"
#include "terminal/output.h"
#include "terminal/signals.h"
#include "text/change_text.h"
#include "text/reading_text.h"
#include "text/text_layout.h"
#include "text/tuning_format.h"

using namespace gpu_feed;

namespace {

using OperationResult = GpuClockOperationResult;

constexpr double kSettleSeconds = 2.0;
/// Released clocks have no value to wait for, and need not move at all.
constexpr double kReleaseSeconds = 0.2;
constexpr int kPauseMs = 50;

/// Of several GPUs, the first that failed counts. One that does not have what was to be changed has not failed, as long
/// as there is another that was changed.
int ExitStatus(const std::vector<OperationResult>& results) {
    for (const OperationResult result : results) {
        if (result == OperationResult::NoPermission) return kExitNoPermission;
        if (result == OperationResult::Error) return kExitFailure;
    }
    const bool bChanged = std::find(results.begin(), results.end(), OperationResult::Success) != results.end();
    return bChanged ? kExitSuccess : kExitUnsupported;
}

/// One kind of change, as it is made to one GPU after the other.
class Change {
public:
    explicit Change(const TuningOptions& options) : Options(options) {}
    virtual ~Change() = default;
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    /// Changes the wanted GPUs and tells the user about each. Result: the exit status. Throws `Failure`.
    int Run() {
        const std::vector<GpuDeviceInfo> devices = DiscoverGpus(Options.Gpu, &Monitor);
        // Not before: until then there is nothing that must not be cut short.
        StopDescriptor = CatchStopSignals();
        std::vector<OperationResult> results;
        results.reserve(devices.size());
        for (const GpuDeviceInfo& device : devices) {
            results.push_back(ChangeAndTell(device));
        }
        const bool bDenied = std::find(results.begin(), results.end(), OperationResult::NoPermission) != results.end();
        if (bDenied) std::cerr << kRightsAdvice << '\n';
        return ExitStatus(results);
    }

protected:
    /// A command line for one GPU, with what this run was given to find its GPUs.
    std::string Command(const TuningChange& change, unsigned int gpu) const {
        return CommandOf(change, gpu, Options.SimulateOption);
    }
    std::string Command(const char* command, unsigned int gpu, const std::string& values = "") const {
        return CommandLineFor(command, gpu, values, Options.SimulateOption);
    }

    /// Reads a GPU until `bEnough` says so, but only for so long, and not any more once a stop was asked for.
    template <typename Enough>
    GpuTelemetrySample ReadUntil(unsigned int gpu, double seconds, Enough bEnough) {
        const double deadline = NowSeconds() + seconds;
        GpuTelemetrySample sample;
        pollfd stop = {StopDescriptor, POLLIN, 0};
        do {
            Monitor.ReadCurrentSample(gpu, &sample);
        } while (!bEnough(sample) && NowSeconds() < deadline && poll(&stop, 1, kPauseMs) == 0);
        return sample;
    }

    NvmlGpuMonitor Monitor;

private:
    virtual OperationResult Apply(unsigned int gpu, std::string* error) = 0;

    /// Whether a GPU that was not changed could be asked: one that is gone has not said that it does not support it.
    virtual bool Answers(unsigned int gpu) = 0;

    /// What is in force on a GPU that has just been changed, and how that is undone.
    virtual Details Report(unsigned int gpu) = 0;

    /// What else the user should know of a failure, as a sentence; or empty.
    virtual std::string Advice(unsigned int /*gpu*/, const std::string& /*error*/) { return {}; }

    /// What is told is printed before the next GPU is changed: only it says how this is undone.
    OperationResult ChangeAndTell(const GpuDeviceInfo& device) {
        std::string error;
        const OperationResult result = Apply(device.Index, &error);
        if (result == OperationResult::Success) {
            const std::string separator = std::exchange(bPrinted, true) ? "\n" : "";
            Print(separator + Paragraph(device, Report(device.Index), OutputWidth()));
            return result;
        }
        TellFailure(device, error);
        const bool bGone = result == OperationResult::Unsupported && !Answers(device.Index);
        return bGone ? OperationResult::Error : result;
    }

    static void Print(const std::string& text) {
        try {
            WriteOutput(text);
        } catch (const Failure& failure) {
            throw Failure(std::string(failure.what()) + " The GPU was changed all the same.");
        }
    }

    void TellFailure(const GpuDeviceInfo& device, const std::string& error) {
        std::cerr << GpuInSentence(device) << ": " << error << '\n';
        const std::string advice = Advice(device.Index, error);
        if (!advice.empty()) std::cerr << advice << '\n';
    }

    const TuningOptions& Options;
    int StopDescriptor = -1;
    bool bPrinted = false;
};

// ---- Locked clocks ----

int Distance(const GpuClockPair& a, const GpuClockPair& b) {
    return std::abs(a.GraphicsClockMHz - b.GraphicsClockMHz) + std::abs(a.MemoryClockMHz - b.MemoryClockMHz);
}

bool Contains(const std::vector<GpuClockPair>& pairs, const GpuClockPair& pair) {
    return std::find(pairs.begin(), pairs.end(), pair) != pairs.end();
}

/// Those of `listed` that come nearest to `pair`.
std::vector<GpuClockPair> NearestPairs(const std::vector<GpuClockPair>& listed, const GpuClockPair& pair) {
    // Whoever gave the memory clock first means this one.
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

class ClockChange : public Change {
public:
    using Change::Change;

private:
    bool Answers(unsigned int gpu) override {
        GpuClockCapabilities capabilities;
        return Monitor.GetClockCapabilities(gpu, &capabilities);
    }
};

/// Locks the clocks of GPUs to one pair.
class LockClocks : public ClockChange {
public:
    LockClocks(const TuningOptions& options, const GpuClockPair& pair) : ClockChange(options), Pair(pair) {}

private:
    OperationResult Apply(unsigned int gpu, std::string* error) override {
        return Monitor.SetLockedClock(gpu, Pair, error);
    }

    Details Report(unsigned int gpu) override {
        const GpuTelemetrySample now =
            ReadUntil(gpu, kSettleSeconds, [this](const GpuTelemetrySample& sample) { return Runs(sample); });
        Details details = {{"Asked", ClocksText(Pair.GraphicsClockMHz, Pair.MemoryClockMHz)},
                           {"Running", ClocksText(now.GraphicsClockMHz, now.MemoryClockMHz)}};
        if (!Runs(now)) details.push_back({"Note", Difference(now)});
        details.push_back({"Undo", "releases the clocks and brings no earlier lock back:"});
        details.push_back({"", Command({TuningChange::Kind::ResetClocks}, gpu), true});
        return details;
    }

    std::string Advice(unsigned int gpu, const std::string& error) override {
        if (HasFailedHalfWay(error)) return ReleaseAdvice(gpu);
        GpuClockCapabilities capabilities;
        Monitor.GetClockCapabilities(gpu, &capabilities);
        if (!capabilities.CanControl) return capabilities.Status == error ? "" : capabilities.Status;
        if (Contains(capabilities.SupportedPairs, Pair)) return {};
        return Suggestion(gpu, NearestPairs(capabilities.SupportedPairs, Pair));
    }

    bool Runs(const GpuTelemetrySample& sample) const {
        return sample.GraphicsClockMHz == Pair.GraphicsClockMHz && sample.MemoryClockMHz == Pair.MemoryClockMHz;
    }

    /// The monitor resets both locks when the second one fails, but does not tell whether that worked.
    std::string ReleaseAdvice(unsigned int gpu) {
        const bool bReleased = Monitor.RestoreDefaultClocks(gpu) == OperationResult::Success;
        return bReleased ? kBothLocksReleased
                         : "Its graphics clock may still be locked. To release it: " +
                               Command({TuningChange::Kind::ResetClocks}, gpu);
    }

    static std::string Difference(const GpuTelemetrySample& now) {
        const bool bRead = now.GraphicsClockMHz >= 0 && now.MemoryClockMHz >= 0;
        if (!bRead) return "The driver took the lock, but the clocks cannot be read.";
        const std::string limits = LimitText(now);
        return "The driver took the lock, but other clocks run; " +
               (limits == kNotRead ? "it does not tell what limits them." : "limited by: " + limits + '.');
    }

    std::string Suggestion(unsigned int gpu, const std::vector<GpuClockPair>& nearest) const {
        std::string text;
        for (const GpuClockPair& pair : nearest) {
            text += (text.empty() ? "Nearest: " : " or ") + ClocksText(pair.GraphicsClockMHz, pair.MemoryClockMHz);
        }
        return text + ".\nAll that can be locked: " + Command("clocks", gpu);
    }

    const GpuClockPair Pair;
};

/// Releases locked clocks.
class ResetClocks : public ClockChange {
public:
    using ClockChange::ClockChange;

private:
    OperationResult Apply(unsigned int gpu, std::string* error) override {
        Monitor.ReadCurrentSample(gpu, &Before);
        return Monitor.RestoreDefaultClocks(gpu, error);
    }

    Details Report(unsigned int gpu) override {
        const GpuTelemetrySample now =
            ReadUntil(gpu, kReleaseSeconds, [this](const GpuTelemetrySample& sample) { return HasMoved(sample); });
        return {{"Asked", "no locked clocks"},
                {"Running", ClocksText(now.GraphicsClockMHz, now.MemoryClockMHz)},
                {"Undo", "impossible: NVML does not tell what was locked. To lock again:"},
                {"", Command("lock-clocks", gpu, "GRAPHICS MEMORY"), true}};
    }

    bool HasMoved(const GpuTelemetrySample& sample) const {
        return sample.GraphicsClockMHz != Before.GraphicsClockMHz || sample.MemoryClockMHz != Before.MemoryClockMHz;
    }

    /// Of the GPU that is being changed.
    GpuTelemetrySample Before;
};

// ---- Power limit ----

/// Sets the power limit of GPUs to one value or, without one, to their defaults.
class SetPower : public Change {
public:
    explicit SetPower(const TuningOptions& options, std::optional<double> watts = {}) : Change(options), Watts(watts) {}

private:
    OperationResult Apply(unsigned int gpu, std::string* error) override {
        Monitor.GetPowerCapabilities(gpu, &Before);
        return Watts ? Monitor.SetPowerLimit(gpu, *Watts, error) : Monitor.RestoreDefaultPowerLimit(gpu, error);
    }

    bool Answers(unsigned int gpu) override {
        GpuPowerCapabilities capabilities;
        return Monitor.GetPowerCapabilities(gpu, &capabilities) &&
               capabilities.State != GpuCapabilityState::Unavailable;
    }

    Details Report(unsigned int gpu) override {
        GpuPowerCapabilities now;
        Monitor.GetPowerCapabilities(gpu, &now);
        Details details = {{"Asked", WattsText(Asked())}};
        for (const Detail& detail : PowerDetails(now)) details.push_back(detail);
        if (!IsSameLimit(now.CurrentWatts, Asked())) details.push_back({"Note", Difference(now)});
        for (const Detail& detail : Undo(gpu, now)) details.push_back(detail);
        return details;
    }

    std::string Advice(unsigned int /*gpu*/, const std::string& /*error*/) override {
        if (Before.State != GpuCapabilityState::Supported) return {};
        if (Asked() < 0.0) return "The default limit of this GPU cannot be read.";
        return IsInRange(Asked(), Before) ? "" : "This GPU takes " + RangeText(Before) + '.';
    }

    double Asked() const { return Watts.value_or(Before.DefaultWatts); }

    static std::string Difference(const GpuPowerCapabilities& now) {
        return now.CurrentWatts < 0.0 ? "The driver took the limit, but what is in force cannot be read."
                                      : "The driver took the limit, but another one is in force.";
    }

    Details Undo(unsigned int gpu, const GpuPowerCapabilities& now) const {
        const double before = Before.CurrentWatts;
        const double inForce = now.CurrentWatts < 0.0 ? Asked() : now.CurrentWatts;
        const bool bChanged = !IsSameLimit(before, inForce) || !IsSameLimit(before, Asked());
        if (!bChanged) return {{"Undo", "not needed: the limit was the same before"}};
        if (const std::optional<TuningChange> undo = PowerUndo(Before)) return {{"Undo", Command(*undo, gpu), true}};
        return {{"Undo", "to the default only; what was in force before cannot be set:"},
                {"", Command({TuningChange::Kind::ResetPower}, gpu), true}};
    }

    const std::optional<double> Watts;
    /// Of the GPU that is being changed.
    GpuPowerCapabilities Before;
};

}  // namespace

int RunLockClocks(const TuningOptions& options, const GpuClockPair& pair) {
    return LockClocks(options, pair).Run();
}

int RunResetClocks(const TuningOptions& options) {
    return ResetClocks(options).Run();
}

int RunSetPower(const TuningOptions& options, double watts) {
    return SetPower(options, watts).Run();
}

int RunResetPower(const TuningOptions& options) {
    return SetPower(options).Run();
}
