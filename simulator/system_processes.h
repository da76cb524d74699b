#ifndef SYSTEM_PROCESSES_H
#define SYSTEM_PROCESSES_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace simulated_nvml {

/// Programs of this system that boards can show, so that clients which look into /proc find them there: first the
/// client itself, then those of its user, then others, each time the oldest first. Without /proc only the client.
///
/// They are chosen when they are first asked for, and stay the same from then on. Not safe to use from two threads at
/// once.
class SystemProcesses {
public:
    size_t Count() { return 1 + Listed().size(); }
    /// The process id at a place before `Count()`; 0 when that program has ended.
    unsigned int IdAt(size_t place);

private:
    struct Program {
        unsigned int Pid = 0;
        /// Tells the program from a later one with the same id.
        uint64_t Start = 0;
        bool bOfOtherUser = false;
        bool bRuns = true;
        std::chrono::steady_clock::time_point LookedAt;
    };
    static std::vector<Program> LongLived();
    std::vector<Program>& Listed() {
        if (!Others) Others = LongLived();
        return *Others;
    }

    /// Without the client, whose id changes when it forks.
    std::optional<std::vector<Program>> Others;
};

}  // namespace simulated_nvml

#endif  // SYSTEM_PROCESSES_H
