#ifndef MONITOR_FUZZ_SAMPLER_H
#define MONITOR_FUZZ_SAMPLER_H

#include <chrono>
#include <cstdint>

/// \file
/// Time and the sampler thread as the fuzz target controls them: the steady clock stands still but for a microsecond
/// per look at it, and the sampler leaves a wait only when it is told to. So no execution sleeps, and all are the same.

namespace monitor_fuzz::sampler {

/// Call it while no sampler runs.
void Reset();

/// How often the sampler has begun a wait.
uint64_t Waits();
/// Returns when it has begun that many. Fails the execution when it does not within a minute.
void AwaitWaits(uint64_t count);
/// The length of the wait that began last, rounded to milliseconds.
std::chrono::milliseconds LatestWait();

/// Lets the current wait and `count` - 1 more end by the passing of time. The sampler must be in a wait.
void LetWaitsPass(unsigned int count);
/// Wakes the sampler without a reason. It must be in a wait.
void WakeSpuriously();

/// Makes the next `std::thread` fail to start.
void RefuseNextThread();
/// Whether a refusal was asked for and has not happened.
bool ThreadRefusalPending();

/// What the steady clock tells next.
double NowSeconds();

}  // namespace monitor_fuzz::sampler

#endif  // MONITOR_FUZZ_SAMPLER_H
