#include "commands/change_commands.h"

#include <poll.h>

#include <algorithm>
#include <iostream>
#include <utility>
#include <vector>

#include "commands/gpu_discovery.h"
#include "commands/undo.h"
#include "gpu_feed/clock.h"
#include "gpu_feed/tuning_session.h"
#include "terminal/failure.h"
#include "terminal/output.h"
#include "terminal/signals.h"
#include "text/change_report.h"
#include "text/change_text.h"
#include "text/text_layout.h"
#include "text/tuning_format.h"

using namespace gpu_feed;

namespace {

using Kind = TuningChange::Kind;
using OperationResult = GpuClockOperationResult;

constexpr double kSettleSeconds = 2.0;
/// Released clocks need not change at all.
constexpr double kReleaseSeconds = 0.2;
constexpr int kPauseMs = 50;

/// Of several GPUs, the first failure counts. A GPU that does not support the change is a failure only when no GPU was
/// changed.
int ExitStatus(const std::vector<OperationResult>& results) {
    for (const OperationResult result : results) {
        if (result == OperationResult::NoPermission) return kExitNoPermission;
        if (result == OperationResult::Error) return kExitFailure;
    }
    const bool bChanged = std::find(results.begin(), results.end(), OperationResult::Success) != results.end();
    return bChanged ? kExitSuccess : kExitUnsupported;
}

class ChangeCommand {
public:
    ChangeCommand(const ChangeOptions& options, const TuningChange& change) : Options(options), Requested(change) {}

    /// Result: the exit status. Throws `Failure`.
    int Run() {
        const std::vector<GpuDeviceInfo> devices = DiscoverGpus(Options.Gpu, &Monitor);
        // Not earlier: until here a signal may simply end the program.
        StopDescriptor = CatchStopSignals();
        std::vector<OperationResult> results;
        results.reserve(devices.size());
        for (const GpuDeviceInfo& device : devices) results.push_back(ChangeGpu(device));
        const bool bDenied = std::find(results.begin(), results.end(), OperationResult::NoPermission) != results.end();
        if (bDenied) std::cerr << kRightsAdvice << '\n';
        return ExitStatus(results);
    }

private:
    OperationResult ChangeGpu(const GpuDeviceInfo& device) {
        GpuTelemetrySample before;
        if (Requested.What == Kind::ResetClocks) Monitor.ReadCurrentSample(device.Index, &before);
        const TuningResult result = Session.Make(&Monitor, GpuName(device), device, Requested);
        if (result.Result == OperationResult::Success) {
            // Printed before the next GPU is changed: only the report says how to undo this change.
            PrintReport(Paragraph(device, Report(device.Index, result, before), OutputWidth()));
            ForgetLeftChanges(device, Requested.Control());
            return result.Result;
        }
        PrintFailure(device, result);
        const bool bGone = result.Result == OperationResult::Unsupported && !Answers(device.Index);
        return bGone ? OperationResult::Error : result.Result;
    }

    /// What is in force on a GPU that was changed; `before` was read before its clocks were released.
    Details Report(unsigned int gpu, const TuningResult& result, const GpuTelemetrySample& before) {
        const auto runsPair = [this](const GpuTelemetrySample& sample) { return RunsPair(sample, Requested.Pair); };
        const auto hasMoved = [&before](const GpuTelemetrySample& sample) {
            return !RunsPair(sample, {before.GraphicsClockMHz, before.MemoryClockMHz});
        };
        const std::string& option = Options.SimulateOption;
        switch (Requested.What) {
            case Kind::LockClocks:
                return LockReport(Requested.Pair, ReadUntil(gpu, kSettleSeconds, runsPair), gpu, option);
            case Kind::ResetClocks: return ReleaseReport(ReadUntil(gpu, kReleaseSeconds, hasMoved), gpu, option);
            case Kind::SetPower:
            case Kind::ResetPower: break;
        }
        GpuPowerCapabilities now;
        Monitor.GetPowerCapabilities(gpu, &now);
        return PowerReport(Requested, result.PowerBefore, now, gpu, option);
    }

    /// Reads a GPU until `isSettled` returns true, for at most `seconds`, and not again once a stop signal came.
    template <typename IsSettled>
    GpuTelemetrySample ReadUntil(unsigned int gpu, double seconds, IsSettled isSettled) {
        const double deadline = NowSeconds() + seconds;
        GpuTelemetrySample sample;
        pollfd stop = {StopDescriptor, POLLIN, 0};
        do {
            Monitor.ReadCurrentSample(gpu, &sample);
        } while (!isSettled(sample) && NowSeconds() < deadline && poll(&stop, 1, kPauseMs) == 0);
        return sample;
    }

    void PrintReport(const std::string& report) {
        try {
            WriteOutput((std::exchange(bPrinted, true) ? "\n" : "") + report);
        } catch (const Failure& failure) {
            throw Failure(std::string(failure.what()) + " The GPU was changed all the same.");
        }
    }

    void PrintFailure(const GpuDeviceInfo& device, const TuningResult& result) {
        std::cerr << GpuInSentence(device) << ": " << result.Error << '\n';
        const std::string advice = Advice(device.Index, result);
        if (!advice.empty()) std::cerr << advice << '\n';
    }

    std::string Advice(unsigned int gpu, const TuningResult& result) {
        if (Requested.Control() == TuningControl::Power) return PowerAdvice(Requested, result.PowerBefore);
        if (Requested.What == Kind::ResetClocks) return {};
        if (result.Half != HalfLock::None) return HalfLockAdvice(result.Half, gpu, Options.SimulateOption);
        GpuClockCapabilities capabilities;
        Monitor.GetClockCapabilities(gpu, &capabilities);
        return LockAdvice(Requested.Pair, result.Error, capabilities, gpu, Options.SimulateOption);
    }

    /// Whether a GPU that was not changed answers at all. One that is lost has not said that it lacks the control.
    bool Answers(unsigned int gpu) {
        if (Requested.Control() == TuningControl::Clocks) {
            GpuClockCapabilities capabilities;
            return Monitor.GetClockCapabilities(gpu, &capabilities);
        }
        GpuPowerCapabilities capabilities;
        return Monitor.GetPowerCapabilities(gpu, &capabilities) &&
               capabilities.State != GpuCapabilityState::Unavailable;
    }

    const ChangeOptions& Options;
    const TuningChange Requested;
    NvmlGpuMonitor Monitor;
    TuningSession Session;
    int StopDescriptor = -1;
    bool bPrinted = false;
};

}  // namespace

int RunChange(const ChangeOptions& options, const TuningChange& change) {
    return ChangeCommand(options, change).Run();
}
