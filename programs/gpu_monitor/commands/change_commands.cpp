#include "commands/change_commands.h"

#include <poll.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "commands/gpu_discovery.h"
#include "commands/silent_driver.h"
#include "common/failure.h"
#include "common/left_changes.h"
#include "common/signals.h"
#include "gpu_feed/clock.h"
#include "gpu_feed/reading_text.h"
#include "gpu_feed/tuning_session.h"
#include "gpu_feed/tuning_text.h"
#include "terminal/output.h"
#include "text/change_report.h"
#include "text/json_format.h"
#include "text/tuning_format.h"

using namespace gpu_feed;

namespace {

using Kind = TuningChange::Kind;
using OperationResult = GpuClockOperationResult;

constexpr double kSettleSeconds = 2.0;
/// Released clocks need not change at all.
constexpr double kReleaseSeconds = 0.2;
constexpr int kPauseMs = 50;

class ChangeCommand {
public:
    ChangeCommand(const ChangeOptions& options, const TuningChange& change) : Options(options), Requested(change) {}

    /// Result: the exit status. Throws `Failure`.
    int Run() {
        const std::vector<GpuDeviceInfo> devices = DiscoverGpus(Options.Gpu, &Monitor);
        const std::vector<std::string> missing =
            Options.Gpu.empty() ? UnreadableGpus(devices, &Monitor) : std::vector<std::string>();
        // Not earlier: until here a signal may simply end the program.
        StopDescriptor = CatchStopSignals();
        Monitor.HurryAfter(StopDescriptor);
        std::vector<GpuChange> changes;
        for (const GpuDeviceInfo& device : devices) {
            changes.push_back(ChangeOrExplain(device, [this, &device] { return ChangeGpu(device); }));
            // Printed before the next GPU is changed: only the report says how to undo this change.
            Print(changes.back());
        }
        const int status = Conclude(changes);
        for (const std::string& sentence : missing) std::cerr << sentence << '\n';
        if (Options.bJson) PrintReport(ChangesJson(Requested, changes, missing));
        return missing.empty() || status == kExitNoPermission ? status : kExitFailure;
    }

private:
    GpuChange ChangeGpu(const GpuDeviceInfo& device) {
        GpuTelemetrySample before;
        if (Requested.What == Kind::ResetClocks) before = Read(device.Index);
        const TuningResult result =
            Monitor.Ask([session = Session, device, change = Requested](NvmlGpuMonitor* monitor) {
                return session->Make(monitor, GpuName(device), device, change);
            });
        GpuChange change{device, result.Result};
        if (result.Result == OperationResult::Success) {
            AddReport(result, before, &change);
            ForgetLeftChanges(device, Requested.Control());
            return change;
        }
        change.Error = result.Error;
        change.Advice = Advice(device.Index, result);
        const bool bGone = result.Result == OperationResult::Unsupported && !Answers(device.Index);
        if (bGone) change.Result = OperationResult::Error;
        return change;
    }

    /// Adds what is in force on a GPU that was changed; `before` was read before its clocks were released.
    void AddReport(const TuningResult& result, const GpuTelemetrySample& before, GpuChange* change) {
        const auto runsPair = [this](const GpuTelemetrySample& sample) { return RunsPair(sample, Requested.Pair); };
        const auto hasMoved = [&before](const GpuTelemetrySample& sample) {
            return !RunsPair(sample, {before.GraphicsClockMHz, before.MemoryClockMHz});
        };
        const unsigned int gpu = change->Device.Index;
        const std::string& option = Options.SimulateOption;
        switch (Requested.What) {
            case Kind::LockClocks:
                change->SampleNow = ReadUntil(gpu, kSettleSeconds, runsPair);
                change->Report = LockReport(Requested.Pair, change->SampleNow, gpu, option);
                return;
            case Kind::ResetClocks:
                change->SampleNow = ReadUntil(gpu, kReleaseSeconds, hasMoved);
                change->Report = ReleaseReport(change->SampleNow, gpu, option);
                return;
            case Kind::SetPower:
            case Kind::ResetPower: break;
        }
        change->PowerNow = PowerOf(gpu);
        change->Report = PowerReport(Requested, result.PowerBefore, change->PowerNow, gpu, option);
    }

