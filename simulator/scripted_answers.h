#ifndef SCRIPTED_ANSWERS_H
#define SCRIPTED_ANSWERS_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "entry_point_list.h"
#include "nvml_abi.h"

/// \file
/// Answers that a script gives in place of the boards: any code, written or not, true or not.

namespace simulated_nvml {

/// What one call answers. The shape of the call decides what the parts mean to it.
struct Answer {
    unsigned int Code = 0;
    /// Whether anything is written to the outputs, whatever the code.
    bool bWrites = true;
    /// Bits that say how the output looks.
    /// Texts: 0 leaves out the terminator, 1 makes the text empty, 2 writes behind the terminator too, 3 leaves the
    /// longer one of two bus ids empty.
    /// Lists: 0 makes all entries alike, 1 makes every other entry 0, 2 leaves out half of them, 3 writes 32 bytes per
    /// process.
    /// Handles: 0 gives a null handle, 1 gives a new one each time.
    /// 64-bit values: the lowest five say how far they are shifted left.
    uint8_t Form = 0;
    /// The value, the length of a text, the number of entries that a list has, or its first entry; and any value lets
    /// the GPU exist that a handle is asked for. Without a value, what the board answers.
    std::optional<uint32_t> Value{};
    /// The second value, or what a list query leaves as the count. Without it, what the board answers.
    std::optional<uint32_t> Count{};
};

/// What the last call of a name did.
struct LastCall {
    unsigned int Code = 0;
    /// Whether a query succeeded and wrote its values.
    bool bAnswered = false;
    /// The number of GPUs or the pair of values that a query wrote, or the values passed to a change.
    uint64_t First = 0;
    uint64_t Second = 0;
};

/// Values that the log shows for a call; one without a value is a null buffer.
using Arguments = std::initializer_list<std::optional<uint64_t>>;

/// Where a call writes: one value or two, a text of so many bytes, or the count of a list and its entries.
struct Outputs {
    void* First = nullptr;
    void* Second = nullptr;
    unsigned int TextBytes = 0;
};

/// One call of an entry point.
struct Call {
    EntryPoint Name;
    Arguments Values;
    Outputs Written;
};

/// What is wrong with the arguments of a call, whatever the board, and whether no board can answer it.
struct Complaint {
    const char* Text;
    bool bRefused;
};

/// No GPU lists more than this many clocks or processes.
constexpr uint32_t kLongestList = 4096;

/// The answers that were scripted, and what calls did. Threads: the operations for scripts are called while no
/// thread is inside NVML.
class SIMULATED_NVML_EXPORT ScriptedAnswers {
public:
    // ---- For scripts ----

    /// From now on, calls of `name` give the answers appended since `Forget`, one after the other and over again.
    void Append(EntryPoint name, const Answer& answer) { Of(name).Answers.push_back(answer); }
    void Forget(EntryPoint name);
    /// Lookups of `name` find nothing where `pattern` has a bit, the lowest bit first and over again.
    void HideLookups(EntryPoint name, uint8_t pattern);
    /// Opening the library fails by such a pattern.
    void HideLibrary(uint8_t pattern) { LibraryHidden = pattern; }
    /// Makes up about `level` of 256 answers from `seed` where no answer was appended; 0 ends it.
    void Confuse(uint32_t seed, uint8_t level);
    /// Lets `name` be called with a null handle, for board 0, once such a handle was given as a success.
    void AllowNullHandle(EntryPoint name) { Of(name).bNullAllowed = true; }

    /// Starts observing anew: forgets the calls and the lists that were observed before.
    void BeginOperation();
    /// What the last call of `name` did in this operation, since `name` was looked up.
    const LastCall& Last(EntryPoint name) const { return Of(name).Last; }
    /// Calls in this operation.
    unsigned int Calls(EntryPoint name) const { return Of(name).Calls; }
    /// Graphics and memory clocks that go together, as listed in this operation.
    const std::set<std::pair<int, int>>& ListedPairs() const { return Pairs; }
    /// How many GPUs the latest query said there are, since the library was opened; 0 before.
    uint32_t DeviceCount() const { return Devices; }

    // ---- For the engine ----

    bool HidesLibrary(uint64_t opening) const { return HasBit(LibraryHidden, opening); }
    /// Counts a lookup of `name`. True: it finds nothing.
    bool HidesLookup(EntryPoint name);
    void ForgetDeviceCount() { Devices = 0; }
    bool MayGetNull(EntryPoint name) const { return bNullGiven && Of(name).bNullAllowed; }
    void NoteNullGiven(bool bGiven) { bNullGiven = bGiven; }

    /// The answer to the call of `name` that begins, where the script has one.
    std::optional<Answer> Next(EntryPoint name);
    /// Takes `work` from what may be spent on long lists and many GPUs. False: that much is not left.
    bool Afford(size_t work);
    /// Ends a call as `answer` says. `body` answers as the board does.
    template <typename Body>
    NvmlReturn Complete(const Call& call, const std::optional<Answer>& answer, Body body) {
        const uint32_t room = RoomOf(call);
        const bool bActs = !answer.has_value() || Acts(call.Name, *answer);
        NvmlReturn code = bActs ? body() : kSucceeded;
        if (answer.has_value()) {
            code = answer->Code;
            if (bActs) Write(call, *answer, room);
        }
        if (bObserving) Observe(call, code, bActs, room);
        return code;
    }
    std::optional<Complaint> Judge(const Call& call) const;

private:
    static constexpr NvmlReturn kSucceeded = 0;
    /// List entries that may be answered in all.
    static constexpr size_t kWork = 15000;

    /// Everything about one entry point.
    struct Script {
        std::vector<Answer> Answers;
        size_t NextAnswer = 0;
        uint8_t Hidden = 0;
        unsigned int Lookups = 0;
        bool bNullAllowed = false;
        unsigned int Calls = 0;
        LastCall Last;
    };

    /// Whether `pattern` has the bit for the `turn`th time.
    static bool HasBit(uint8_t pattern, uint64_t turn) { return (pattern >> turn % 8 & 1) != 0; }
    Script& Of(EntryPoint name) { return Scripts[IndexOf(name)]; }
    const Script& Of(EntryPoint name) const { return Scripts[IndexOf(name)]; }
    /// Whether a call with this answer does anything besides returning a code.
    static bool Acts(EntryPoint name, const Answer& answer);
    /// The room that the caller of a list query offers.
    static uint32_t RoomOf(const Call& call);
    Answer MakeUpAnswer();
    uint32_t Random();
    void Write(const Call& call, const Answer& answer, uint32_t room);
    void WriteListCount(const Call& call, const Answer& answer);
    void Observe(const Call& call, NvmlReturn code, bool bWrites, uint32_t room);
    void ObserveClocks(const Call& call, uint32_t room);

    PerEntryPoint<Script> Scripts;
    uint8_t LibraryHidden = 0;
    uint32_t RandomState = 0;
    uint8_t Confusion = 0;
    size_t WorkLeft = kWork;
    bool bNullGiven = false;

    bool bObserving = false;
    uint32_t Devices = 0;
    std::set<uint32_t> MemoryClocks;
    std::set<std::pair<int, int>> Pairs;
};

}  // namespace simulated_nvml

#endif  // SCRIPTED_ANSWERS_H
