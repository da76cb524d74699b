#ifndef MONITOR_FUZZ_NVML_H
#define MONITOR_FUZZ_NVML_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// \file
/// An NVML whose every answer an input can choose, and which ends the execution when it is used in a way that a driver
/// does not have to bear. Without a choice it answers as a machine with two healthy GPUs.

namespace monitor_fuzz {

// What the monitor may look up, and the shape of the call.
// clang-format off
#define MONITOR_FUZZ_ENTRY_POINTS(X)                                \
    X(nvmlInit_v2, Init)                                            \
    X(nvmlInit, Init)                                               \
    X(nvmlShutdown, Shutdown)                                       \
    X(nvmlSystemGetDriverVersion, SystemText)                       \
    X(nvmlDeviceGetCount_v2, Count)                                 \
    X(nvmlDeviceGetCount, Count)                                    \
    X(nvmlDeviceGetHandleByIndex_v2, Handle)                        \
    X(nvmlDeviceGetHandleByIndex, Handle)                           \
    X(nvmlDeviceGetName, Text)                                      \
    X(nvmlDeviceGetUUID, Text)                                      \
    X(nvmlDeviceGetVbiosVersion, Text)                              \
    X(nvmlDeviceGetPciInfo_v3, Pci)                                 \
    X(nvmlDeviceGetArchitecture, Value)                             \
    X(nvmlDeviceGetBAR1MemoryInfo, Memory)                          \
    X(nvmlDeviceGetMemoryInfo, Memory)                              \
    X(nvmlDeviceGetTemperature, Selected)                           \
    X(nvmlDeviceGetUtilizationRates, Utilization)                   \
    X(nvmlDeviceGetEncoderUtilization, Pair)                        \
    X(nvmlDeviceGetDecoderUtilization, Pair)                        \
    X(nvmlDeviceGetFanSpeed, Value)                                 \
    X(nvmlDeviceGetClockInfo, Selected)                             \
    X(nvmlDeviceGetPerformanceState, Value)                         \
    X(nvmlDeviceGetCurrPcieLinkGeneration, Value)                   \
    X(nvmlDeviceGetCurrPcieLinkWidth, Value)                        \
    X(nvmlDeviceGetPcieThroughput, Selected)                        \
    X(nvmlDeviceGetCurrentClocksThrottleReasons, Mask)              \
    X(nvmlDeviceGetPowerUsage, Value)                               \
    X(nvmlDeviceGetEnforcedPowerLimit, Value)                       \
    X(nvmlDeviceGetPowerManagementLimit, Value)                     \
    X(nvmlDeviceGetPowerManagementDefaultLimit, Value)              \
    X(nvmlDeviceGetPowerManagementLimitConstraints, Pair)           \
    X(nvmlDeviceSetPowerManagementLimit, SetLimit)                  \
    X(nvmlDeviceGetSupportedMemoryClocks, MemoryClocks)             \
    X(nvmlDeviceGetSupportedGraphicsClocks, GraphicsClocks)         \
    X(nvmlDeviceSetGpuLockedClocks, Lock)                           \
    X(nvmlDeviceResetGpuLockedClocks, Reset)                        \
    X(nvmlDeviceSetMemoryLockedClocks, Lock)                        \
    X(nvmlDeviceResetMemoryLockedClocks, Reset)                     \
    X(nvmlDeviceGetComputeRunningProcesses_v3, Processes)           \
    X(nvmlDeviceGetComputeRunningProcesses_v2, Processes)           \
    X(nvmlDeviceGetComputeRunningProcesses, Processes)              \
    X(nvmlDeviceGetGraphicsRunningProcesses_v3, Processes)          \
    X(nvmlDeviceGetGraphicsRunningProcesses_v2, Processes)          \
    X(nvmlDeviceGetGraphicsRunningProcesses, Processes)
// clang-format on

enum class EntryPoint : size_t {
#define MONITOR_FUZZ_ENUMERATOR(name, shape) name,
    MONITOR_FUZZ_ENTRY_POINTS(MONITOR_FUZZ_ENUMERATOR)
#undef MONITOR_FUZZ_ENUMERATOR
};

constexpr const char* kEntryPointNames[] = {
#define MONITOR_FUZZ_NAME(name, shape) #name,
    MONITOR_FUZZ_ENTRY_POINTS(MONITOR_FUZZ_NAME)
#undef MONITOR_FUZZ_NAME
};

constexpr size_t kEntryPointCount = sizeof kEntryPointNames / sizeof kEntryPointNames[0];
constexpr size_t kSelectors = 4;

template <typename T>
using PerEntryPoint = std::array<T, kEntryPointCount>;

/// What one call answers. The shape of the call decides what the parts mean to it.
struct Answer {
    unsigned int Code = 0;
    /// Whether anything is written to the outputs, whatever the code.
    bool bWrites = true;
    /// How a text, a list, a record or a handle looks; see the calls.
    uint8_t Form = 0;
    /// Without it, what a healthy GPU tells.
    bool bHasValue = false;
    uint32_t Value = 0;
    /// What a list query leaves as the count. Without it, how many entries were written.
    bool bHasCount = false;
    uint32_t Count = 0;
};

/// What a query said last in this operation. A new look-up forgets it.
struct Told {
    enum class Outcome : uint8_t { NotAsked, Failed, SaidNothing, Spoke };
    Outcome Said = Outcome::NotAsked;
    uint64_t First = 0;
    uint64_t Second = 0;
};

/// GPU 0 and what follows it on a healthy machine.
constexpr uint32_t kHealthyDevices = 2;
/// The characters of every text told; what else a record contains was never told.
constexpr char kFirstCharacter = 'a';
constexpr char kLastCharacter = 'p';

class HostileNvml {
public:
    // ---- What the input chooses ----

