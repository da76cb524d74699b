// The script: every operation changes or tells what the engine holds, under the engine's lock.

#include "simulated_nvml.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "engine.h"

namespace simulated_nvml {

namespace {

constexpr size_t kMaxBoards = 64;

std::unique_lock<std::mutex> Locked() {
    return std::unique_lock<std::mutex>(Engine::Get().Mutex);
}

/// The engine's script and observations, used as one expression under the lock.
Script& Wanted() {
    return Engine::Get().Wanted;
}

Observations& Seen() {
    return Engine::Get().Seen;
}

}  // namespace

SimulatedNvml::SimulatedNvml() = default;
SimulatedNvml::~SimulatedNvml() = default;

SimulatedNvml& SimulatedNvml::Get() {
    static SimulatedNvml script;
    return script;
}

void SimulatedNvml::Reset() {
    const auto lock = Locked();
    Engine& engine = Engine::Get();
    engine.Wanted = Script{};
    engine.Seen = Observations{};
    engine.bScripted = true;
    engine.ForgetInitialization();
    engine.MakeBoards({DesktopBoard(0)});
}

void SimulatedNvml::SetBoards(std::vector<Board> boards) {
    if (boards.size() > kMaxBoards) throw std::invalid_argument("The simulated NVML has room for 64 boards.");
    for (const Board& board : boards) {
        if (board.Clocks.empty() && !board.Fixed.has_value())
            throw std::invalid_argument("A living board needs clocks.");
        for (const std::string& name : board.Unsupported) EntryPointOf(name);
    }
    const auto lock = Locked();
    Engine::Get().bScripted = true;
    Engine::Get().MakeBoards(std::move(boards));
}

void SimulatedNvml::SetSeed(uint64_t seed) {
    const auto lock = Locked();
    Wanted().Seed = seed;
    Engine::Get().RestartBoards();
}

void SimulatedNvml::HoldTimeAt(double seconds) {
    const auto lock = Locked();
    Wanted().HeldSeconds = std::max(seconds, Wanted().HeldSeconds.value_or(seconds));
}

void SimulatedNvml::HideEntryPoint(const std::string& name) {
    const auto lock = Locked();
    Wanted().Hidden[IndexOf(EntryPointOf(name))] = true;
}

void SimulatedNvml::FailFrom(const std::string& name, unsigned int code, uint64_t nthCall,
                             std::optional<unsigned int> board) {
    const auto lock = Locked();
    Wanted().Failures.push_back({EntryPointOf(name), code, nthCall, board});
}

void SimulatedNvml::StopFailing() {
    const auto lock = Locked();
    Wanted().Failures.clear();
}

void SimulatedNvml::LoseBoard(unsigned int board, uint64_t calls) {
    const auto lock = Locked();
    Wanted().CallsLeft[board] = calls;
}

void SimulatedNvml::SetDelay(const std::string& name, std::chrono::microseconds delay) {
    const auto lock = Locked();
    Wanted().Delays[IndexOf(EntryPointOf(name))] = delay;
}

void SimulatedNvml::UseRealisticDelays() {
    const auto lock = Locked();
    Wanted().UseRealisticDelays();
}

void SimulatedNvml::Block(const std::string& name) {
    const auto lock = Locked();
    Wanted().Blocked = EntryPointOf(name);
}

void SimulatedNvml::Unblock() {
    const auto lock = Locked();
    Wanted().Blocked.reset();
    Engine::Get().Changed.notify_all();
}

void SimulatedNvml::UseUnterminatedText() {
    const auto lock = Locked();
    Wanted().bUnterminatedText = true;
}

void SimulatedNvml::ChangeListAfterSizeQuery(const std::string& name, int entries) {
    const auto lock = Locked();
    Wanted().ListChanges[IndexOf(EntryPointOf(name))] = entries;
}

void SimulatedNvml::SetProcessRecordBytes(size_t bytes) {
    if (bytes < sizeof(ProcessRecord)) throw std::invalid_argument("A process record has 24 bytes at least.");
    const auto lock = Locked();
    Wanted().ProcessRecordBytes = bytes;
}

void SimulatedNvml::SetAdministratorRights(bool bAllowed) {
    const auto lock = Locked();
    Wanted().bAdministrator = bAllowed;
}

void SimulatedNvml::ForbidConcurrentCalls() {
    const auto lock = Locked();
    Wanted().bForbidConcurrentCalls = true;
}

void SimulatedNvml::RecordLog() {
    const auto lock = Locked();
    Seen().bRecordLog = true;
}

std::vector<std::string> SimulatedNvml::Log() const {
    const auto lock = Locked();
    return Seen().Log;
}

uint64_t SimulatedNvml::Calls(const std::string& name) const {
    const auto lock = Locked();
    return Seen().Calls[IndexOf(EntryPointOf(name))];
}

bool SimulatedNvml::WaitForCalls(const std::string& name, uint64_t count, std::chrono::milliseconds timeout) const {
    const size_t entryPoint = IndexOf(EntryPointOf(name));
    auto lock = Locked();
    return Engine::Get().Changed.wait_for(lock, timeout, [&] { return Seen().Calls[entryPoint] >= count; });
}

std::vector<std::string> SimulatedNvml::Misuse() const {
    const auto lock = Locked();
    return Seen().Misuse;
}

bool SimulatedNvml::InsideCall() {
    return Engine::bInsideCall;
}

void SimulatedNvml::OnOpen(int flags) {
    const auto lock = Locked();
    ++Seen().OpenLibraries;
    Engine::Get().LogLine("dlopen(" + std::to_string(flags) + ")");
}

bool SimulatedNvml::OnLookup(const std::string& name) {
    const auto lock = Locked();
    Engine& engine = Engine::Get();
    engine.LogLine("dlsym " + name);
    if (Seen().OpenLibraries == 0) engine.AddMisuse("dlsym " + name + " in a library that is not open.");
    const std::optional<EntryPoint> entryPoint = FindEntryPoint(name);
    if (!entryPoint.has_value()) engine.AddMisuse("dlsym " + name + ", a name that NVML does not have.");
    return entryPoint.has_value() && !Wanted().Hidden[IndexOf(*entryPoint)];
}

void SimulatedNvml::OnClose() {
    const auto lock = Locked();
    Engine& engine = Engine::Get();
    engine.LogLine("dlclose");
    if (Seen().OpenLibraries == 0) {
        engine.AddMisuse("dlclose of a library that is not open.");
    } else if (--Seen().OpenLibraries == 0 && engine.InitCount > 0) {
        engine.AddMisuse("dlclose while NVML was initialized.");
    }
}

}  // namespace simulated_nvml
