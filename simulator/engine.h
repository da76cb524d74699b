#ifndef ENGINE_H
#define ENGINE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "board_model.h"
#include "entry_point_list.h"
#include "nvml_abi.h"
#include "scripted_answers.h"
#include "simulated_nvml.h"
#include "state_file.h"

namespace simulated_nvml {

struct FailureRule {
    EntryPoint Name;
    unsigned int Code;
    uint64_t NthCall;
    std::optional<unsigned int> Board;
    uint64_t CallsSeen = 0;
};

/// What the script or the environment asks for; by default nothing.
struct ScriptRules {
    bool bLibraryRemoved = false;
    /// Lookups that still find a name which is to be hidden.
    PerEntryPoint<std::optional<uint64_t>> LookupsLeft{};
    PerEntryPoint<std::chrono::microseconds> Delays{};
    PerEntryPoint<int> ListChanges{};
    std::vector<FailureRule> Failures;
    /// The call that fails and the lookup that misses, counted from 1 from now on; 0 when all succeed.
    uint64_t CallsUntilFailure = 0;
    unsigned int FailureCode = kSuccess;
    uint64_t LookupsUntilMiss = 0;
    /// Calls that a board still answers before it is lost.
    std::map<unsigned int, uint64_t> CallsLeft;
    /// Calls that a board still answers before a call never returns.
    std::map<unsigned int, uint64_t> CallsUntilHang;
    PerEntryPoint<bool> Blocked{};
    std::optional<double> HeldSeconds;
    /// Where a name is to write longer or shorter records than its own.
    PerEntryPoint<std::optional<size_t>> ProcessRecordBytes{};
    uint64_t Seed = 0;
    bool bUnterminatedText = false;
    bool bAdministrator = true;
    bool bForbidConcurrentCalls = false;
    bool bFailuresWrite = false;

    void UseRealisticDelays();
};

/// What was seen of the caller.
struct Observations {
    PerEntryPoint<uint64_t> Calls{};
    std::vector<std::string> Log;
    std::vector<std::string> Misuse;
    LibraryUse Use;
    /// The latest shutdown failed, or its entry point was looked up and not found.
    bool bShutdownFailed = false;
    bool bRecordLog = false;
    /// Lists whose size was asked for and that were not read since.
    PerEntryPoint<bool> SizeAsked{};
};

/// The simulator behind the entry points and the script. There is one, and it is never destroyed, because a program
/// may call into NVML until its last moment.
class Engine {
public:
    static Engine& Get();

    // ---- For entry points ----

    NvmlReturn Initialize(EntryPoint name, Arguments arguments);
    NvmlReturn Shutdown();

    /// Runs `body` as one call that is about no board.
    template <typename Body>
    NvmlReturn SystemCall(EntryPoint name, Arguments arguments, Outputs outputs, Body body) {
        return Run(name, [&](Visit& visit) {
            Note(visit, std::nullopt, arguments);
            const NvmlReturn verdict = Admit(visit, std::nullopt);
            if (verdict != kSuccess && !WritesWhenFailing(name)) return verdict;
            const NvmlReturn answer = Complete({name, arguments, outputs}, body);
            return verdict != kSuccess ? verdict : answer;
        });
    }

    /// Gives the handle of the board at `index` or, without an index, of the one that `text` names.
    NvmlReturn HandleCall(EntryPoint name, std::optional<unsigned int> index, const char* text, NvmlDevice* device);

    /// Runs `body` with the board of the handle `device`, brought to this moment.
    template <typename Body>
    NvmlReturn DeviceCall(EntryPoint name, NvmlDevice device, Arguments arguments, Outputs outputs, Body body) {
        return Run(name, [&](Visit& visit) {
            Note(visit, NoteHandle(visit, device), arguments);
            const NvmlReturn verdict = Admit(visit, BoardOf(name, device));
            BoardModel* board = FindBoard(name, device);
            if (verdict != kSuccess && (board == nullptr || !WritesWhenFailing(name))) return verdict;
            if (board == nullptr) return kInvalidArgument;
            BringToNow(board);
            const NvmlReturn refusal = board->Verdict(name, arguments);
            if (refusal != kSuccess) return refusal;
            const NvmlReturn answer = Complete({name, arguments, outputs}, [&] { return body(*board); });
            return verdict != kSuccess ? verdict : answer;
        });
    }

    /// A call that needs no NVML and cannot fail.
    void NoteTextCall(EntryPoint name);

    /// Changes settings of a board that a call is about.
    NvmlReturn Change(BoardModel* board, const SettingsEdit& edit);

    unsigned int IndexOfBoard(const BoardModel& board) const {
        return static_cast<unsigned int>(&board - Boards.data());
    }
    unsigned int BoardCount() const { return static_cast<unsigned int>(Boards.size()); }

    // ---- For the script; the caller holds Mutex ----

