#ifndef EXAMPLES_CLOCK_H
#define EXAMPLES_CLOCK_H

#include <chrono>

/// Seconds of the steady clock, which the timestamps of the samples count too.
inline double NowSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

#endif  // EXAMPLES_CLOCK_H
