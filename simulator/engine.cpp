#include "engine.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>

#include "environment.h"
#include "system_processes.h"

namespace simulated_nvml {

namespace {

constexpr unsigned int kHandleIndexBits = 8;
/// What a board that only a scripted answer lets exist takes of what may be spent, in list entries.
constexpr size_t kWorkPerBoard = 400;

std::string CallText(EntryPoint name, std::optional<unsigned int> board, Arguments arguments) {
    std::string values = board.has_value() ? std::to_string(*board) : "";
    for (const std::optional<uint64_t>& argument : arguments) {
        if (!values.empty()) values += ", ";
        values += argument.has_value() ? std::to_string(*argument) : "null";
    }
    return std::string(NameOf(name)) + "(" + values + ")";
}

bool StartsNvml(EntryPoint name) {
    return ShapeOf(name) == Shape::Init || ShapeOf(name) == Shape::FlaggedInit;
}

/// How long an entry point takes on hardware.
std::chrono::microseconds RealisticDelay(EntryPoint name) {
    if (ShapeOf(name) == Shape::Processes) return std::chrono::microseconds(4500);
    switch (QueryOf(name)) {
        case EntryPoint::nvmlDeviceGetPcieThroughput: return std::chrono::milliseconds(20);
        case EntryPoint::nvmlDeviceGetFanSpeed: return std::chrono::microseconds(100);
        default: return std::chrono::microseconds(3);
    }
}

/// Reads all of `text` as a hexadecimal number; nothing when that fails or the number is above `highest`.
std::optional<uint64_t> HexNumber(std::string_view text, uint64_t highest) {
    uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, 16);
    return error == std::errc() && rest == end && number <= highest ? std::optional(number) : std::nullopt;
}

/// Takes what is behind the last `separator` off the end of `*text`; all of it where there is no separator.
std::string_view TakeLast(std::string_view* text, char separator) {
    const size_t at = text->rfind(separator);
    const std::string_view last = text->substr(at + 1);
    *text = at != std::string_view::npos ? text->substr(0, at) : std::string_view();
    return last;
}

/// What "0000:01:00.0" says, as one number. Domain and function may be left out; they are then 0.
std::optional<uint64_t> PciAddressOf(std::string_view text) {
    const bool bFunction = text.find('.') != std::string_view::npos;
    const auto function = bFunction ? HexNumber(TakeLast(&text, '.'), 7) : uint64_t{0};
    const auto device = HexNumber(TakeLast(&text, ':'), 31);
    const auto bus = HexNumber(TakeLast(&text, ':'), UINT8_MAX);
    const auto domain = text.empty() ? uint64_t{0} : HexNumber(text, UINT32_MAX);
    if (!function || !device || !bus || !domain) return std::nullopt;
    return *domain << 16 | *bus << 8 | *device << 3 | *function;
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

void ScriptRules::UseRealisticDelays() {
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

NvmlReturn Engine::Initialize(EntryPoint name, Arguments arguments) {
    return SystemCall(name, arguments, {}, [this] {
        if (!IsInitialized() && !bScripted && !StartFromEnvironment()) return kUnknown;
        if (Observed.Use.Initializations++ == 0) BeginGeneration();
        return kSuccess;
    });
}

NvmlReturn Engine::Shutdown() {
    const NvmlReturn result = SystemCall(EntryPoint::nvmlShutdown, {}, {}, [this] {
        --Observed.Use.Initializations;
        return kSuccess;
    });
    const std::lock_guard<std::mutex> lock(Mutex);
    Observed.bShutdownFailed = result != kSuccess;
    return result;
}

NvmlReturn Engine::HandleCall(EntryPoint name, std::optional<unsigned int> index, const char* text,
                              NvmlDevice* device) {
    return Run(name, [&](Visit& visit) {
        if (!index.has_value() && text != nullptr) index = BoardNamed(name, text);
        Note(visit, index, {});
        const NvmlReturn verdict = Admit(visit, index);
        if (verdict != kSuccess) return verdict;
        if (device == nullptr || text == nullptr) {
            const char* const missing = device == nullptr ? "a place for the answer." : "a text to look for.";
            AddMisuse(std::string(NameOf(name)) + "() without " + missing);
            return kInvalidArgument;
        }
        if (!index.has_value()) return kNotFound;
        const std::optional<Answer> answer = Answers.Next(name);
        const bool bMadeUp = answer.has_value() && answer->Value.has_value();
        if (*index >= Boards.size() && !(bMadeUp && Answers.Afford(kWorkPerBoard))) return kInvalidArgument;
        const NvmlReturn code = Answers.Complete({name, {}, {device}}, answer, [&] {
            *device = answer.has_value() ? MakeUpHandle(*answer, *index) : HandleOf(*index);
            return kSuccess;
        });
        if (code == kSuccess && *device == nullptr) Answers.NoteNullGiven(true);
        return code;
    });
}

std::optional<unsigned int> Engine::BoardNamed(EntryPoint name, const char* text) const {
    const std::optional<uint64_t> address = PciAddressOf(text);
    const auto isNamed = [&](const BoardModel& board) {
        // A recorded board may have no UUID.
        if (name == EntryPoint::nvmlDeviceGetHandleByUUID) return *text != '\0' && board.Identity().Uuid == text;
        return address.has_value() && PciAddressOf(board.Identity().BusId) == address;
    };
    const auto found = std::find_if(Boards.begin(), Boards.end(), isNamed);
    return found != Boards.end() ? std::optional(IndexOfBoard(*found)) : std::nullopt;
}

void Engine::NoteTextCall(EntryPoint name) {
    const Visit visit(*this, name);
    ++Observed.Calls[IndexOf(name)];
    LogLine(std::string(NameOf(name)) + "()");
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
    Rules.Seed = environment.Seed;
    Rules.bAdministrator = environment.bAdministrator;
    Rules.CallsLeft = environment.LostAfterCalls;
    Rules.CallsUntilHang = environment.HangsAfterCalls;
    if (environment.bRealisticDelays) Rules.UseRealisticDelays();
    MakeBoards(std::move(environment.Boards));
    return true;
}

void Engine::TakeOverScript() {
    // Later on, no boards means that the script asked for no boards.
    if (!bScripted && Boards.empty()) MakeBoards({DesktopBoard(0)});
    bScripted = true;
    KeptState.reset();
}

void Engine::MakeBoards(std::vector<Board> boards) {
    std::vector<BoardModel> models;
    const auto processes = std::make_shared<SystemProcesses>();
    models.reserve(boards.size());
    for (Board& board : boards) {
        models.emplace_back(std::move(board), static_cast<unsigned int>(models.size()), Rules.Seed, processes);
    }
    Boards = std::move(models);
    BoardsSince = std::chrono::steady_clock::now();
    BeginGeneration();
}

void Engine::RestartBoards() {
    std::vector<Board> boards;
    for (const BoardModel& board : Boards) boards.push_back(board.Identity());
    MakeBoards(std::move(boards));
}

void Engine::ForgetInitialization() {
    Observed.Use.Initializations = 0;
    BeginGeneration();
}

void Engine::BeginGeneration() {
    ++Generation;
    MadeUpHandles.clear();
    Answers.NoteNullGiven(false);
}

void Engine::CloseLibrary() {
    if (IsInitialized() && !Observed.bShutdownFailed) AddMisuse("dlclose while NVML was initialized.");
    ForgetInitialization();
}

void Engine::AddMisuse(std::string sentence) {
    // A client that is not tested may misuse NVML for days.
    constexpr size_t kMostSentences = 1000;
    if (Observed.Misuse.size() < kMostSentences) Observed.Misuse.push_back(std::move(sentence));
}

void Engine::LogLine(const std::string& line) {
    if (Observed.bRecordLog) Observed.Log.push_back(line);
}

void Engine::Note(const Visit& visit, std::optional<unsigned int> board, Arguments arguments) {
    const EntryPoint name = visit.Name;
    ++Observed.Calls[IndexOf(name)];
    ++Observed.Use.Activity;
    if (Observed.bRecordLog) Observed.Log.push_back(CallText(name, board, arguments));
    if (!IsInitialized() && !StartsNvml(name)) {
        AddMisuse(CallText(name, board, arguments) + " while NVML was not initialized.");
    }
    if (!visit.bAlone && Rules.bForbidConcurrentCalls) {
        AddMisuse(CallText(name, board, arguments) + " while another thread was inside NVML.");
    }
    if (Observed.Use.Openings != 0 && Observed.Use.OpenLibraries == 0) {
        AddMisuse(CallText(name, board, arguments) + " while the library was not open.");
    }
    Changed.notify_all();
}

std::optional<unsigned int> Engine::NoteHandle(const Visit& visit, NvmlDevice device) {
    const std::optional<unsigned int> board = BoardOf(visit.Name, device);
    if (IsInitialized() && !board.has_value()) {
        AddMisuse(CallText(visit.Name, std::nullopt, {}) + " with a handle that is null, stale or unknown.");
    }
    return board;
}

NvmlReturn Engine::Admit(Visit& visit, std::optional<unsigned int> board) {
    const size_t name = IndexOf(visit.Name);
    Changed.wait(visit.Lock, [&] { return !Rules.Blocked[name]; });
    const std::chrono::microseconds delay = Rules.Delays[name];
    if (delay.count() > 0) {
        visit.Lock.unlock();
        Wait(delay);
        visit.Lock.lock();
    }
    const std::optional<NvmlReturn> failure = CountAgainstRules(visit.Name, board);
    if (board.has_value() && !SpendCall(&Rules.CallsUntilHang, *board)) {
        Changed.wait(visit.Lock, [] { return false; });
    }
    if (board.has_value() && !SpendCall(&Rules.CallsLeft, *board)) return kGpuIsLost;
    if (failure.has_value()) return *failure;
    if (!IsInitialized() && !StartsNvml(visit.Name)) return kUninitialized;
    return IsInGap(board) ? kGpuIsLost : kSuccess;
}

std::optional<NvmlReturn> Engine::CountAgainstRules(EntryPoint name, std::optional<unsigned int> board) {
    std::optional<NvmlReturn> failure;
    if (Rules.CallsUntilFailure > 0 && --Rules.CallsUntilFailure == 0) failure = Rules.FailureCode;
    for (FailureRule& rule : Rules.Failures) {
        if (rule.Name != name || (rule.Board.has_value() && rule.Board != board)) continue;
        if (++rule.CallsSeen >= rule.NthCall) failure = rule.Code;
    }
    return failure;
}

bool Engine::FindsLookup(EntryPoint name) {
    const bool bHidden = Answers.HidesLookup(name);
    if (bHidden || (Rules.LookupsUntilMiss > 0 && --Rules.LookupsUntilMiss == 0)) return false;
    std::optional<uint64_t>& left = Rules.LookupsLeft[IndexOf(name)];
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

NvmlDevice Engine::MakeUpHandle(const Answer& answer, unsigned int index) {
    constexpr uintptr_t kMadeUp = uintptr_t{1} << 63;
    const bool bNull = (answer.Form & 1) != 0;
    const bool bNew = (answer.Form & 2) != 0 || index >= Boards.size() || answer.Code != kSuccess;
    if (bNull || !bNew) return bNull ? nullptr : HandleOf(index);
    auto* const device = reinterpret_cast<NvmlDevice>(kMadeUp | ++MadeUpCount);
    if (answer.Code == kSuccess) MadeUpHandles.insert(device);
    return device;
}

std::optional<unsigned int> Engine::BoardOf(EntryPoint name, NvmlDevice device) const {
    const bool bMadeUp = MadeUpHandles.count(device) != 0 || (device == nullptr && Answers.MayGetNull(name));
    if (bMadeUp && !Boards.empty()) return 0;
    const auto handle = reinterpret_cast<uintptr_t>(device);
    const uintptr_t place = handle & ((1U << kHandleIndexBits) - 1U);
    if (handle >> kHandleIndexBits != Generation || place == 0 || place > Boards.size()) return std::nullopt;
    return static_cast<unsigned int>(place - 1);
}

BoardModel* Engine::FindBoard(EntryPoint name, NvmlDevice device) {
    const std::optional<unsigned int> board = BoardOf(name, device);
    return board.has_value() ? &Boards[*board] : nullptr;
}

NvmlReturn Engine::Change(BoardModel* board, const SettingsEdit& edit) {
    if (!Rules.bAdministrator) return kNoPermission;
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
    if (Rules.HeldSeconds.has_value()) return *Rules.HeldSeconds;
    if (KeptState != nullptr) {
        return Seconds(std::chrono::system_clock::now().time_since_epoch()).count() - KeptState->Latest().SinceSeconds;
    }
    return Seconds(std::chrono::steady_clock::now() - BoardsSince).count();
}

std::optional<EntryPoint> FindEntryPoint(std::string_view name) {
    static const auto kByName = [] {
        std::unordered_map<std::string_view, EntryPoint> byName;
        for (unsigned int i = 0; i < kEntryPointCount; ++i) byName.emplace(kEntryPointNames[i], EntryPoint{i});
        return byName;
    }();
    const auto found = kByName.find(name);
    return found != kByName.end() ? std::optional(found->second) : std::nullopt;
}

EntryPoint EntryPointOf(const std::string& name) {
    const std::optional<EntryPoint> found = FindEntryPoint(name);
    if (!found.has_value()) throw std::invalid_argument("The simulated NVML has no entry point " + name + ".");
    return *found;
}

}  // namespace simulated_nvml
