#include "system_processes.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>

namespace simulated_nvml {

namespace {

/// As many as boards show in turn; a longer list would only make a client read more of /proc.
constexpr size_t kMostOthers = 12;

/// The number that is the whole name of a folder of /proc; 0 for other names.
unsigned int PidOf(std::string_view name) {
    unsigned int pid = 0;
    const auto [rest, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    return error == std::errc() && rest == name.data() + name.size() ? pid : 0;
}

}  // namespace

size_t SystemProcesses::Count() {
    if (!Others) Others = LongLived();
    return 1 + Others->size();
}

unsigned int SystemProcesses::IdAt(size_t place) {
    if (place == 0) return static_cast<unsigned int>(getpid());
    const Program& listed = (*Others)[place - 1];
    const std::optional<Program> now = ProgramOf(listed.Pid);
    return now && now->Start == listed.Start ? listed.Pid : 0;
}

std::optional<SystemProcesses::Program> SystemProcesses::ProgramOf(unsigned int pid) {
    const std::string folder = "/proc/" + std::to_string(pid);
    struct stat owner {};
    std::ifstream file(folder + "/stat");
    std::string line;
    if (stat(folder.c_str(), &owner) != 0 || !std::getline(file, line)) return std::nullopt;
    // The second field is the name in parentheses, in which anything may stand.
    std::istringstream fields(line.substr(std::min(line.rfind(')'), line.size() - 1) + 1));
    constexpr int kFieldsBeforeStart = 19;
    std::string skipped;
    for (int i = 0; i < kFieldsBeforeStart; ++i) fields >> skipped;
    uint64_t start = 0;
    uint64_t memoryBytes = 0;
    fields >> start >> memoryBytes;
    // Ended programs that nobody has waited for and threads of the kernel have no memory of their own.
    if (!fields || memoryBytes == 0) return std::nullopt;
    return Program{pid, start, owner.st_uid != geteuid()};
}

std::vector<SystemProcesses::Program> SystemProcesses::LongLived() {
    std::vector<Program> programs;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc"), closedir);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread has this stream.
    for (const dirent* entry = nullptr; folder && (entry = readdir(folder.get())) != nullptr;) {
        const unsigned int pid = PidOf(entry->d_name);
        if (pid == 0 || pid == static_cast<unsigned int>(getpid())) continue;
        if (const std::optional<Program> program = ProgramOf(pid)) programs.push_back(*program);
    }
    std::sort(programs.begin(), programs.end(), [](const Program& a, const Program& b) {
        return std::tie(a.bOfOtherUser, a.Start, a.Pid) < std::tie(b.bOfOtherUser, b.Start, b.Pid);
    });
    programs.resize(std::min(programs.size(), kMostOthers), Program{});
    return programs;
}

}  // namespace simulated_nvml
