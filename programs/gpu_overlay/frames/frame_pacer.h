#ifndef GPU_OVERLAY_FRAME_PACER_H
#define GPU_OVERLAY_FRAME_PACER_H

#include <chrono>

/// Keeps frames from following each other faster than they can be seen.
class FramePacer {
public:
    /// Ends a frame: waits until `framesPerSecond` leave room for the next one.
    void Wait(double framesPerSecond);

private:
    std::chrono::steady_clock::time_point Next{};
};

#endif  // GPU_OVERLAY_FRAME_PACER_H
