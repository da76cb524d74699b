#ifndef FAILING_MEMORY_H
#define FAILING_MEMORY_H

#include <atomic>
#include <cstdint>

/// The program's memory, which can be made to run out. Apart from what uses it, so that no compiler sees both ends of
/// an allocation and takes them for a mismatch.
namespace failing_memory {

/// Allocations of the monitor, on any thread, until one throws, that one included; 0 for none.
extern std::atomic<uint64_t> AllocationsUntilFailure;
extern std::atomic<bool> bAllocationFailed;
/// This thread is at work for the checks, not for the monitor.
extern thread_local bool bChecking;

}  // namespace failing_memory

#endif  // FAILING_MEMORY_H
