#ifndef EXAMPLES_PROCESS_NAMES_H
#define EXAMPLES_PROCESS_NAMES_H

#include <cstdint>
#include <future>
#include <map>
#include <string>
#include <vector>

#include "nvml_gpu_monitor.h"

/// A process that uses video memory, as people know it.
struct FeedProcess {
    int Pid = 0;
    uint64_t VramUsedBytes = 0;
    /// Empty when this system does not tell: the process is another container's, for example.
    std::string Name;
    std::string User;
};

/// Tells what the system knows of processes.
class ProcessNames {
public:
    /// `processes`, largest first; with names if they are processes of this system.
    std::vector<FeedProcess> Describe(const std::vector<GpuProcessMemory>& processes, bool bOfThisSystem);

private:
    /// The number until the name is known: a directory service that is asked for it may not answer.
    std::string UserName(unsigned int userId);

    std::map<unsigned int, std::shared_future<std::string>> UserNames;
};

#endif  // EXAMPLES_PROCESS_NAMES_H
