// The script: every operation changes or returns what the engine holds, under the engine's lock.

#include "simulated_nvml.h"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <utility>

#include "engine.h"

namespace simulated_nvml {

namespace {

constexpr size_t kMaxBoards = 64;

std::unique_lock<std::mutex> Locked() {
    return std::unique_lock<std::mutex>(Engine::Get().Mutex);
}

/// For an operation that changes something: from the first one on, the environment variables have no effect.
std::unique_lock<std::mutex> Scripting() {
    auto lock = Locked();
    Engine::Get().TakeOverScript();
    return lock;
}

void Require(bool bSensible, const char* sentence) {
    if (!bSensible) throw std::invalid_argument(sentence);
}

void RequireBoard(std::optional<unsigned int> board) {
    Require(!board.has_value() || *board < Engine::Get().BoardCount(), "There is no simulated board of this index.");
}

/// What the engine holds, used as one expression under the lock.
ScriptRules& Rules() {
    return Engine::Get().Rules;
}

Observations& Observed() {
    return Engine::Get().Observed;
}

bool HasSensibleClocks(const Board& board) {
    const auto fastestFirst = [](const ClockGroup& a, const ClockGroup& b) { return a.MemoryMHz > b.MemoryMHz; };
    const auto isSensible = [](const ClockGroup& group) {
        return !group.GraphicsMHz.empty() && group.GraphicsMHz.back() > 0 &&
               std::is_sorted(group.GraphicsMHz.begin(), group.GraphicsMHz.end(), std::greater<>());
    };
    return std::is_sorted(board.Clocks.begin(), board.Clocks.end(), fastestFirst) &&
           std::all_of(board.Clocks.begin(), board.Clocks.end(), isSensible);
}

void CheckLivingBoard(const Board& board) {
    Require(!board.Clocks.empty() && HasSensibleClocks(board), "A living board needs clocks, the highest first.");
    Require(board.VramTotalBytes > kReservedVramBytes, "A living board needs more than 320 MiB of video memory.");
    Require(board.IdlePowerMilliwatts < board.DefaultPowerLimitMilliwatts &&
                board.IdlePowerMilliwatts < board.PeakPowerMilliwatts,
            "A living board needs less power when idle than under load.");
    Require(board.FullLoadTemperatureC >= 60 && board.FullLoadTemperatureC < board.SlowdownTemperatureC &&
                board.SlowdownTemperatureC < board.ShutdownTemperatureC,
            "A living board needs temperatures from 60 degrees at full load up to slowdown and shutdown.");
}

void CheckBoard(const Board& board) {
    for (const std::string& name : board.Unsupported) {
        EntryPointOf(name);
        Require(name.rfind("nvmlDevice", 0) == 0 && name.rfind("nvmlDeviceGetCount", 0) != 0 &&
                    name.rfind("nvmlDeviceGetHandle", 0) != 0,
                "Only a query or a change of a board can be one that it does not support.");
    }
    if (!board.Fixed.has_value() && board.Recorded == nullptr) CheckLivingBoard(board);
}

/// A loader inside the simulator.
class LoaderVisit {
public:
    LoaderVisit() { Engine::bInsideCall = true; }
    ~LoaderVisit() { Engine::bInsideCall = false; }
    LoaderVisit(const LoaderVisit&) = delete;
    LoaderVisit& operator=(const LoaderVisit&) = delete;

private:
    std::unique_lock<std::mutex> Lock = Locked();
};

}  // namespace

SimulatedNvml& SimulatedNvml::Get() {
    static SimulatedNvml script;
    return script;
}

void SimulatedNvml::Reset() {
    const auto lock = Locked();
    Engine& engine = Engine::Get();
    engine.Rules = ScriptRules{};
    engine.Answers = ScriptedAnswers{};
    engine.Observed = Observations{};
    engine.TakeOverScript();
    engine.ForgetInitialization();
    engine.MakeBoards({DesktopBoard(0)});
    engine.Changed.notify_all();
}

void SimulatedNvml::SetBoards(std::vector<Board> boards) {
    Require(boards.size() <= kMaxBoards, "The simulated NVML has room for 64 boards.");
    for (const Board& board : boards) CheckBoard(board);
    const auto lock = Scripting();
    Rules().CallsLeft.clear();
    Engine::Get().MakeBoards(std::move(boards));
}

void SimulatedNvml::SetSeed(uint64_t seed) {
    const auto lock = Scripting();
    Rules().Seed = seed;
    Engine::Get().RestartBoards();
}

void SimulatedNvml::HoldTimeAt(double seconds) {
    constexpr double kYear = 3.2e7;
    Require(seconds >= 0.0 && seconds <= kYear, "The boards' clock runs from 0 to one year.");
    const auto lock = Scripting();
    Rules().HeldSeconds = std::max(seconds, Rules().HeldSeconds.value_or(seconds));
}

void SimulatedNvml::RemoveLibrary() {
    const auto lock = Scripting();
    Rules().bLibraryRemoved = true;
}

void SimulatedNvml::HideEntryPoint(const std::string& name, uint64_t nthLookup) {
    Require(nthLookup >= 1, "Lookups are counted from 1.");
    const auto lock = Scripting();
    Rules().LookupsLeft[IndexOf(EntryPointOf(name))] = nthLookup - 1;
}

void SimulatedNvml::FailFrom(const std::string& name, unsigned int code, uint64_t nthCall,
                             std::optional<unsigned int> board) {
    Require(code != kSuccess, "A failure needs a code other than success.");
    Require(name != "nvmlErrorString", "nvmlErrorString cannot fail.");
    const auto lock = Scripting();
    RequireBoard(board);
    Rules().Failures.push_back({EntryPointOf(name), code, nthCall, board});
}

void SimulatedNvml::FailNthCall(uint64_t nth, unsigned int code) {
    Require(nth >= 1 && code != kSuccess, "A failure has a code, and calls are counted from 1.");
    const auto lock = Scripting();
    Rules().CallsUntilFailure = nth;
    Rules().FailureCode = code;
}

void SimulatedNvml::StopFailing() {
    const auto lock = Scripting();
    Rules().Failures.clear();
    Rules().CallsUntilFailure = 0;
}

void SimulatedNvml::MissNthLookup(uint64_t nth) {
    Require(nth >= 1, "Lookups are counted from 1.");
    const auto lock = Scripting();
    Rules().LookupsUntilMiss = nth;
}

void SimulatedNvml::UseRealisticDelays() {
    const auto lock = Scripting();
    Rules().UseRealisticDelays();
}

void SimulatedNvml::Block(const std::string& name) {
    const auto lock = Scripting();
    Rules().Blocked[IndexOf(EntryPointOf(name))] = true;
}

void SimulatedNvml::Unblock() {
    const auto lock = Scripting();
    Rules().Blocked = {};
    Engine::Get().Changed.notify_all();
}

void SimulatedNvml::UseUnterminatedText() {
    const auto lock = Scripting();
    Rules().bUnterminatedText = true;
}

void SimulatedNvml::ChangeListAfterSizeQuery(const std::string& name, int entries) {
    constexpr int kMostEntries = 1000000;
    Require(IsList(EntryPointOf(name)), "Only a list query can change its list.");
    Require(entries >= -kMostEntries && entries <= kMostEntries, "A list changes by a million entries at most.");
    const auto lock = Scripting();
    Rules().ListChanges[IndexOf(EntryPointOf(name))] = entries;
}

void SimulatedNvml::SetProcessRecordBytes(const std::string& name, size_t bytes) {
    Require(ShapeOf(EntryPointOf(name)) == Shape::Processes, "Only a list of processes has process records.");
    Require(bytes == 16 || bytes == 24 || bytes == 32, "A process record has 16, 24 or 32 bytes.");
    const auto lock = Scripting();
    Rules().ProcessRecordBytes[IndexOf(EntryPointOf(name))] = bytes;
}

void SimulatedNvml::SetAdministratorRights(bool bAllowed) {
    const auto lock = Scripting();
    Rules().bAdministrator = bAllowed;
}

void SimulatedNvml::LetFailuresWrite() {
    const auto lock = Scripting();
    Rules().bFailuresWrite = true;
}

void SimulatedNvml::ForbidConcurrentCalls() {
    const auto lock = Scripting();
    Rules().bForbidConcurrentCalls = true;
}

ScriptedAnswers& SimulatedNvml::Answers() {
    const auto lock = Scripting();
    return Engine::Get().Answers;
}

void SimulatedNvml::RecordLog() {
    const auto lock = Locked();
    Observed().bRecordLog = true;
}

std::vector<std::string> SimulatedNvml::Log() const {
    const auto lock = Locked();
    return Observed().Log;
}

uint64_t SimulatedNvml::Calls(const std::string& name) const {
    const auto lock = Locked();
    return Observed().Calls[IndexOf(EntryPointOf(name))];
}

bool SimulatedNvml::WaitForCalls(const std::string& name, uint64_t count, std::chrono::milliseconds timeout) const {
    const size_t entryPoint = IndexOf(EntryPointOf(name));
    // A longer wait would overflow the clock.
    constexpr std::chrono::milliseconds kLongestTimeout = std::chrono::hours(1000);
    auto lock = Locked();
    return Engine::Get().Changed.wait_for(lock, std::min(timeout, kLongestTimeout),
                                          [&] { return Observed().Calls[entryPoint] >= count; });
}

std::vector<std::string> SimulatedNvml::Misuse() const {
    const auto lock = Locked();
    return Observed().Misuse;
}

LibraryUse SimulatedNvml::Use() const {
    const auto lock = Locked();
    return Observed().Use;
}

bool SimulatedNvml::InsideCall() {
    return Engine::bInsideCall;
}

bool SimulatedNvml::OnOpen(int flags) {
    const LoaderVisit visit;
    Engine::Get().LogLine("dlopen(" + std::to_string(flags) + ")");
    LibraryUse& use = Observed().Use;
    ++use.Activity;
    if (use.OpenLibraries == 0) Engine::Get().Answers.ForgetDeviceCount();
    if (Engine::Get().Answers.HidesLibrary(use.Openings++) || Rules().bLibraryRemoved) return false;
    ++use.OpenLibraries;
    return true;
}

std::optional<EntryPoint> SimulatedNvml::OnLookup(const char* name) {
    const LoaderVisit visit;
    Engine& engine = Engine::Get();
    const auto lookup = [name] { return std::string("dlsym ") + name; };
    ++Observed().Use.Activity;
    if (Observed().bRecordLog) engine.LogLine(lookup());
    if (Observed().Use.OpenLibraries == 0) engine.AddMisuse(lookup() + " in a library that is not open.");
    const std::optional<EntryPoint> entryPoint = FindEntryPoint(name);
    if (!entryPoint.has_value()) engine.AddMisuse(lookup() + ", a name that NVML does not have.");
    if (entryPoint.has_value() && engine.FindsLookup(*entryPoint)) return entryPoint;
    if (entryPoint == EntryPoint::nvmlShutdown) Observed().bShutdownFailed = true;
    return std::nullopt;
}

void SimulatedNvml::OnClose() {
    const LoaderVisit visit;
    Engine& engine = Engine::Get();
    engine.LogLine("dlclose");
    LibraryUse& use = Observed().Use;
    ++use.Activity;
    if (use.OpenLibraries == 0) {
        engine.AddMisuse("dlclose of a library that is not open.");
    } else if (--use.OpenLibraries == 0) {
        engine.CloseLibrary();
    }
}

}  // namespace simulated_nvml
