#include "tuning.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <thread>
#include <vector>

#include "clock.h"
#include "driver.h"
#include "failure.h"
#include "output.h"
#include "text_format.h"
#include "text_layout.h"
#include "tuning_format.h"

namespace {

using OperationResult = GpuClockOperationResult;

constexpr double kSettleSeconds = 2.0;
constexpr std::chrono::milliseconds kSettlePause{50};
/// Released clocks have no value to wait for; by then they have mostly moved.
constexpr std::chrono::milliseconds kReleasePause{200};

constexpr const char* kRightsAdvice =
    "Changing GPUs needs root: run the same command with sudo, or in a container with CAP_SYS_ADMIN.\n";

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
        std::vector<OperationResult> results;
        std::string text;
        for (const GpuDeviceInfo& device : DiscoverGpus(Options.Gpu, &Monitor)) {
            std::string error;
            results.push_back(Apply(device.Index, &error));
            if (results.back() == OperationResult::Success) {
                text += (text.empty() ? "" : "\n") + Paragraph(device, Report(device.Index), OutputWidth());
            } else {
                TellFailure(device, error);
            }
        }
        const bool bDenied = std::find(results.begin(), results.end(), OperationResult::NoPermission) != results.end();
        if (bDenied) std::cerr << kRightsAdvice;
        WriteOutput(text);
        return ExitStatus(results);
    }

protected:
    /// A command line of this program for one GPU, with what this run was given to find its GPUs.
    std::string Command(const std::string& command, unsigned int gpu, const std::string& values = "") const {
        std::string text = "gpu_monitor " + command + " --gpu " + std::to_string(gpu);
        for (const std::string& word : {values, Options.SimulateOption}) text += word.empty() ? "" : ' ' + word;
        return text;
    }

    NvmlGpuMonitor Monitor;

private:
    virtual OperationResult Apply(unsigned int gpu, std::string* error) = 0;

    /// What is in force on a GPU that has just been changed, and how that is undone.
    virtual Details Report(unsigned int gpu) = 0;

    /// What else the user should know of a failure, as a sentence; or empty.
    virtual std::string Advice(unsigned int /*gpu*/, const std::string& /*error*/) { return {}; }

    void TellFailure(const GpuDeviceInfo& device, const std::string& error) {
        std::cerr << GpuInSentence(device) << ": " << error << '\n';
        const std::string advice = Advice(device.Index, error);
        if (!advice.empty()) std::cerr << advice << '\n';
    }

    const TuningOptions& Options;
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

/// Locks the clocks of GPUs to one pair.
class LockClocks : public Change {
public:
    LockClocks(const TuningOptions& options, const GpuClockPair& pair) : Change(options), Pair(pair) {}

private:
    OperationResult Apply(unsigned int gpu, std::string* error) override {
        return Monitor.SetLockedClock(gpu, Pair, error);
    }

    Details Report(unsigned int gpu) override {
        const GpuTelemetrySample now = ReadSettled(gpu);
        Details details = {{"Asked", ClocksText(Pair.GraphicsClockMHz, Pair.MemoryClockMHz)},
                           {"Running", ClocksText(now.GraphicsClockMHz, now.MemoryClockMHz)}};
        if (!Runs(now)) details.push_back({"Note", Difference(now)});
        details.push_back({"Undo", Command("reset-clocks", gpu), true});
        return details;
    }

    std::string Advice(unsigned int gpu, const std::string& error) override {
        // The monitor leaves no half of a lock behind.
        const bool bMemoryStep = error.find("memory locked-clock control") != std::string::npos;
        if (bMemoryStep) return "Both locks of this GPU were released, an earlier one too.";
        GpuClockCapabilities capabilities;
        Monitor.GetClockCapabilities(gpu, &capabilities);
        if (!capabilities.CanControl) return capabilities.Status == error ? "" : capabilities.Status;
        if (Contains(capabilities.SupportedPairs, Pair)) return {};
        return Suggestion(gpu, NearestPairs(capabilities.SupportedPairs, Pair));
    }

    bool Runs(const GpuTelemetrySample& sample) const {
        return sample.GraphicsClockMHz == Pair.GraphicsClockMHz && sample.MemoryClockMHz == Pair.MemoryClockMHz;
    }

    /// Reads until the clocks are those that were asked for, but not for long.
    GpuTelemetrySample ReadSettled(unsigned int gpu) {
        const double deadline = NowSeconds() + kSettleSeconds;
        GpuTelemetrySample sample;
        Monitor.ReadCurrentSample(gpu, &sample);
        while (!Runs(sample) && NowSeconds() < deadline) {
            std::this_thread::sleep_for(kSettlePause);
            Monitor.ReadCurrentSample(gpu, &sample);
        }
        return sample;
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
class ResetClocks : public Change {
public:
    using Change::Change;

private:
    OperationResult Apply(unsigned int gpu, std::string* error) override {
        return Monitor.RestoreDefaultClocks(gpu, error);
    }

    Details Report(unsigned int gpu) override {
        std::this_thread::sleep_for(kReleasePause);
        GpuTelemetrySample now;
        Monitor.ReadCurrentSample(gpu, &now);
        return {{"Asked", "no locked clocks"},
                {"Running", ClocksText(now.GraphicsClockMHz, now.MemoryClockMHz)},
                {"Undo", "impossible: NVML does not tell what was locked. To lock again:"},
                {"", Command("lock-clocks", gpu, "GRAPHICS MEMORY"), true}};
    }
};

// ---- Power limit ----

/// Whether both are the same limit for the driver, which knows milliwatts.
bool IsSameLimit(double watts, double otherWatts) {
    return std::llround(watts * 1000.0) == std::llround(otherWatts * 1000.0);
}

bool IsInRange(double watts, const GpuPowerCapabilities& capabilities) {
    return watts >= capabilities.MinimumWatts && watts <= capabilities.MaximumWatts;
}

/// Sets the power limit of GPUs to one value or, without one, to their defaults.
class SetPower : public Change {
public:
    explicit SetPower(const TuningOptions& options, std::optional<double> watts = {}) : Change(options), Watts(watts) {}

private:
    OperationResult Apply(unsigned int gpu, std::string* error) override {
        Monitor.GetPowerCapabilities(gpu, &Before);
        return Watts ? Monitor.SetPowerLimit(gpu, *Watts, error) : Monitor.RestoreDefaultPowerLimit(gpu, error);
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
        const bool bChanged = !IsSameLimit(before, now.CurrentWatts) || !IsSameLimit(before, Asked());
        if (!bChanged) return {{"Undo", "not needed: the limit was the same before"}};
        const std::string reset = Command("reset-power", gpu);
        if (IsSameLimit(before, Before.DefaultWatts)) return {{"Undo", reset, true}};
        if (!IsInRange(before, Before)) {
            return {{"Undo", "to the default only; what was in force before cannot be set:"}, {"", reset, true}};
        }
        return {{"Undo", Command("set-power", gpu, WattsNumber(before)), true}};
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
