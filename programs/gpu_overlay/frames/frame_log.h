#ifndef GPU_OVERLAY_FRAME_LOG_H
#define GPU_OVERLAY_FRAME_LOG_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "frames/stage.h"

/// A value of many frames: how it is distributed.
struct Distribution {
    size_t Count;
    double Mean;
    double Median;
    double Percentile90;
    double Percentile99;
    double Worst;
};

/// Nothing when there are no values.
std::optional<Distribution> DistributionOf(std::vector<double> values);

/// A frame that has been drawn; times are in milliseconds.
struct LoggedFrame {
    int Load = 0;
    /// From the end of the frame before to the end of this one.
    double FrameMs = 0.0;
    FrameCost Cost;
    /// 0 when it was not measured.
    double GpuMs = 0.0;
};

/// The frames of a run.
class FrameLog {
public:
    /// The frames that are added next have the numbers from `firstFrame` on, as the profiler counts.
    void Begin(uint64_t firstFrame);
    void Add(const LoggedFrame& frame) { Frames.push_back(frame); }
    /// Notes the GPU time of a frame, which comes some frames later. One that is noted already or is not of this log is
    /// only kept as one of the profiler's times.
    void NoteGpuTime(uint64_t frameNumber, double milliseconds);

    const std::vector<LoggedFrame>& All() const { return Frames; }
    /// Every GPU time that was noted, in the order of the frames.
    const std::vector<double>& GpuTimes() const { return TimesOfProfiler; }

private:
    uint64_t First = 0;
    uint64_t LatestNoted = 0;
    std::vector<LoggedFrame> Frames;
    std::vector<double> TimesOfProfiler;
};

#endif  // GPU_OVERLAY_FRAME_LOG_H
