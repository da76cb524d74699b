#include "system_processes.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>

namespace simulated_nvml {

namespace {

/// A few of them suffice for every board.
constexpr size_t kMostOthers = 12;
/// Boards that are asked together share one look at a program, because each look takes microseconds.
constexpr std::chrono::milliseconds kSharedLook{20};

/// Takes a number and the character behind it from the beginning of `text`; 0 when it begins with no number.
uint64_t TakeNumber(std::string_view* text) {
    uint64_t number = 0;
    const char* const end = std::from_chars(text->data(), text->data() + text->size(), number).ptr;
    text->remove_prefix(std::min(static_cast<size_t>(end - text->data()) + 1, text->size()));
    return number;
}

/// When the program under an id began, in the kernel's own unit; nothing when it has ended or is a thread of the
/// kernel.
std::optional<uint64_t> StartOf(unsigned int pid) {
    std::array<char, 1024> buffer{};
    const int file = open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return std::nullopt;
    const ssize_t length = read(file, buffer.data(), buffer.size());
    close(file);
    std::string_view fields(buffer.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
    // The second field is the name in parentheses, in which any character may occur.
    fields.remove_prefix(fields.rfind(')') + 1);
    constexpr int kBlanksBeforeStart = 20;
    for (int i = 0; i < kBlanksBeforeStart; ++i) fields.remove_prefix(fields.find(' ') + 1);
    const uint64_t start = TakeNumber(&fields);
    const uint64_t memoryBytes = TakeNumber(&fields);
    // Threads of the kernel have no memory of their own, nor has an ended program that its parent has not waited for.
    return memoryBytes != 0 ? std::optional(start) : std::nullopt;
}

}  // namespace

unsigned int SystemProcesses::IdAt(size_t place) {
    if (place == 0) return static_cast<unsigned int>(getpid());
    Program& listed = Listed().at(place - 1);
    const auto now = std::chrono::steady_clock::now();
    if (now - listed.LookedAt > kSharedLook) {
        listed.bRuns = StartOf(listed.Pid) == listed.Start;
        listed.LookedAt = now;
    }
    return listed.bRuns ? listed.Pid : 0;
}

std::vector<SystemProcesses::Program> SystemProcesses::LongLived() {
    std::vector<Program> programs;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc"), closedir);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread has this stream.
    for (const dirent* entry = nullptr; folder && (entry = readdir(folder.get())) != nullptr;) {
        std::string_view name = entry->d_name;
        const auto pid = static_cast<unsigned int>(TakeNumber(&name));
        struct stat owner {};
        if (pid == 0 || pid == static_cast<unsigned int>(getpid())) continue;
        const std::optional<uint64_t> start = StartOf(pid);
        if (!start || fstatat(dirfd(folder.get()), entry->d_name, &owner, 0) != 0) continue;
        programs.push_back({pid, *start, owner.st_uid != geteuid(), true, {}});
    }
    std::sort(programs.begin(), programs.end(), [](const Program& a, const Program& b) {
        return std::tie(a.bOfOtherUser, a.Start, a.Pid) < std::tie(b.bOfOtherUser, b.Start, b.Pid);
    });
    if (programs.size() > kMostOthers) programs.resize(kMostOthers);
    return programs;
}

}  // namespace simulated_nvml
