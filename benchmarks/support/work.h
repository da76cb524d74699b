#ifndef WORK_H
#define WORK_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// What a piece of code asked of others: lookups and calls of NVML in order, and memory.
struct Work {
    /// "dlsym NAME" and calls with their arguments.
    std::vector<std::string> Log;
    uint64_t Allocations = 0;
    uint64_t AllocatedBytes = 0;
};

/// Runs `action` and tells its work, on whichever threads. Nothing else may run meanwhile.
Work WorkOf(const std::function<void()>& action);

/// Ends the program with a message when the work is not the same, because then a comparison of times says nothing.
void RequireSameWork(const char* what, const Work& measured, const Work& byHand);

/// Without the lookups, for a comparison with code that has none.
Work WithoutLookups(Work work);

#endif  // WORK_H
