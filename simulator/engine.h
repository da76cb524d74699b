#ifndef ENGINE_H
#define ENGINE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "board_model.h"
#include "entry_point_list.h"
#include "nvml_abi.h"
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

/// What the script or the environment asks for; a default-constructed one asks for nothing.
struct Script {
    bool bLibraryRemoved = false;
    /// Lookups that still find a name which is to be hidden.
    PerEntryPoint<std::optional<uint64_t>> LookupsLeft{};
    PerEntryPoint<std::chrono::microseconds> Delays{};
    PerEntryPoint<int> ListChanges{};
    std::vector<FailureRule> Failures;
    /// Calls until one fails and lookups until one misses, that one included; 0 for none.
    uint64_t CallsUntilFailure = 0;
    unsigned int FailureCode = kSuccess;
    uint64_t LookupsUntilMiss = 0;
    /// Calls that a board still answers before it is lost.
    std::map<unsigned int, uint64_t> CallsLeft;
    /// Calls that a board still answers before one never returns.
    std::map<unsigned int, uint64_t> CallsUntilHang;
    PerEntryPoint<bool> Blocked{};
    std::optional<double> HeldSeconds;
    size_t ProcessRecordBytes = sizeof(ProcessRecord);
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
    unsigned int OpenLibraries = 0;
    bool bRecordLog = false;
    /// Lists whose size was asked for and that were not read since.
    PerEntryPoint<bool> SizeAsked{};
};

/// Values that the log shows for a call; one without a value is a null buffer.
using Arguments = std::initializer_list<std::optional<uint64_t>>;

/// The simulator behind the entry points and the script. There is one, and it is never destroyed, because a program
/// may call into NVML until its last moment.
class Engine {
public:
    static Engine& Get();

    // ---- For entry points ----

    NvmlReturn Initialize(EntryPoint name);
    NvmlReturn Shutdown();

    /// Runs `body` as one call that is about no board.
    template <typename Body>
    NvmlReturn SystemCall(EntryPoint name, Arguments arguments, Body body) {
        return Run(name, [&](Visit& visit) {
            Note(visit, std::nullopt, arguments);
            const NvmlReturn verdict = Admit(visit, std::nullopt);
            if (verdict == kSuccess) return body();
            if (WritesWhenFailing(name)) body();
            return verdict;
        });
    }

    /// Runs `body` as one call about the board at `index`, or about a board that does not exist.
    template <typename Body>
    NvmlReturn IndexCall(EntryPoint name, unsigned int index, Body body) {
        return Run(name, [&](Visit& visit) {
            Note(visit, index, {});
            const NvmlReturn verdict = Admit(visit, index);
            if (verdict != kSuccess) return verdict;
            return index < Boards.size() ? body(HandleOf(index)) : kInvalidArgument;
        });
    }

    /// Runs `body` with the board that `device` stands for, brought to this moment.
    template <typename Body>
    NvmlReturn DeviceCall(EntryPoint name, NvmlDevice device, Arguments arguments, Body body) {
        return Run(name, [&](Visit& visit) {
            Note(visit, NoteHandle(visit, device), arguments);
            const NvmlReturn verdict = Admit(visit, BoardOf(device));
            BoardModel* board = FindBoard(device);
            if (verdict != kSuccess && (board == nullptr || !WritesWhenFailing(name))) return verdict;
            if (board == nullptr) return kInvalidArgument;
            if (!board->Supports(name)) return kNotSupported;
            BringToNow(board);
            const NvmlReturn answer = body(*board);
            return verdict != kSuccess ? verdict : answer;
        });
    }

    /// A call that needs no NVML and cannot fail.
    void NoteTextCall(EntryPoint name);

    /// Changes settings of a board that a call is about.
    NvmlReturn Change(BoardModel* board, const SettingsEdit& edit);

    unsigned int BoardCount() const { return static_cast<unsigned int>(Boards.size()); }

    // ---- For the script; the caller holds Mutex ----

    /// From here on the environment has no say.
    void TakeOverScript();
    void MakeBoards(std::vector<Board> boards);
    /// The same boards from their first moment on.
    void RestartBoards();
    void ForgetInitialization();
    /// Takes one of the lookups that a name has left. False: it is hidden.
    bool SpendLookup(EntryPoint name);
    void AddMisuse(std::string sentence);
    /// Adds a line to the log where one is kept.
    void LogLine(const std::string& line);

    mutable std::mutex Mutex;
    /// Signalled when a call begins and when the script lets go of one.
    mutable std::condition_variable Changed;
    Script Wanted;
    Observations Seen;
    unsigned int InitCount = 0;

    /// This thread is at work inside the simulator.
    static thread_local bool bInsideCall;

private:
    /// One thread's stay inside an entry point; holds Mutex but for scripted waits.
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

    /// Counts, logs and polices a call that begins.
    void Note(const Visit& visit, std::optional<unsigned int> board, Arguments arguments);
    /// The board of `device`; a handle that is none is misuse.
    std::optional<unsigned int> NoteHandle(const Visit& visit, NvmlDevice device);
    /// Waits as long as the script wants, then tells how the script or the state of NVML answers the call.
    NvmlReturn Admit(Visit& visit, std::optional<unsigned int> board);
    /// Counts a call against the failure rules; the code of one that applies.
    std::optional<NvmlReturn> CountAgainstRules(EntryPoint name, std::optional<unsigned int> board);
    /// Whether a failing call of this query still fills its outputs.
    bool WritesWhenFailing(EntryPoint name) const {
        return Wanted.bFailuresWrite && InitCount != 0 &&
               std::strstr(kEntryPointNames[IndexOf(name)], "Get") != nullptr;
    }
    /// Takes one of the calls that a board has left. False: there is none.
    static bool SpendCall(std::map<unsigned int, uint64_t>* left, unsigned int board);
    /// Sets NVML up as the environment wants it. False: it makes no sense, and stderr says why.
    bool StartFromEnvironment();
    bool TakeOverEnvironment();

    NvmlDevice HandleOf(unsigned int index) const;
    std::optional<unsigned int> BoardOf(NvmlDevice device) const;
    BoardModel* FindBoard(NvmlDevice device);
    void BringToNow(BoardModel* board);
    /// How long the boards have lived.
    double ElapsedSeconds() const;

    /// A script has taken over.
    bool bScripted = false;
    std::vector<BoardModel> Boards;
    /// What outlives the process, where the environment names a file for it.
    std::unique_ptr<StateFile> KeptState;
    std::chrono::steady_clock::time_point BoardsSince;
    /// Part of every handle: one more with each initialization and each new set of boards.
    uintptr_t Generation = 0;
    std::atomic<int> ThreadsInside{0};
};

}  // namespace simulated_nvml

#endif  // ENGINE_H
