#include "environment.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>

namespace simulated_nvml {

namespace {

constexpr uint64_t kMaxBoards = 64;
constexpr const char* kRecording = "recording:";

using BoardMaker = Board (*)(unsigned int index);
struct BoardKind {
    const char* Name;
    BoardMaker Make;
};
constexpr BoardKind kBoardKinds[] = {{"desktop", DesktopBoard},
                                     {"laptop", LaptopBoard},
                                     {"datacenter", DataCenterBoard},
                                     {"old", OldBoard},
                                     {"workstation", WorkstationBoard}};

std::optional<std::string> Variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

std::optional<uint64_t> WholeNumber(const std::string& text) {
    uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end ? std::optional<uint64_t>(number) : std::nullopt;
}

std::vector<std::string> SplitAtCommas(const std::string& text) {
    std::vector<std::string> parts(1);
    for (const char character : text) {
        if (character == ',') {
            parts.emplace_back();
        } else {
            parts.back() += character;
        }
    }
    return parts;
}

BoardMaker MakerOf(const std::string& kind) {
    for (const BoardKind& candidate : kBoardKinds) {
        if (kind == candidate.Name) return candidate.Make;
    }
    return nullptr;
}

/// The makers that NVML_SIM_BOARDS names, one per board; empty when it makes no sense.
std::vector<BoardMaker> BoardMakers(const std::string& value) {
    std::vector<BoardMaker> makers;
    if (const std::optional<uint64_t> count = WholeNumber(value)) {
        if (*count > kMaxBoards) return {};
        for (uint64_t i = 0; i < *count; ++i) makers.push_back(kBoardKinds[i % std::size(kBoardKinds)].Make);
        return makers;
    }
    for (const std::string& kind : SplitAtCommas(value)) {
        makers.push_back(MakerOf(kind));
        if (makers.back() == nullptr || makers.size() > kMaxBoards) return {};
    }
    return makers;
}

bool ReadBoards(Environment* environment) {
    const std::string value = Variable("NVML_SIM_BOARDS").value_or("1");
    if (value.rfind(kRecording, 0) == 0) {
        environment->Boards = RecordedBoards(value.substr(std::strlen(kRecording)));
        return true;
    }
    for (const BoardMaker make : BoardMakers(value)) {
        environment->Boards.push_back(make(static_cast<unsigned int>(environment->Boards.size())));
    }
    return !environment->Boards.empty();
}

bool ReadSeed(Environment* environment) {
    const std::optional<std::string> text = Variable("NVML_SIM_SEED");
    if (!text.has_value()) return true;
    const std::optional<uint64_t> seed = WholeNumber(*text);
    environment->Seed = seed.value_or(0);
    return seed.has_value();
}

bool ReadDelays(Environment* environment) {
    const std::optional<std::string> delays = Variable("NVML_SIM_DELAYS");
    environment->bRealisticDelays = delays == "realistic";
    return !delays.has_value() || *delays == "realistic" || *delays == "none";
}

bool ReadRights(Environment* environment) {
    const std::optional<std::string> rights = Variable("NVML_SIM_RIGHTS");
    environment->bAdministrator = rights != "user";
    return !rights.has_value() || *rights == "user" || *rights == "admin";
}

bool ReadStatePath(Environment* environment) {
    const std::optional<std::string> path = Variable("NVML_SIM_STATE");
    if (!path.has_value()) return true;
    if (path->empty()) return false;
    // The client may change its working directory. If that directory no longer exists, the path has to be absolute.
    std::error_code error;
    environment->StatePath = std::filesystem::absolute(*path, error).string();
    return !error;
}

/// Reads what a variable says as GPU@CALLS.
bool ReadCallCounts(const char* name, size_t boardCount, std::map<unsigned int, uint64_t>* counts) {
    const std::optional<std::string> entries = Variable(name);
    if (!entries.has_value()) return true;
    for (const std::string& entry : SplitAtCommas(*entries)) {
        const size_t at = entry.find('@');
        if (at == std::string::npos) return false;
        const std::optional<uint64_t> board = WholeNumber(entry.substr(0, at));
        const std::optional<uint64_t> calls = WholeNumber(entry.substr(at + 1));
        if (!board.has_value() || *board >= boardCount || !calls.has_value()) return false;
        if (!counts->emplace(static_cast<unsigned int>(*board), *calls).second) return false;
    }
    return true;
}

bool ReadLosses(Environment* environment) {
    return ReadCallCounts("NVML_SIM_LOSE", environment->Boards.size(), &environment->LostAfterCalls);
}

bool ReadHangs(Environment* environment) {
    return ReadCallCounts("NVML_SIM_HANG", environment->Boards.size(), &environment->HangsAfterCalls);
}

struct Setting {
    const char* Name;
    bool (*Read)(Environment* environment);
    const char* Expected;
};
constexpr const char* kCallCounts = "GPU@CALLS with the index of a simulated GPU, such as 1@500, once per GPU";
/// Boards come first: later variables may only name boards that exist.
constexpr Setting kSettings[] = {
    {"NVML_SIM_BOARDS", ReadBoards,
     "a number from 1 to 64, or up to 64 of desktop, laptop, datacenter, old, workstation, or recording:FILE"},
    {"NVML_SIM_SEED", ReadSeed, "a whole number"},
    {"NVML_SIM_DELAYS", ReadDelays, "realistic or none"},
    {"NVML_SIM_RIGHTS", ReadRights, "user or admin"},
    {"NVML_SIM_STATE", ReadStatePath, "the path of a file"},
    {"NVML_SIM_LOSE", ReadLosses, kCallCounts},
    {"NVML_SIM_HANG", ReadHangs, kCallCounts},
};

/// A misspelt variable: it begins like the simulator's variables, but no setting has its name.
std::optional<std::string> UnknownVariable() {
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable(*entry);
        const std::string name = variable.substr(0, variable.find('='));
        const auto hasName = [&name](const Setting& setting) { return name == setting.Name; };
        const bool bOfSimulator = name.rfind("NVML_SIM_", 0) == 0;
        if (bOfSimulator && std::none_of(std::begin(kSettings), std::end(kSettings), hasName)) return name;
    }
    return std::nullopt;
}

}  // namespace

bool ReadEnvironment(Environment* environment, std::string* problem) {
    if (const std::optional<std::string> name = UnknownVariable()) {
        *problem = "There is no variable " + *name + ".";
        return false;
    }
    for (const Setting& setting : kSettings) {
        *problem = std::string(setting.Name) + "=";
        try {
            if (setting.Read(environment)) continue;
            *problem += Variable(setting.Name).value_or("") + " makes no sense: expected " + setting.Expected + ".";
        } catch (const std::invalid_argument& unplayable) {
            *problem += kRecording + std::string(unplayable.what());
        }
        return false;
    }
    return true;
}

void SayProblem(const std::string& sentence) {
    std::fprintf(stderr, "Simulated NVML: %s\n", sentence.c_str());
}

}  // namespace simulated_nvml
