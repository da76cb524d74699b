#include "process_names.h"

#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>

#include "gpu_feed/clock.h"

namespace gpu_feed {

namespace {

/// The kernel cuts longer names off.
constexpr size_t kKernelNameLength = 15;
constexpr size_t kUserBufferBytes = 16384;
/// How long a look-up usually takes at most.
constexpr std::chrono::milliseconds kUsualLookUp(20);

/// In bytes; longer ones are cut off.
constexpr size_t kLongestCommandLine = 4096;
/// The kernel counts processor time in hundredths of a second, so shorter times say little.
constexpr double kShortestMeasurement = 0.5;
constexpr double kForgottenAfterSeconds = 60.0;

/// The kernel's `name` of a process; where it is cut off, the name of the program's file if that begins with it.
std::string ProgramName(const std::string& name, const std::string& folder) {
    if (name.size() < kKernelNameLength) return name;
    std::error_code unreadable;
    std::string program = std::filesystem::read_symlink(folder + "/exe", unreadable).filename().string();
    return program.compare(0, name.size(), name) == 0 ? program : name;
}

/// The program and its arguments, with blanks between them and a question mark for each control character.
std::string CommandLine(const std::string& folder) {
    constexpr unsigned char kDelete = 0x7F;
    std::string line(kLongestCommandLine, '\0');
    std::ifstream file(folder + "/cmdline");
    file.read(line.data(), static_cast<std::streamsize>(line.size()));
    line.resize(static_cast<size_t>(file.gcount()));
    line.erase(line.find_last_not_of(std::string(" \0", 2)) + 1);
    for (char& character : line) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < ' ' || byte == kDelete) character = byte == 0 ? ' ' : '?';
    }
    return line;
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

std::vector<FeedProcess> ProcessNames::Describe(const std::vector<GpuProcessMemory>& processes) {
    const double now = NowSeconds();
    std::vector<FeedProcess> described;
    for (const GpuProcessMemory& process : processes) {
        FeedProcess& entry = described.emplace_back();
        entry.Pid = process.Pid;
        entry.VramUsedBytes = process.VramUsedBytes;
        AddDetails(&entry, now);
    }
    ForgetOld(now);
    std::sort(described.begin(), described.end(), [](const FeedProcess& a, const FeedProcess& b) {
        return std::tie(b.VramUsedBytes, a.Pid) < std::tie(a.VramUsedBytes, b.Pid);
    });
    return described;
}

void ProcessNames::AddDetails(FeedProcess* entry, double now) {
    const std::string folder = "/proc/" + std::to_string(entry->Pid);
    const std::optional<ProcessStat> stat = ReadProcessStat(entry->Pid);
    struct stat status {};
    if (!stat || ::stat(folder.c_str(), &status) != 0) return;
    const KnownProcess& process = Follow(entry->Pid, *stat, folder, now);
    entry->Name = process.Name;
    entry->User = UserName(status.st_uid);
    entry->CommandLine = process.CommandLine;
    entry->CpuPercent = process.CpuPercent;
    entry->MemoryBytes = stat->MemoryBytes;
}

const ProcessNames::KnownProcess& ProcessNames::Follow(int pid, const ProcessStat& stat, const std::string& folder,
                                                       double now) {
    KnownProcess& process = Processes[pid];
    const double elapsed = now - process.MeasuredAt;
    if (process.Stat.StartTicks != stat.StartTicks || process.Stat.Name != stat.Name) {
        process = {stat, now, now, ProgramName(stat.Name, folder), CommandLine(folder), std::nullopt};
    } else if (elapsed >= kShortestMeasurement) {
        process.CpuPercent = 100.0 * (stat.CpuSeconds - process.Stat.CpuSeconds) / elapsed;
        process.Stat = stat;
        process.MeasuredAt = now;
    }
    process.ListedAt = now;
    return process;
}

void ProcessNames::ForgetOld(double now) {
    for (auto process = Processes.begin(); process != Processes.end();) {
        const bool bOld = now - process->second.ListedAt > kForgottenAfterSeconds;
        process = bOld ? Processes.erase(process) : std::next(process);
    }
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
