#include "watch.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

#include "clock.h"
#include "failure.h"
#include "readings.h"

namespace {

constexpr unsigned int kMissedCyclesOfLostGpu = 3;
constexpr double kSilentPeriods = 3.0;
constexpr double kMinimumSilenceSeconds = 5.0;

std::string SecondsText(double seconds) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(seconds < 2.0 ? 1 : 0) << seconds << " s";
    return text.str();
}

std::string SilentGpu(unsigned int index, double seconds) {
    return "GPU " + std::to_string(index) + " has given no reading for " + SecondsText(seconds);
}

}  // namespace

Watch::Watch(std::optional<unsigned int> onlyGpu, double startedAt)
    : OnlyGpu(onlyGpu), StartedAt(startedAt), LastReadingAt(startedAt) {}

void Watch::OnCycle(unsigned int index, const GpuTelemetrySample* sample) {
    GpuState& gpu = Gpus.try_emplace(index, GpuState{StartedAt}).first->second;
    if (sample != nullptr && HasAnyReading(*sample)) {
        gpu.MissedCycles = 0;
        gpu.LastReadingAt = sample->TimestampSeconds;
        LastReadingAt = std::max(LastReadingAt, gpu.LastReadingAt);
        bReadingSinceLook = true;
    } else if (++gpu.MissedCycles >= kMissedCyclesOfLostGpu && !gpu.bReported) {
        gpu.bReported = true;
        std::cerr << SilentGpu(index, NowSeconds() - gpu.LastReadingAt) << "; it may be lost.\n";
    }
}

void Watch::OnLook(double now, double period) {
    // Not counted from the last reading: that one is old, and all is well, when the process was suspended.
    if (bReadingSinceLook) {
        SilentSince.reset();
    } else if (!SilentSince) {
        SilentSince = now;
    }
    bReadingSinceLook = false;
    if (!SilentSince || now - *SilentSince < std::max(kSilentPeriods * period, kMinimumSilenceSeconds)) return;
    const double silence = now - LastReadingAt;
    throw Failure(OnlyGpu ? SilentGpu(*OnlyGpu, silence) + '.'
                          : "No GPU has given a reading for " + SecondsText(silence) + '.');
}
