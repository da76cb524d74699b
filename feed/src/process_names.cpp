#include "process_names.h"

#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <new>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>

namespace gpu_feed {

namespace {

/// The kernel cuts longer names off.
constexpr size_t kKernelNameLength = 15;
constexpr size_t kUserBufferBytes = 16384;
/// How long a look-up usually takes at most.
constexpr std::chrono::milliseconds kUsualLookUp(20);

/// The kernel's name of a process; where it is cut off, the name of the program's file if that begins with it.
std::string ProgramName(const std::string& folder) {
    std::string name;
    std::getline(std::ifstream(folder + "/comm"), name);
    if (name.size() < kKernelNameLength) return name;
    std::error_code unreadable;
    std::string program = std::filesystem::read_symlink(folder + "/exe", unreadable).filename().string();
    return program.compare(0, name.size(), name) == 0 ? program : name;
}

/// The number where the system knows no name, or memory does not suffice for it.
std::string NameOfUser(uid_t userId) {
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, kUserBufferBytes> buffer{};
    const int error = getpwuid_r(userId, &entry, buffer.data(), buffer.size(), &found);
    try {
        if (error == 0 && found != nullptr) return entry.pw_name;
    } catch (const std::bad_alloc&) {
    }
    return std::to_string(userId);
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

std::string ProcessNames::UserName(unsigned int userId) {
    auto known = UserNames.find(userId);
    if (known == UserNames.end()) {
        std::packaged_task<std::string()> lookUp([userId] { return NameOfUser(userId); });
        std::shared_future<std::string> name = lookUp.get_future().share();
        try {
            std::thread(std::move(lookUp)).detach();
        } catch (const std::system_error&) {
            // No thread can be started now; the next look tries again.
            return std::to_string(userId);
        }
        name.wait_for(kUsualLookUp);
        known = UserNames.emplace(userId, std::move(name)).first;
    }
    const bool bAnswered = known->second.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    return bAnswered ? known->second.get() : std::to_string(userId);
}

}  // namespace gpu_feed
