#ifndef PROCESS_NAMES_H
#define PROCESS_NAMES_H

#include <future>
#include <map>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "nvml_gpu_monitor.h"

namespace gpu_feed {

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

}  // namespace gpu_feed

#endif  // PROCESS_NAMES_H
