#ifndef GPU_FEED_CLOCK_H
#define GPU_FEED_CLOCK_H

#include <chrono>

namespace gpu_feed {

/// Seconds of the steady clock, which the timestamps of the samples count too.
inline double NowSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace gpu_feed

#endif  // GPU_FEED_CLOCK_H