    GpuTelemetrySample Read(unsigned int gpu) {
        return Monitor.Ask([gpu](NvmlGpuMonitor* monitor) {
            GpuTelemetrySample sample;
            monitor->ReadCurrentSample(gpu, &sample);
            return sample;
        });
    }

    GpuPowerCapabilities PowerOf(unsigned int gpu) {
        return Monitor.Ask([gpu](NvmlGpuMonitor* monitor) {
            GpuPowerCapabilities capabilities;
            monitor->GetPowerCapabilities(gpu, &capabilities);
            return capabilities;
        });
    }

    /// What the GPU says of its clocks, and whether it has answered at all.
    std::pair<GpuClockCapabilities, bool> ClocksOf(unsigned int gpu) {
        return Monitor.Ask([gpu](NvmlGpuMonitor* monitor) {
            GpuClockCapabilities capabilities;
            const bool bAnswers = monitor->GetClockCapabilities(gpu, &capabilities);
            return std::pair(capabilities, bAnswers);
        });
    }

    /// Reads a GPU until `isSettled` returns true, for at most `seconds`, and not again once a stop signal came.
    template <typename IsSettled>
    GpuTelemetrySample ReadUntil(unsigned int gpu, double seconds, IsSettled isSettled) {
        const double deadline = NowSeconds() + seconds;
        GpuTelemetrySample sample;
        pollfd stop = {StopDescriptor, POLLIN, 0};
        do {
            sample = Read(gpu);
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

    void Print(const GpuChange& change) {
        if (change.Result == OperationResult::Success) {
            if (!Options.bJson) PrintReport(Paragraph(change.Device, change.Report, OutputWidth()));
            return;
        }
        std::cerr << GpuInSentence(change.Device) << ": " << change.Error << '\n';
        if (!change.Advice.empty()) std::cerr << change.Advice << '\n';
    }

    std::string Advice(unsigned int gpu, const TuningResult& result) {
        if (Requested.Control() == TuningControl::Power) return PowerAdvice(Requested, result.PowerBefore);
        if (Requested.What == Kind::ResetClocks) return {};
        if (result.Half != HalfLock::None) return HalfLockAdvice(result.Half, gpu, Options.SimulateOption);
        return LockAdvice(Requested.Pair, result.Error, ClocksOf(gpu).first, gpu, Options.SimulateOption);
    }

    /// Whether a GPU that was not changed answers at all. One that is lost has not said that it lacks the control.
    bool Answers(unsigned int gpu) {
        if (Requested.Control() == TuningControl::Clocks) return ClocksOf(gpu).second;
        return PowerOf(gpu).State != GpuCapabilityState::Unavailable;
    }

    const ChangeOptions& Options;
    const TuningChange Requested;
    PatientMonitor Monitor;
    /// Shared with a question that may be left behind.
    const std::shared_ptr<TuningSession> Session = std::make_shared<TuningSession>();
    int StopDescriptor = -1;
    bool bPrinted = false;
};

}  // namespace

int RunChange(const ChangeOptions& options, const TuningChange& change) {
    return ChangeCommand(options, change).Run();
}

GpuChange ChangeOrExplain(const GpuDeviceInfo& device, const std::function<GpuChange()>& change) {
    if (IsDriverLeftBehind()) return {device, OperationResult::Error, "Not tried, because the driver hangs."};
    try {
        return change();
    } catch (const Failure& silence) {
        return {device, OperationResult::Error, std::string(silence.what()) + " The change may be in force."};
    }
}

int Conclude(const std::vector<GpuChange>& changes) {
    const auto isDenied = [](const GpuChange& each) { return each.Result == OperationResult::NoPermission; };
    if (std::any_of(changes.begin(), changes.end(), isDenied)) std::cerr << kRightsAdvice << '\n';
    int status = kExitSuccess;
    for (const GpuChange& change : changes) {
        if (change.Result == OperationResult::NoPermission) return kExitNoPermission;
        if (change.Result == OperationResult::Error) return kExitFailure;
        if (change.Result == OperationResult::Unsupported) status = kExitUnsupported;
    }
    return status;
}
