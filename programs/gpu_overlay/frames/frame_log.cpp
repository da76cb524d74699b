#include "frames/frame_log.h"

#include <algorithm>
#include <cmath>
#include <numeric>

std::optional<Distribution> DistributionOf(std::vector<double> values) {
    if (values.empty()) return std::nullopt;
    std::sort(values.begin(), values.end());
    // The smallest value that at least this share of the values does not exceed.
    const auto percentile = [&values](double share) {
        const double rank = std::ceil(share * static_cast<double>(values.size()));
        return values[static_cast<size_t>(rank) - 1];
    };
    const double sum = std::accumulate(values.begin(), values.end(), 0.0);
    return Distribution{values.size(),    sum / static_cast<double>(values.size()),
                        percentile(0.5),  percentile(0.9),
                        percentile(0.99), values.back()};
}

void FrameLog::Begin(uint64_t firstFrame) {
    First = firstFrame;
}

void FrameLog::NoteGpuTime(uint64_t frameNumber, double milliseconds) {
    if (frameNumber <= LatestNoted) return;
    LatestNoted = frameNumber;
    TimesOfProfiler.push_back(milliseconds);
    if (frameNumber >= First && frameNumber - First < Frames.size()) Frames[frameNumber - First].GpuMs = milliseconds;
}
