#ifndef PROCESS_NAMES_H
#define PROCESS_NAMES_H

#include <future>
#include <map>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// Adds to processes what the system knows of them.
class ProcessNames {
public:
    /// Lists `processes`, largest first; with names if they are processes of this system.
    std::vector<FeedProcess> Describe(const std::vector<GpuProcessMemory>& processes, bool bOfThisSystem);

private:
    /// The user's name, or the number while no name is known: the directory service that knows it may not answer.
    std::string UserName(unsigned int userId);

    std::map<unsigned int, std::shared_future<std::string>> UserNames;
};

}  // namespace gpu_feed

#endif  // PROCESS_NAMES_H
