#include "engine.h"

#include <stdexcept>
#include <thread>
#include <utility>

#include "environment.h"

namespace simulated_nvml {

namespace {

constexpr unsigned int kHandleIndexBits = 8;

std::string CallText(EntryPoint name, std::optional<unsigned int> board, Arguments arguments) {
    std::string values = board.has_value() ? std::to_string(*board) : "";
    for (const std::optional<uint64_t>& argument : arguments) {
        if (!values.empty()) values += ", ";
        values += argument.has_value() ? std::to_string(*argument) : "null";
    }
    return std::string(kEntryPointNames[IndexOf(name)]) + "(" + values + ")";
}

bool StartsNvml(EntryPoint name) {
    return name == EntryPoint::nvmlInit_v2 || name == EntryPoint::nvmlInit;
}

/// How long an entry point takes on hardware.
std::chrono::microseconds RealisticDelay(EntryPoint name) {
    switch (name) {
        case EntryPoint::nvmlDeviceGetPcieThroughput: return std::chrono::milliseconds(20);
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses_v3:
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses_v2:
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses:
        case EntryPoint::nvmlDeviceGetGraphicsRunningProcesses_v3:
        case EntryPoint::nvmlDeviceGetGraphicsRunningProcesses_v2:
        case EntryPoint::nvmlDeviceGetGraphicsRunningProcesses: return std::chrono::microseconds(4500);
        case EntryPoint::nvmlDeviceGetFanSpeed: return std::chrono::microseconds(100);
        default: return std::chrono::microseconds(3);
    }
}

void Wait(std::chrono::microseconds duration) {
    // A sleep ends some 60 us late, so the last stretch is spent awake.
    constexpr std::chrono::microseconds kAwake{100};
    const auto end = std::chrono::steady_clock::now() + duration;
    if (duration > kAwake) std::this_thread::sleep_until(end - kAwake);
    while (std::chrono::steady_clock::now() < end) {
    }
}

}  // namespace

void Script::UseRealisticDelays() {
    for (unsigned int i = 0; i < kEntryPointCount; ++i) Delays[i] = RealisticDelay(static_cast<EntryPoint>(i));
}

thread_local bool Engine::bInsideCall = false;

Engine& Engine::Get() {
    static Engine& engine = *new Engine;
    return engine;
}

Engine::Visit::Visit(Engine& engine, EntryPoint name)
    : Name(name), bAlone(engine.ThreadsInside.fetch_add(1) == 0), Lock(engine.Mutex), Visited(engine) {
    bInsideCall = true;
}

Engine::Visit::~Visit() {
    bInsideCall = false;
    Visited.ThreadsInside.fetch_sub(1);
}

NvmlReturn Engine::Initialize(EntryPoint name) {
    return SystemCall(name, {}, [this] {
        if (InitCount == 0 && !bScripted && !StartFromEnvironment()) return kUnknown;
        if (InitCount++ == 0) ++Generation;
        return kSuccess;
    });
}

NvmlReturn Engine::Shutdown() {
    return SystemCall(EntryPoint::nvmlShutdown, {}, [this] {
        --InitCount;
        return kSuccess;
    });
}

void Engine::NoteTextCall(EntryPoint name) {
    const Visit visit(*this, name);
    ++Seen.Calls[IndexOf(name)];
    LogLine(std::string(kEntryPointNames[IndexOf(name)]) + "()");
}

bool Engine::StartFromEnvironment() {
    if (Boards.empty() && !TakeOverEnvironment()) return false;
    return KeptState == nullptr || KeptState->Start();
}

bool Engine::TakeOverEnvironment() {
    Environment environment;
    std::string problem;
    if (!ReadEnvironment(&environment, &problem)) {
        SayProblem(problem);
        return false;
    }
    if (!environment.StatePath.empty()) {
        KeptState = std::make_unique<StateFile>(environment.StatePath, environment.Boards);
    }
    Wanted.Seed = environment.Seed;
    Wanted.bAdministrator = environment.bAdministrator;
    Wanted.CallsLeft = environment.LostAfterCalls;
    Wanted.CallsUntilHang = environment.HangsAfterCalls;
    if (environment.bRealisticDelays) Wanted.UseRealisticDelays();
    MakeBoards(std::move(environment.Boards));
    return true;
}

void Engine::TakeOverScript() {
    // A script that wants no boards has said so.
    if (!bScripted && Boards.empty()) MakeBoards({DesktopBoard(0)});
    bScripted = true;
    KeptState.reset();
}

void Engine::MakeBoards(std::vector<Board> boards) {
    std::vector<BoardModel> models;
    models.reserve(boards.size());
    for (Board& board : boards) {
        models.emplace_back(std::move(board), static_cast<unsigned int>(models.size()), Wanted.Seed);
    }
    Boards = std::move(models);
    BoardsSince = std::chrono::steady_clock::now();
    ++Generation;
}

void Engine::RestartBoards() {
    std::vector<Board> boards;
    for (const BoardModel& board : Boards) boards.push_back(board.Identity());
    MakeBoards(std::move(boards));
}

void Engine::ForgetInitialization() {
    InitCount = 0;
    ++Generation;
}

void Engine::AddMisuse(std::string sentence) {
    // A client that is not tested may misuse NVML for days.
    constexpr size_t kMostSentences = 1000;
    if (Seen.Misuse.size() < kMostSentences) Seen.Misuse.push_back(std::move(sentence));
}

void Engine::LogLine(const std::string& line) {
    if (Seen.bRecordLog) Seen.Log.push_back(line);
}

void Engine::Note(const Visit& visit, std::optional<unsigned int> board, Arguments arguments) {
    const EntryPoint name = visit.Name;
    ++Seen.Calls[IndexOf(name)];
    if (Seen.bRecordLog) Seen.Log.push_back(CallText(name, board, arguments));
    if (InitCount == 0 && !StartsNvml(name)) {
        AddMisuse(CallText(name, board, arguments) + " while NVML was not initialized.");
    }
    if (!visit.bAlone && Wanted.bForbidConcurrentCalls) {
        AddMisuse(CallText(name, board, arguments) + " while another thread was inside NVML.");
    }
    Changed.notify_all();
}

std::optional<unsigned int> Engine::NoteHandle(const Visit& visit, NvmlDevice device) {
    const std::optional<unsigned int> board = BoardOf(device);
    if (InitCount != 0 && !board.has_value()) {
        AddMisuse(CallText(visit.Name, std::nullopt, {}) + " with a handle that is null, stale or unknown.");
    }
    return board;
}

NvmlReturn Engine::Admit(Visit& visit, std::optional<unsigned int> board) {
    const size_t name = IndexOf(visit.Name);
    Changed.wait(visit.Lock, [&] { return !Wanted.Blocked[name]; });
    const std::chrono::microseconds delay = Wanted.Delays[name];
    if (delay.count() > 0) {
        visit.Lock.unlock();
        Wait(delay);
        visit.Lock.lock();
    }
    const std::optional<NvmlReturn> failure = CountAgainstRules(visit.Name, board);
    if (board.has_value() && !SpendCall(&Wanted.CallsUntilHang, *board)) {
        Changed.wait(visit.Lock, [] { return false; });
    }
    if (board.has_value() && !SpendCall(&Wanted.CallsLeft, *board)) return kGpuIsLost;
    if (failure.has_value()) return *failure;
    return InitCount == 0 && !StartsNvml(visit.Name) ? kUninitialized : kSuccess;
}

std::optional<NvmlReturn> Engine::CountAgainstRules(EntryPoint name, std::optional<unsigned int> board) {
    std::optional<NvmlReturn> failure;
    if (Wanted.CallsUntilFailure > 0 && --Wanted.CallsUntilFailure == 0) failure = Wanted.FailureCode;
    for (FailureRule& rule : Wanted.Failures) {
        if (rule.Name != name || (rule.Board.has_value() && rule.Board != board)) continue;
        if (++rule.CallsSeen >= rule.NthCall) failure = rule.Code;
    }
    return failure;
}

bool Engine::SpendLookup(EntryPoint name) {
    if (Wanted.LookupsUntilMiss > 0 && --Wanted.LookupsUntilMiss == 0) return false;
    std::optional<uint64_t>& left = Wanted.LookupsLeft[IndexOf(name)];
    if (!left.has_value()) return true;
    if (*left == 0) return false;
    --*left;
    return true;
}

bool Engine::SpendCall(std::map<unsigned int, uint64_t>* left, unsigned int board) {
    const auto found = left->find(board);
    if (found == left->end()) return true;
    if (found->second == 0) return false;
    --found->second;
    return true;
}

NvmlDevice Engine::HandleOf(unsigned int index) const {
    return reinterpret_cast<NvmlDevice>((Generation << kHandleIndexBits) | (index + 1U));
}

std::optional<unsigned int> Engine::BoardOf(NvmlDevice device) const {
    const auto handle = reinterpret_cast<uintptr_t>(device);
    const uintptr_t place = handle & ((1U << kHandleIndexBits) - 1U);
    if (handle >> kHandleIndexBits != Generation || place == 0 || place > Boards.size()) return std::nullopt;
    return static_cast<unsigned int>(place - 1);
}

BoardModel* Engine::FindBoard(NvmlDevice device) {
    const std::optional<unsigned int> board = BoardOf(device);
    return board.has_value() ? &Boards[*board] : nullptr;
}

NvmlReturn Engine::Change(BoardModel* board, const SettingsEdit& edit) {
    if (!Wanted.bAdministrator) return kNoPermission;
    // The next call about the board finds the change in the file.
    if (KeptState != nullptr) return KeptState->Change(board->Identity(), edit);
    BoardSettings settings = board->Settings();
    const NvmlReturn result = edit(board->Identity(), &settings);
    if (result == kSuccess) board->Apply(settings);
    return result;
}

void Engine::BringToNow(BoardModel* board) {
    if (KeptState != nullptr) board->Apply(KeptState->Now().Settings.at(board->Identity().Uuid));
    board->AdvanceTo(ElapsedSeconds());
}

double Engine::ElapsedSeconds() const {
    using Seconds = std::chrono::duration<double>;
    if (Wanted.HeldSeconds.has_value()) return *Wanted.HeldSeconds;
    if (KeptState != nullptr) {
        return Seconds(std::chrono::system_clock::now().time_since_epoch()).count() - KeptState->Latest().SinceSeconds;
    }
    return Seconds(std::chrono::steady_clock::now() - BoardsSince).count();
}

std::optional<EntryPoint> FindEntryPoint(const std::string& name) {
    for (unsigned int i = 0; i < kEntryPointCount; ++i) {
        if (name == kEntryPointNames[i]) return static_cast<EntryPoint>(i);
    }
    return std::nullopt;
}

EntryPoint EntryPointOf(const std::string& name) {
    const std::optional<EntryPoint> found = FindEntryPoint(name);
    if (!found.has_value()) throw std::invalid_argument("The simulated NVML has no entry point " + name + ".");
    return *found;
}

}  // namespace simulated_nvml
