#include "gpu_feed/gpu_summary.h"

#include <time.h>

#include <chrono>

#include "gpu_feed/reading_text.h"

namespace gpu_feed {

namespace {

std::string PeriodText(double seconds) {
    return Number(seconds, seconds < 1.0 ? 2 : 1) + " s";
}

/// A moment of the steady clock as the time of day.
std::string TimeOfDay(const FeedMoment& now, double steadySeconds) {
    using std::chrono::system_clock;
    const std::chrono::duration<double> ago(now.Now - steadySeconds);
    const time_t moment =
        system_clock::to_time_t(now.TimeOfDay - std::chrono::duration_cast<system_clock::duration>(ago));
    tm local{};
    localtime_r(&moment, &local);
    char text[sizeof "hh:mm:ss"];
    return {text, strftime(text, sizeof text, "%H:%M:%S", &local)};
}

std::string SilenceText(const FeedMoment& moment, const FeedGpu& gpu) {
    // The silence of the driver is shown once for all GPUs.
    if (IsDriverHanging(moment)) return "no data";
    const double last = gpu.Latest.TimestampSeconds;
    if (last == 0.0) return "no data yet";
    return "no data since " + TimeOfDay(moment, last) + " (" + Number(AgeOf(moment, gpu), 0) + " s)";
}

std::string StateText(const FeedMoment& moment, const FeedGpu& gpu) {
    switch (StateOf(moment, gpu)) {
        case GpuState::Starting: return "starting";
        case GpuState::Live: return gpu.PeriodSeconds == 0.0 ? "live" : "live, every " + PeriodText(gpu.PeriodSeconds);
        case GpuState::Paused: return "paused";
        case GpuState::NoData: return SilenceText(moment, gpu);
        case GpuState::Unavailable: break;
    }
    return moment.Data->Status;
}

}  // namespace

GpuSummary SummaryOf(const FeedMoment& moment, const std::shared_ptr<const FeedGpu>& gpu) {
    const GpuState state = StateOf(moment, *gpu);
    const bool bKnown = state == GpuState::Live || state == GpuState::Paused;
    const TuningRecord* clocks = moment.Data->FindTuning(gpu->Key, TuningControl::Clocks);
    const bool bLocked = clocks != nullptr && clocks->InForce.What == TuningChange::Kind::LockClocks;
    return {gpu,
            bKnown ? gpu->Latest : GpuTelemetrySample(),
            StateText(moment, *gpu),
            state == GpuState::NoData,
            moment.bSimulated,
            bLocked ? std::optional(clocks->InForce.Pair) : std::nullopt,
            moment.Data->FindOutstanding(gpu->Key, TuningControl::Power) != nullptr};
}

}  // namespace gpu_feed
