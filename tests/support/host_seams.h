#ifndef HOST_SEAMS_H
#define HOST_SEAMS_H

#include <chrono>
#include <cstdint>
#include <vector>

/// What stands between the module and the rest of the process: threads, timed waits. Linked over the real
/// functions in the test programs only.
namespace host_seams {

/// Everything works, nothing is remembered.
void Reset();

/// Makes std::thread fail as it does when the system has none to give.
void RefuseThreads(bool bRefuse);

/// A timed wait on a condition variable.
struct TimedWait {
    std::chrono::nanoseconds Deadline;
    std::chrono::nanoseconds Duration;
};
/// The waits so far; a wait that goes on after a wake-up is listed again.
std::vector<TimedWait> TimedWaits();
/// Blocks until `count` waits have begun. False when that takes longer than any sane machine needs.
bool WaitForTimedWaits(size_t count);
/// Wakes the next `count` waits at once, without a notification and before their deadline.
void WakeSpuriously(int count);

}  // namespace host_seams

#endif  // HOST_SEAMS_H
