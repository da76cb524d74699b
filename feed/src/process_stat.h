#ifndef PROCESS_STAT_H
#define PROCESS_STAT_H

#include <cstdint>
#include <optional>
#include <string>

namespace gpu_feed {

/// What the kernel says of a process at one moment.
struct ProcessStat {
    /// At most 15 bytes: the kernel cuts longer names off.
    std::string Name;
    /// Whether it has ended, but is still listed because its parent has not asked for its exit status.
    bool bEnded = false;
    /// When the process started, in the kernel's ticks since boot. No two processes of one boot share id and start.
    uint64_t StartTicks = 0;
    /// Processor time of all its threads since it started.
    double CpuSeconds = 0.0;
    /// Resident memory.
    uint64_t MemoryBytes = 0;
};

/// Empty when this system does not know the process.
std::optional<ProcessStat> ReadProcessStat(int pid);

}  // namespace gpu_feed

#endif  // PROCESS_STAT_H
