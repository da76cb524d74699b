#include "process_names.h"

#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>
#include <utility>

namespace gpu_feed {

namespace {

/// The kernel cuts longer names off.
constexpr size_t kKernelNameLength = 15;
constexpr size_t kUserBufferBytes = 16384;
constexpr std::chrono::milliseconds kUsualLookUp(20);

/// The name that the kernel gives or, where that is cut off, the file's name of which it is the beginning.
std::string ProgramName(const std::string& folder) {
    std::string name;
    std::getline(std::ifstream(folder + "/comm"), name);
    if (name.size() < kKernelNameLength) return name;
    std::error_code unreadable;
    std::string program = std::filesystem::read_symlink(folder + "/exe", unreadable).filename().string();
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

std::string ProcessNames::UserName(unsigned int userId) {
    std::shared_future<std::string>& name = UserNames[userId];
    if (!name.valid()) {
        std::packaged_task<std::string()> lookUp([userId] { return NameOfUser(userId); });
        name = lookUp.get_future().share();
        std::thread(std::move(lookUp)).detach();
        name.wait_for(kUsualLookUp);
    }
    const bool bKnown = name.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    return bKnown ? name.get() : std::to_string(userId);
}

}  // namespace gpu_feed
