#ifndef FAILING_MEMORY_H
#define FAILING_MEMORY_H

#include <atomic>
#include <cstdint>

/// \file
/// The program's `operator new`, which a test can make fail. It has a source of its own, so that no compiler sees an
/// allocation together with its release and takes the two for a mismatch.

namespace failing_memory {

/// The n-th allocation from now on throws, on whichever thread; with 0, every allocation succeeds. Allocations of the
/// simulator and of threads that are `bChecking` are not counted.
extern std::atomic<uint64_t> AllocationsUntilFailure;
/// Set when an allocation has thrown.
extern std::atomic<bool> bAllocationFailed;
/// This thread works for the test, not for the monitor.
extern thread_local bool bChecking;

}  // namespace failing_memory

#endif  // FAILING_MEMORY_H
