#include "common/simulate.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string_view>
#include <system_error>

#include "common/failure.h"

namespace {

namespace fs = std::filesystem;

constexpr int kMaxBoards = 64;
constexpr const char* kBoardsVariable = "NVML_SIM_BOARDS";
/// Begins a value that names a recording to play.
constexpr std::string_view kRecording = "recording:";

bool IsRecording(const std::string& boards) {
    return boards.size() > kRecording.size() && boards.compare(0, kRecording.size(), kRecording) == 0;
}

bool IsBoardCount(const std::string& text) {
    if (text.empty() || text.size() > 2) return false;
    if (text.find_first_not_of("0123456789") != std::string::npos) return false;
    const int count = std::stoi(text);
    return count >= 1 && count <= kMaxBoards;
}

bool IsBoardKind(const std::string& text) {
    return text == "desktop" || text == "laptop" || text == "datacenter" || text == "old" || text == "workstation";
}

bool IsBoardKindList(const std::string& text) {
    // std::getline does not see an empty word after a comma at the end.
    if (text.empty() || text.back() == ',') return false;
    if (std::count(text.begin(), text.end(), ',') >= kMaxBoards) return false;
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ',');) {
        if (!IsBoardKind(word)) return false;
    }
    return true;
}

/// The simulator's library file in the build tree or, next, where it is installed; empty when it is in neither.
fs::path SimulatorPath() {
    const fs::path programs = fs::read_symlink("/proc/self/exe").parent_path();
    for (const char* folder : {"../simulator", "../lib/nvml_gpu_monitor/simulator"}) {
        fs::path path = programs / folder / kNvmlLibrary;
        std::error_code ignored;
        if (fs::exists(path, ignored)) return path;
    }
    return {};
}

/// Whether `boards` makes sense without a look at a file or at what the environment variable says.
bool IsCountOrKinds(const std::string& boards) {
    return IsBoardCount(boards) || IsBoardKindList(boards);
}

/// The simulator prints why it does not start. A program that waits for a driver would have it print that again and
/// again.
void RequireStart(void* simulator) {
    const auto call = [simulator](const char* name) {
        return reinterpret_cast<unsigned int (*)()>(dlsym(simulator, name))();
    };
    if (call("nvmlInit_v2") != 0) throw Failure("NVML initialization failed.");
    call("nvmlShutdown");
}

void UseSimulatedNvml(const std::string& boards) {
    const fs::path path = SimulatorPath();
    if (path.empty()) {
        throw Failure(
            "The simulated NVML is not installed with this program: it is in the package nvml-gpu-monitor-simulator.");
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet.
    setenv(kBoardsVariable, boards.c_str(), 1);
    // The monitor's own dlopen finds the library that is loaded already, because it has the soname that is asked for.
    void* const simulator = dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (simulator == nullptr) throw Failure(std::string("The simulated NVML cannot be loaded: ") + dlerror() + '.');
    if (!IsCountOrKinds(boards)) RequireStart(simulator);
}

std::string SimulationNotice(const std::string& boards, bool bChanges) {
    // Recorded GPUs refuse every change.
    if (IsRecording(boards)) return "Simulated GPUs: readings come from " + boards.substr(kRecording.size()) + ".\n";
    std::string notice = "Simulated GPUs: readings do not come from hardware.";
    if (bChanges && std::getenv("NVML_SIM_STATE") == nullptr) {
        notice += " Changes vanish with this process; NVML_SIM_STATE=FILE keeps them.";
    }
    return notice + '\n';
}

/// As the user has to type it in a shell. Only the path of a recording can need quotes.
std::string SimulateOption(const std::string& boards) {
    const auto isPlain = [](unsigned char c) { return std::isalnum(c) != 0 || std::strchr(",:./_-", c) != nullptr; };
    if (std::all_of(boards.begin(), boards.end(), isPlain)) return "--simulate=" + boards;
    std::string quoted = "--simulate='";
    for (const char character : boards) quoted += character == '\'' ? "'\\''" : std::string(1, character);
    return quoted + '\'';
}

}  // namespace

std::string DefaultBoards() {
    const char* const boards = std::getenv(kBoardsVariable);
    return boards == nullptr || *boards == '\0' ? "1" : boards;
}

std::string SimulationError(const std::string& boards) {
    // The simulator itself says what is wrong with a recording and with the environment variable.
    if (IsRecording(boards) || boards == DefaultBoards() || IsCountOrKinds(boards)) return {};
    return "'" + boards +
           "' is neither a number from 1 to 64 nor a list of kinds such as desktop,laptop,datacenter,old,workstation "
           "nor recording:FILE";
}

std::string Simulate(const std::optional<std::string>& boards, bool bChanges) {
    if (!boards) return {};
    // The parser does not check an empty text.
    if (boards->empty()) throw Failure(SimulationError(*boards) + '.', kExitUsage);
    UseSimulatedNvml(*boards);
    std::cerr << SimulationNotice(*boards, bChanges);
    return SimulateOption(*boards);
}

bool IsNvmlSimulated() {
    void* library = dlopen(kNvmlLibrary, RTLD_LAZY);
    if (library == nullptr) return false;
    const bool bSimulator = dlsym(library, "kSimulatedNvml") != nullptr;
    dlclose(library);
    return bSimulator;
}
