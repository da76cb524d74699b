#include "run/state_log.h"

#include <iostream>

#include "gpu_feed/reading_text.h"

using namespace gpu_feed;

namespace {

/// While the driver is silent for longer, missing readings are no fault of single GPUs.
constexpr double kShortSilenceSeconds = 1.0;

void Print(const std::string& sentence) {
    std::cerr << sentence + '\n';
}

}  // namespace

void StateLog::Note(const FeedMoment& moment) {
    NoteDriver(moment);
    if (moment.Data->State == FeedState::Sampling && moment.DriverSilence < kShortSilenceSeconds) NoteGpus(moment);
}

void StateLog::NoteDriver(const FeedMoment& moment) {
    const bool bHangs = IsDriverHanging(moment);
    if (bHangs != bHanging) Print(bHangs ? DriverSilenceText(moment.DriverSilence) : "The driver answers again.");
    bHanging = bHangs;
    // It is empty while NVML is being started.
    if (moment.Data->Status.empty() || moment.Data->Status == Status) return;
    Status = moment.Data->Status;
    Print(Status);
}

void StateLog::NoteGpus(const FeedMoment& moment) {
    for (const auto& gpu : moment.Data->Gpus) {
        const GpuState state = StateOf(moment, *gpu);
        KnownGpu& known = Known[gpu->Key];
        known.Name = GpuInSentence(gpu->Device);
        if (state == GpuState::NoData && known.bReadings) Print(known.Name + " gives no readings.");
        if (state == GpuState::Live && !known.bReadings) Print(known.Name + " gives readings again.");
        if (state != GpuState::Starting) known.bReadings = state == GpuState::Live;
    }
    for (auto& [key, known] : Known) {
        if (!known.bReadings || moment.Data->Find(key) != nullptr) continue;
        Print(known.Name + " is missing.");
        known.bReadings = false;
    }
}
