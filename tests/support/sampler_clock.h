#ifndef SAMPLER_CLOCK_H
#define SAMPLER_CLOCK_H

#include <chrono>
#include <cstdint>

/// \file
/// The steady clock, timed waits on it and the start of threads, as a test controls them. The CMake target
/// `sampler_clock` links this over the standard library's functions, for the program's own code and its static
/// libraries.

namespace sampler_clock {

/// As at the start of a program: time passes, no wait has begun, and threads start. Call it while no thread waits.
void Reset();

/// Holds the clock: it moves on by one microsecond each time that it is read, and a timed wait ends only by a
/// notification, `PassWaits` or `WakeSpuriously`. Call it while no thread waits. While the clock is held, only one
/// thread at a time may wait by it; the test itself waits by the wall clock. A wait that nothing ends for a minute ends
/// the program.
void Hold();
/// Moves the held clock to the deadline of the present wait, which ends it, and does the same with the `count` - 1
/// waits that follow. A thread must have begun a wait.
void PassWaits(unsigned int count = 1);
/// Wakes the thread whose wait began last, without a notification and before its deadline. The clock need not be held.
inline void WakeSpuriously() {
    PassWaits(0);
}

struct TimedWait {
    std::chrono::nanoseconds Deadline{};
    std::chrono::nanoseconds Duration{};
};
/// How many waits have begun. One that goes on after a wake-up is counted again.
uint64_t WaitsBegun();
/// The wait that began last.
TimedWait LatestWait();
/// Returns when `count` waits have begun. False: that took more than a minute.
bool AwaitWaits(uint64_t count);

/// Makes the next `count` starts of a `std::thread` fail as they do when the system has no thread left.
void RefuseThreads(unsigned int count);

}  // namespace sampler_clock

#endif  // SAMPLER_CLOCK_H
