#include "frames/frame_pacer.h"

#include <algorithm>
#include <thread>

void FramePacer::Wait(double framesPerSecond) {
    using Clock = std::chrono::steady_clock;
    std::this_thread::sleep_until(Next);
    const std::chrono::duration<double> period(1.0 / framesPerSecond);
    // A late frame does not hurry those that follow it.
    Next = std::max(Next, Clock::now() - std::chrono::duration_cast<Clock::duration>(period)) +
           std::chrono::duration_cast<Clock::duration>(period);
}