    /// From here on the environment variables have no effect.
    void TakeOverScript();
    void MakeBoards(std::vector<Board> boards);
    /// The same boards from their first moment on.
    void RestartBoards();
    void ForgetInitialization();
    /// Whether a lookup of `name` is to find it.
    bool FindsLookup(EntryPoint name);
    /// Ends what the last client left initialized.
    void CloseLibrary();
    void AddMisuse(std::string sentence);
    /// Adds a line to the log where one is kept.
    void LogLine(const std::string& line);

    mutable std::mutex Mutex;
    /// Signalled when a call begins and when the script releases blocked calls.
    mutable std::condition_variable Changed;
    ScriptRules Rules;
    ScriptedAnswers Answers;
    Observations Observed;
    /// This thread is at work inside the simulator.
    static thread_local bool bInsideCall;

private:
    /// A thread inside an entry point. Holds Mutex except during scripted waits.
    class Visit {
    public:
        Visit(Engine& engine, EntryPoint name);
        ~Visit();
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

        EntryPoint Name;
        bool bAlone;
        std::unique_lock<std::mutex> Lock;

    private:
        Engine& Visited;
    };

    /// Runs `call` as a visit. Nothing is thrown into a client that is written in C: out of memory is a failure.
    template <typename VisitBody>
    NvmlReturn Run(EntryPoint name, VisitBody call) {
        try {
            Visit visit(*this, name);
            return call(visit);
        } catch (const std::exception&) {
            return kUnknown;
        }
    }

    /// Completes a call that was admitted, by a scripted answer if there is one.
    template <typename Body>
    NvmlReturn Complete(const Call& call, Body body) {
        const std::optional<Complaint> complaint = Answers.Judge(call);
        if (complaint.has_value()) AddMisuse(std::string(NameOf(call.Name)) + "() " + complaint->Text + ".");
        if (complaint.has_value() && complaint->bRefused) return kInvalidArgument;
        return Answers.Complete(call, Answers.Next(call.Name), body);
    }
    /// Counts and logs a call that begins, and notes misuse.
    void Note(const Visit& visit, std::optional<unsigned int> board, Arguments arguments);
    /// The board of `device`; a handle without a board is misuse.
    std::optional<unsigned int> NoteHandle(const Visit& visit, NvmlDevice device);
    /// Waits as long as the script wants. Result: success, or the code with which the script or the state of NVML ends
    /// the call.
    NvmlReturn Admit(Visit& visit, std::optional<unsigned int> board);
    /// Whether the playback of a recorded board has come to a stretch without rows.
    bool IsInGap(std::optional<unsigned int> board) const {
        if (!board.has_value() || *board >= Boards.size()) return false;
        const std::shared_ptr<const RecordedGpu>& recorded = Boards[*board].Identity().Recorded;
        return recorded != nullptr && recorded->RowAt(ElapsedSeconds()) == nullptr;
    }
    /// Counts a call against the failure rules; the code of one that applies.
    std::optional<NvmlReturn> CountAgainstRules(EntryPoint name, std::optional<unsigned int> board);
    /// Whether a failing call of this query still fills its outputs.
    bool WritesWhenFailing(EntryPoint name) const {
        return Rules.bFailuresWrite && IsInitialized() && std::strstr(NameOf(name), "Get") != nullptr;
    }
    /// Takes one of the calls that a board has left. False: no call was left.
    static bool SpendCall(std::map<unsigned int, uint64_t>* left, unsigned int board);
    /// Sets NVML up as the environment wants it. False: it makes no sense, and stderr says why.
    bool StartFromEnvironment();
    bool TakeOverEnvironment();

    /// The board whose UUID or bus id `text` is, as `name` takes it.
    std::optional<unsigned int> BoardNamed(EntryPoint name, const char* text) const;

    bool IsInitialized() const { return Observed.Use.Initializations != 0; }
    NvmlDevice HandleOf(unsigned int index) const;
    /// A handle as a scripted answer wants it.
    NvmlDevice MakeUpHandle(const Answer& answer, unsigned int index);
    /// Lets the handles given so far become stale.
    void BeginGeneration();
    std::optional<unsigned int> BoardOf(EntryPoint name, NvmlDevice device) const;
    BoardModel* FindBoard(EntryPoint name, NvmlDevice device);
    void BringToNow(BoardModel* board);
    /// How long the boards have been running.
    double ElapsedSeconds() const;

    /// A script has taken over.
    bool bScripted = false;
    std::vector<BoardModel> Boards;
    /// Settings that outlive the process, where the environment names a file for them.
    std::unique_ptr<StateFile> KeptState;
    std::chrono::steady_clock::time_point BoardsSince;
    /// Part of every handle: one more with each initialization and each new set of boards.
    uintptr_t Generation = 0;
    /// Handles that only scripted answers gave. They are handles of board 0.
    std::set<NvmlDevice> MadeUpHandles;
    uintptr_t MadeUpCount = 0;
    std::atomic<int> ThreadsInside{0};
};

}  // namespace simulated_nvml

#endif  // ENGINE_H
