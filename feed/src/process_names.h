#ifndef PROCESS_NAMES_H
#define PROCESS_NAMES_H

#include <future>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "nvml_gpu_monitor.h"
#include "process_stat.h"

namespace gpu_feed {

/// Adds to processes what the system knows of them.
class ProcessNames {
public:
    /// Lists `processes` with what the system knows of them, largest first.
    std::vector<FeedProcess> Describe(const std::vector<GpuProcessMemory>& processes);

private:
    /// A process at an earlier look.
    struct KnownProcess {
        ProcessStat Stat;
        /// When `Stat` was read, and when the process was last listed.
        double MeasuredAt = 0.0;
        double ListedAt = 0.0;
        std::string Name;
        std::string CommandLine;
        std::optional<double> CpuPercent;
    };

    void AddDetails(FeedProcess* entry, double now);
    /// The process with what it does now.
    const KnownProcess& Follow(int pid, const ProcessStat& stat, const std::string& folder, double now);
    void ForgetOld(double now);
    /// The user's name, or the number while no name is known: the directory service that knows it may not answer.
    std::string UserName(unsigned int userId);

    std::map<int, KnownProcess> Processes;
    std::map<unsigned int, std::shared_future<std::string>> UserNames;
};

}  // namespace gpu_feed

#endif  // PROCESS_NAMES_H