    /// Back to a healthy machine. Call it while no monitor exists.
    void Reset();
    /// From now on the calls of `name` give the answers appended since `Forget`, one after the other and over again.
    void Append(EntryPoint name, const Answer& answer);
    void Forget(EntryPoint name);
    /// The lookups of `name` fail where `hidden` has a bit, the lowest bit first and over again.
    void Hide(EntryPoint name, uint8_t hidden);
    /// The same for opening the library.
    void HideLibrary(uint8_t hidden);
    /// Makes up about `level` of 256 answers from `seed` where none is chosen; 0 ends it.
    void Confuse(uint32_t seed, uint8_t level);

    // ---- What the fuzz target sees ----

    /// Forgets what belongs to one operation only.
    void BeginOperation();
    bool IsOpen() const { return Library != nullptr; }
    bool Initialized() const { return bInitialized; }
    /// Grows with everything that is done with the library.
    uint64_t Activity() const { return ActivityCount; }
    uint64_t Openings() const { return OpeningCount; }
    const Told& Last(EntryPoint name, size_t selector = 0) const;
    /// Calls in this operation.
    unsigned int Calls(EntryPoint name) const;
    /// The code of the latest call.
    unsigned int LastCode(EntryPoint name) const;
    /// Graphics and memory clocks listed in this operation.
    const std::set<std::pair<int, int>>& ListedPairs() const { return Pairs; }
    /// The number of GPUs that the latest query for it told, since the library was opened; 0 before.
    uint32_t ToldDevices() const { return DeviceCount; }

    // ---- What the monitor does ----

    void* Open(const char* file);
    void Close(void* library);
    void* Lookup(void* library, const char* name);

    unsigned int Init(EntryPoint name);
    unsigned int Shutdown(EntryPoint name);
    unsigned int TellCount(EntryPoint name, unsigned int* count);
    unsigned int TellHandle(EntryPoint name, unsigned int index, void** device);
    unsigned int TellText(EntryPoint name, char* text, unsigned int size);
    unsigned int TellDeviceText(EntryPoint name, void* device, char* text, unsigned int size);
    unsigned int TellPci(EntryPoint name, void* device, void* pci);
    unsigned int TellValue(EntryPoint name, void* device, unsigned int selector, unsigned int* value);
    unsigned int TellPair(EntryPoint name, void* device, unsigned int* first, unsigned int* second);
    unsigned int TellMask(EntryPoint name, void* device, unsigned long long* mask);
    unsigned int TellMemory(EntryPoint name, void* device, void* memory);
    unsigned int TellMemoryClocks(EntryPoint name, void* device, unsigned int* count, unsigned int* clocks);
    unsigned int TellGraphicsClocks(EntryPoint name, void* device, unsigned int memory, unsigned int* count,
                                    unsigned int* clocks);
    unsigned int TellProcesses(EntryPoint name, void* device, unsigned int* count, void* processes);
    unsigned int LockClocks(EntryPoint name, void* device, unsigned int lowest, unsigned int highest);
    unsigned int ResetClocks(EntryPoint name, void* device);
    unsigned int SetLimit(EntryPoint name, void* device, unsigned int milliwatts);

private:
    /// Everything about one entry point.
    struct Script {
        std::vector<Answer> Answers;
        size_t NextAnswer = 0;
        uint8_t Hidden = 0;
        unsigned int Lookups = 0;
        unsigned int Calls = 0;
        unsigned int LastCode = 0;
        std::array<Told, kSelectors> Last;
    };

    Script& Of(EntryPoint name) { return Scripts[static_cast<size_t>(name)]; }
    const Script& Of(EntryPoint name) const { return Scripts[static_cast<size_t>(name)]; }
    /// The rules that hold for every call, and its answer.
    Answer BeginCall(EntryPoint name);
    Answer BeginDeviceCall(EntryPoint name, void* device);
    /// Discovery and cycles pass on a null handle that was told as a success. A driver refuses it, so only what reads
    /// may get one.
    bool MayGetNull(EntryPoint name) const;
    Answer NextAnswer(Script* script);
    Answer MadeUpAnswer();
    uint32_t Random();
    /// Notes what a query said, and gives its code.
    unsigned int Conclude(EntryPoint name, const Answer& answer, size_t selector = 0, uint64_t first = 0,
                          uint64_t second = 0);
    unsigned int TellClockCount(const Answer& answer, unsigned int* count, uint32_t healthy);
    /// Writes clocks into the room offered and gives them back.
    std::set<uint32_t> WriteClocks(const Answer& answer, uint32_t first, unsigned int* count, unsigned int* clocks);
    /// Takes `work` from what one execution may cost. False when that much is not left.
    bool Afford(size_t work);

    PerEntryPoint<Script> Scripts;
    uint8_t LibraryHidden = 0;
    uint32_t RandomState = 0;
    uint8_t Confusion = 0;

    void* Library = nullptr;
    bool bInitialized = false;
    uint64_t OpeningCount = 0;
    uint64_t InitCount = 0;
    uint64_t ActivityCount = 0;
    size_t WorkLeft = 0;
    uint32_t DeviceCount = 0;
    std::set<void*> Handles;
    bool bNullHandedOut = false;

    // Of one operation.
    std::set<uint32_t> MemoryClocks;
    std::set<std::pair<int, int>> Pairs;
    std::set<uint32_t> LockedGraphics;
};

/// The one that the fuzzed monitor opens.
HostileNvml& Nvml();

}  // namespace monitor_fuzz

#endif  // MONITOR_FUZZ_NVML_H
