#include "common/simulate.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <system_error>

#include "common/failure.h"

namespace {

namespace fs = std::filesystem;

constexpr int kMaxBoards = 64;

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

void UseSimulatedNvml(const std::string& boards) {
    const fs::path path = SimulatorPath();
    if (path.empty()) throw Failure("The simulated NVML is not installed with this program.");
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet.
    setenv("NVML_SIM_BOARDS", boards.c_str(), 1);
    // The monitor's own dlopen finds the library that is loaded already, because it has the soname that is asked for.
    if (dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL) == nullptr) {
        throw Failure(std::string("The simulated NVML cannot be loaded: ") + dlerror() + '.');
    }
}

std::string SimulationNotice(bool bChanges) {
    std::string notice = "Simulated GPUs: readings do not come from hardware.";
    if (bChanges && std::getenv("NVML_SIM_STATE") == nullptr) {
        notice += " Changes vanish with this process; NVML_SIM_STATE=FILE keeps them.";
    }
    return notice + '\n';
}

}  // namespace

std::string SimulationError(const std::string& boards) {
    if (IsBoardCount(boards) || IsBoardKindList(boards)) return {};
    return "'" + boards +
           "' is neither a number from 1 to 64 nor a list of kinds such as desktop,laptop,datacenter,old,workstation";
}

std::string Simulate(const std::optional<std::string>& boards, bool bChanges) {
    if (!boards) return {};
    // The parser does not check an empty text.
    if (boards->empty()) throw Failure(SimulationError(*boards) + '.', kExitUsage);
    UseSimulatedNvml(*boards);
    std::cerr << SimulationNotice(bChanges);
    return "--simulate=" + *boards;
}

bool IsNvmlSimulated() {
    void* library = dlopen(kNvmlLibrary, RTLD_LAZY);
    if (library == nullptr) return false;
    const bool bSimulator = dlsym(library, "kSimulatedNvml") != nullptr;
    dlclose(library);
    return bSimulator;
}
