#include "process_names.h"

#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <tuple>

namespace {

/// The kernel cuts longer names off.
constexpr size_t kKernelNameLength = 15;
constexpr size_t kUserBufferBytes = 16384;

std::string FirstLine(const std::string& path, char end) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line, end);
    return line;
}

/// The name that the kernel gives or, where that is cut off, the file's name of which it is the beginning.
std::string ProgramName(const std::string& folder) {
    std::string name = FirstLine(folder + "/comm", '\n');
    if (name.size() < kKernelNameLength) return name;
    std::string program = FirstLine(folder + "/cmdline", '\0');
    program.erase(0, program.rfind('/') + 1);
    return program.compare(0, name.size(), name) == 0 ? program : name;
}

std::string NameOfUser(uid_t userId) {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(kUserBufferBytes);
    const int error = getpwuid_r(userId, &entry, buffer.data(), buffer.size(), &found);
    return error == 0 && found != nullptr ? entry.pw_name : std::to_string(userId);
}

}  // namespace

std::vector<FeedProcess> ProcessNames::Describe(const std::vector<GpuProcessMemory>& processes, bool bOfThisSystem) {
    std::vector<FeedProcess> described;
    for (const GpuProcessMemory& process : processes) {
        FeedProcess& entry = described.emplace_back(FeedProcess{process.Pid, process.VramUsedBytes, {}, {}});
        const std::string folder = "/proc/" + std::to_string(process.Pid);
        struct stat status {};
        if (!bOfThisSystem || stat(folder.c_str(), &status) != 0) continue;
        entry.Name = ProgramName(folder);
        entry.User = UserName(status.st_uid);
    }
    std::sort(described.begin(), described.end(), [](const FeedProcess& a, const FeedProcess& b) {
        return std::tie(b.VramUsedBytes, a.Pid) < std::tie(a.VramUsedBytes, b.Pid);
    });
    return described;
}

const std::string& ProcessNames::UserName(unsigned int userId) {
    const auto known = UserNames.find(userId);
    return known != UserNames.end() ? known->second : UserNames.emplace(userId, NameOfUser(userId)).first->second;
}
