// Bytes choose what NVML answers and what a host asks of the monitor, and after every operation the monitor must have
// kept its word. The bytes are a list of instructions: those that script the driver, and public operations.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "fixed_boards.h"
#include "gpu_profiler.h"
#include "nvml_gpu_monitor.h"
#include "sampler_clock.h"
#include "simulated_nvml.h"

namespace {

using namespace simulated_nvml;
using std::chrono::milliseconds;
using Result = GpuClockOperationResult;
using Sample = GpuTelemetrySample;

constexpr size_t kMostInstructions = 200;
/// Inputs choose among the first entry points of the list, which the monitor uses. With another number, the kept inputs
/// would mean something else.
constexpr unsigned int kChosenEntryPoints = 50;
/// For the message of a failure.
const char* Operation = "nothing";
size_t StepNumber = 0;

/// Prints what is wrong and during which operation, and ends the process.
[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "monitor_fuzz: %s (instruction %zu, %s)\n", what.c_str(), StepNumber, Operation);
    std::abort();
}

void Require(bool bHolds, const char* what) {
    if (!bHolds) Fail(what);
}

/// The bytes of one execution, first to last; zeros when they are used up, so that every prefix is an input too.
class Input {
public:
    Input(const uint8_t* data, size_t size) : Data(data), Size(size) {}

    bool AtEnd() const { return Position >= Size; }
    uint8_t Byte() { return AtEnd() ? uint8_t{0} : Data[Position++]; }

    uint32_t Word() {
        uint32_t word = 0;
        for (int i = 0; i < 4; ++i) word = word << 8 | Byte();
        return word;
    }

    /// Mostly small, often a bound of something, at times anything.
    uint32_t Number() {
        constexpr uint32_t kBounds[] = {128,        4095,       4096,       4097,      8192,   65535,
                                        99999,      100000,     200000,     300000,    300001, 0x7FFFFFFF,
                                        0x80000000, 0xFFFFFFFE, 0xFFFFFFFF, 1000000000};
        const uint8_t choice = Byte();
        if (choice < 128) return choice;
        if (choice < 224) return kBounds[choice % std::size(kBounds)];
        return Word();
    }

    /// Any bit pattern: not-a-numbers and infinities too.
    double AnyDouble() {
        const uint64_t bits = uint64_t{Word()} << 32 | Word();
        double number = 0.0;
        std::memcpy(&number, &bits, sizeof number);
        return number;
    }

private:
    const uint8_t* Data;
    size_t Size;
    size_t Position = 0;
};

// ---- The driver ----

SimulatedNvml& Sim() {
    return SimulatedNvml::Get();
}

/// What calls answer and what they came to.
ScriptedAnswers& Nvml() {
    return Sim().Answers();
}

void ResetDriver() {
    static const std::vector<Board> kBoards = fixed_boards::FixedBoards(2);
    Sim().Reset();
    Sim().SetBoards(kBoards);
    Sim().ForbidConcurrentCalls();
    // Discovery and cycles pass on a null handle that was given as a success. What reads a sample or changes a GPU must
    // not.
    for (unsigned int i = 0; i < kEntryPointCount; ++i) {
        const auto name = EntryPoint{i};
        const Shape shape = ShapeOf(name);
        const bool bOnlyDiscovery = shape == Shape::Text || shape == Shape::Pci || shape == Shape::Processes ||
                                    name == EntryPoint::nvmlDeviceGetArchitecture ||
                                    name == EntryPoint::nvmlDeviceGetBAR1MemoryInfo;
        if (bOnlyDiscovery) Nvml().AllowNullHandle(name);
    }
}

// ---- What a host may rely on ----

/// `newer` is what `SnapshotSince` gives for `moment`.
void RequireHistory(const GpuTelemetryHistory& history, const GpuTelemetryHistory& newer, double moment) {
    double latest = 0.0;
    for (const Sample& sample : history.Samples) {
        // A cycle whose reading finds no GPU leaves an empty sample.
        if (sample.TimestampSeconds == 0.0) continue;
        Require(sample.TimestampSeconds > latest, "samples are out of order");
        latest = sample.TimestampSeconds;
    }
    const auto isNewer = [moment](const Sample& sample) { return sample.TimestampSeconds > moment; };
    const auto count = std::count_if(history.Samples.begin(), history.Samples.end(), isNewer);
    Require(newer.Samples.size() == static_cast<size_t>(count), "newer samples are left out, or older ones given");
    Require(std::all_of(newer.Samples.begin(), newer.Samples.end(), isNewer), "an older sample is given");
    Require(newer.ProcessMemory.size() == history.ProcessMemory.size(), "processes are left out");
}

constexpr EntryPoint kLockGraphics = EntryPoint::nvmlDeviceSetGpuLockedClocks;
constexpr EntryPoint kResetGraphics = EntryPoint::nvmlDeviceResetGpuLockedClocks;
constexpr EntryPoint kLockMemory = EntryPoint::nvmlDeviceSetMemoryLockedClocks;
constexpr EntryPoint kResetMemory = EntryPoint::nvmlDeviceResetMemoryLockedClocks;
constexpr EntryPoint kSetLimit = EntryPoint::nvmlDeviceSetPowerManagementLimit;
constexpr EntryPoint kRange = EntryPoint::nvmlDeviceGetPowerManagementLimitConstraints;

/// The driver was asked for a change last by `setter`.
void RequireAnswer(EntryPoint setter, Result result) {
    const unsigned int code = Nvml().Last(setter).Code;
    const Result expected = code == kSuccess        ? Result::Success
                            : code == kNotSupported ? Result::Unsupported
                            : code == kNoPermission ? Result::NoPermission
                                                    : Result::Error;
    Require(result == expected, "a result is not what the driver answered");
}

bool Called(EntryPoint name) {
    return Nvml().Calls(name) != 0;
}

/// Nothing was asked of the driver.
void RequireRefusal(Result result) {
    Require(result == Result::Error || result == Result::Unsupported, "a change succeeded that was not made");
}

void RequireLock(Result result) {
    if (!Called(kLockGraphics)) return RequireRefusal(result);
    // Only a pair that the driver lists may be locked, each clock of it by itself.
    const LastCall& graphics = Nvml().Last(kLockGraphics);
    const LastCall& memory = Nvml().Last(kLockMemory);
    const auto& pairs = Nvml().ListedPairs();
    Require(graphics.First == graphics.Second && memory.First == memory.Second, "a range of clocks was locked");
    const auto isLocked = [&](const std::pair<int, int>& pair) {
        return pair.first == static_cast<int>(graphics.First) &&
               (!Called(kLockMemory) || pair.second == static_cast<int>(memory.First));
    };
    Require(std::any_of(pairs.begin(), pairs.end(), isLocked), "a lock of clocks that are not listed together");
    RequireAnswer(Called(kLockMemory) ? kLockMemory : kLockGraphics, result);
    Require(Called(kLockMemory) || result != Result::Success, "a lock of one clock only succeeded");
    const unsigned int undone = Called(kLockMemory) && result != Result::Success ? 1 : 0;
    Require(Nvml().Calls(kResetGraphics) == undone && Nvml().Calls(kResetMemory) == undone,
            "half a lock was not undone, or another one was");
}

void RequireReset(Result result) {
    Require(Called(kResetGraphics) == Called(kResetMemory), "only one clock was reset");
    if (!Called(kResetMemory)) return RequireRefusal(result);
    RequireAnswer(Nvml().Last(kResetMemory).Code != 0 ? kResetMemory : kResetGraphics, result);
}

void RequireLimitChange(Result result) {
    if (!Called(kSetLimit)) return RequireRefusal(result);
    const uint64_t limit = Nvml().Last(kSetLimit).First;
    const LastCall& range = Nvml().Last(kRange);
    Require(range.bAnswered && range.First <= limit && limit <= range.Second, "a limit was set out of the range");
    RequireAnswer(kSetLimit, result);
}

void RequireNoChange() {
    for (const EntryPoint change : {kLockGraphics, kResetGraphics, kLockMemory, kResetMemory, kSetLimit}) {
        Require(!Called(change), "a GPU was changed without a request");
    }
}

// ---- A host that does what the input says ----

class Host {
public:
    Host(const uint8_t* data, size_t size) : Bytes(data, size) {}

    void Run() {
        for (StepNumber = 0; StepNumber < kMostInstructions && !Bytes.AtEnd(); ++StepNumber) Step();
        Destroy();
    }

private:
    struct Instruction {
        const char* Name;
        void (*Do)(Host& host);
    };
    static const Instruction kInstructions[];

    void Step();

    // ---- Scripting the driver ----

    EntryPoint AnyEntryPoint() { return EntryPoint{Bytes.Byte() % kChosenEntryPoints}; }

    void ScriptAnswer() {
        const EntryPoint name = AnyEntryPoint();
        Answer answer;
        constexpr unsigned int kCodes[] = {0, 1, 2, 3, 4, 6, 7, 15, 999};
        const uint8_t code = Bytes.Byte();
        answer.Code = code == 255 ? Bytes.Word() : kCodes[code % std::size(kCodes)];
        const uint8_t parts = Bytes.Byte();
        answer.bWrites = (parts & 1) == 0;
        answer.Form = static_cast<uint8_t>(parts >> 3);
        if ((parts & 2) != 0) answer.Value = Bytes.Number();
        if ((parts & 4) != 0) answer.Count = Bytes.Number();
        Nvml().Append(name, answer);
    }

    void HideName() {
        const EntryPoint name = AnyEntryPoint();
        Nvml().HideLookups(name, Bytes.Byte());
    }

    void Confuse() {
        const uint32_t seed = Bytes.Byte();
        Nvml().Confuse(seed, Bytes.Byte());
    }

    void SetFrameTime() {
        GPUProfiler::Get()->FrameTimeMs.reset();
        if ((Bytes.Byte() & 1) != 0) GPUProfiler::Get()->FrameTimeMs = Bytes.AnyDouble();
    }

    // ---- Arguments ----

    unsigned int AnyIndex() {
        const uint8_t choice = Bytes.Byte();
        return choice < 240 ? choice % 4 : Bytes.Word();
    }

    milliseconds AnyDuration() {
        const milliseconds durations[] = {milliseconds(0), milliseconds(1000), milliseconds::min(),
                                          milliseconds::max()};
        const uint8_t choice = Bytes.Byte();
        return choice < 250 ? durations[choice % std::size(durations)] : milliseconds(Bytes.Word());
    }

    double AnyWatts() {
        const double watts[] = {
            LatestPower.MinimumWatts,         LatestPower.MaximumWatts, LatestPower.DefaultWatts, NAN, INFINITY,
            LatestPower.MaximumWatts + 0.0004};
        const size_t choice = Bytes.Byte() % (std::size(watts) + 2);
        if (choice < std::size(watts)) return watts[choice];
        return choice == std::size(watts) ? Bytes.Number() / 1000.0 : Bytes.AnyDouble();
    }

    GpuClockPair AnyPair() {
        const std::vector<GpuClockPair>& listed = LatestClocks.SupportedPairs;
        const uint8_t choice = Bytes.Byte();
        if (choice < 200 && !listed.empty()) return listed[choice % listed.size()];
        const auto graphics = static_cast<int>(Bytes.Number());
        return {graphics, static_cast<int>(Bytes.Number())};
    }

    // ---- Lifecycle ----

    void Start(bool (NvmlGpuMonitor::*start)()) {
        bool bStarted = false;
        try {
            bStarted = (Monitor.get()->*start)();
        } catch (const std::system_error&) {
            return Require(Monitor->IsAvailable(), "a start without a thread left NVML closed");
        }
        Require(bStarted == Monitor->IsAvailable(), "a start returns another answer than IsAvailable");
        Require(bStarted || !bSamplerRuns, "a running sampler was not found");
        if (!bStarted || bSamplerRuns) return;
        bSamplerRuns = true;
        AwaitWaits(1);
    }

    void Stop() {
        Monitor->Stop();
        bSamplerRuns = false;
        Require(!Monitor->IsAvailable(), "NVML is up after a stop");
    }

    void Pause() {
        RequireNoDriver([&] { Monitor->PauseSampling(); });
        bSamplerRuns = false;
    }

    void Destroy() {
        Operation = "the destructor";
        Monitor.reset();
        bSamplerRuns = false;
        Require(Sim().Use().OpenLibraries == 0, "a library outlives its monitor");
        Require(sampler_clock::WaitsBegun() == WaitsSeen, "a sampler outlives its monitor");
    }

    void MakeAnother() {
        Destroy();
        Monitor = std::make_unique<NvmlGpuMonitor>();
    }

    // ---- Settings and cycles ----

    void SetInterval() {
        const auto set = [this] { Monitor->SetSampleInterval(AnyDuration()); };
        if (!bSamplerRuns) return RequireNoDriver(set);
        set();
        AwaitWaits(1);
    }

    void SetDelay() {
        RequireNoDriver([this] { Monitor->SetInitialSampleDelay(AnyDuration()); });
    }

    void LetCyclesPass() {
        const unsigned int cycles = Bytes.Byte() % 4 + 1;
        if (!bSamplerRuns) return;
        sampler_clock::PassWaits(cycles);
        AwaitWaits(cycles);
    }

    void WakeSpuriously() {
        if (!bSamplerRuns) return;
        const auto deadline = sampler_clock::LatestWait().Deadline;
        RequireNoDriver([&] {
            sampler_clock::WakeSpuriously();
            AwaitWaits(1);
        });
        Require(sampler_clock::LatestWait().Deadline == deadline, "a spurious wake-up moved the deadline");
    }

    /// Returns when the sampler has begun so many more waits.
    void AwaitWaits(uint64_t more) {
        WaitsSeen += more;
        Require(sampler_clock::AwaitWaits(WaitsSeen), "the sampler did not come to its wait");
        Require(sampler_clock::WaitsBegun() == WaitsSeen, "the sampler waited more often than it had a reason to");
        RequireNoChange();
    }

    // ---- Queries ----

    /// Has `query` fill a record, or refuse a null one.
    template <typename Record, typename Query>
    void Fill(Record* record, Query query) {
        if (Bytes.Byte() == 255) {
            return RequireNoDriver([&] { Require(!query(nullptr), "a query without an output succeeded"); });
        }
        query(record);
        RequireNoChange();
    }

    void Read(std::optional<unsigned int> index) {
        Sample sample;
        Fill(&sample, [&](Sample* output) {
            return index ? Monitor->ReadCurrentSample(*index, output) : Monitor->ReadCurrentSample(output);
        });
    }

    void QueryClocks(std::optional<unsigned int> index) {
        LatestClocks = {};
        Fill(&LatestClocks, [&](GpuClockCapabilities* output) {
            return index ? Monitor->GetClockCapabilities(*index, output) : Monitor->GetClockCapabilities(output);
        });
        std::vector<GpuClockPair> listed;
        for (const auto& [graphics, memory] : Nvml().ListedPairs()) listed.push_back({graphics, memory});
        Require(LatestClocks.SupportedPairs == listed, "the pairs are not those of the driver, sorted and each once");
        Require(LatestClocks.CanControl == !listed.empty(), "a record contradicts itself");
    }

    void QueryPower() {
        const unsigned int index = AnyIndex();
        Fill(&LatestPower, [&](GpuPowerCapabilities* output) { return Monitor->GetPowerCapabilities(index, output); });
    }

    void Capture() {
        Fill(&Captured, [&](GpuClockState* output) { return Monitor->CaptureClockState(output); });
    }

    // ---- Changes ----

    void Lock(std::optional<unsigned int> index) {
        const GpuClockPair pair = AnyPair();
        Change(RequireLock, [&](std::string* error) {
            return index ? Monitor->SetLockedClock(*index, pair, error) : Monitor->SetLockedClock(pair, error);
        });
    }

    void RestoreState() {
        Change(RequireReset, [&](std::string* error) { return Monitor->RestoreClockState(Captured, error); });
    }

    void Reset(std::optional<unsigned int> index) {
        Change(RequireReset, [&](std::string* error) {
            return index ? Monitor->RestoreDefaultClocks(*index, error) : Monitor->RestoreDefaultClocks(error);
        });
    }

    void SetLimit() {
        const unsigned int index = AnyIndex();
        const double watts = AnyWatts();
        Change(RequireLimitChange, [&](std::string* error) { return Monitor->SetPowerLimit(index, watts, error); });
    }

    void RestoreLimit() {
        const unsigned int index = AnyIndex();
        Change(RequireLimitChange, [&](std::string* error) { return Monitor->RestoreDefaultPowerLimit(index, error); });
    }

    /// Makes a change and has `require` judge it. In one of four cases the host does not want the sentence.
    template <typename Operation>
    void Change(void (*require)(Result result), Operation operation) {
        std::string text;
        std::string* const error = Bytes.Byte() % 4 == 3 ? nullptr : &text;
        const Result result = operation(error);
        Require(error == nullptr || text.empty() == (result == Result::Success),
                "a sentence without a failure, or a failure without a sentence");
        require(result);
    }

    // ---- What holds after every operation ----

    template <typename Operation>
    static void RequireNoDriver(Operation operation) {
        const uint64_t activity = Sim().Use().Activity;
        operation();
        Require(Sim().Use().Activity == activity, "the driver was used without need");
    }

    void RequireState() {
        const uint64_t activity = Sim().Use().Activity;
        const bool bUp = Monitor->IsAvailable();
        const std::string status = Monitor->Status();
        const std::vector<GpuTelemetryHistory> histories = Monitor->Snapshot();
        const double now = std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
        for (const double moment : {-1.0, 0.0, now - 3.0, std::nan("")}) {
            const std::vector<GpuTelemetryHistory> newer = Monitor->SnapshotSince(moment);
            Require(newer.size() == histories.size(), "the newer samples are of other GPUs");
            for (size_t i = 0; i < newer.size(); ++i) RequireHistory(histories[i], newer[i], moment);
        }
        Require(Sim().Use().Activity == activity, "an observer used the driver");
        const LibraryUse use = Sim().Use();
        const unsigned int open = bUp ? 1 : 0;
        Require(use.OpenLibraries == open && use.Initializations == open, "the library is not open as it should be");
        Require(!bSamplerRuns || bUp, "a sampler runs without NVML");
        Require(sampler_clock::WaitsBegun() == WaitsSeen, "the sampler woke without a reason");
        const bool bActive = status == "NVML active: " + std::to_string(histories.size()) + " NVIDIA GPU(s).";
        Require(!bUp || (bActive && histories.back().Device.Index < Nvml().DeviceCount()),
                "the GPUs are not those that NVML counted");
    }

    Input Bytes;
    std::unique_ptr<NvmlGpuMonitor> Monitor = std::make_unique<NvmlGpuMonitor>();
    bool bSamplerRuns = false;
    uint64_t WaitsSeen = 0;
    GpuClockCapabilities LatestClocks;
    GpuPowerCapabilities LatestPower;
    GpuClockState Captured;
};

/// Inputs name an instruction by its position, so new ones go last.
constexpr Host::Instruction Host::kInstructions[] = {
    {"an answer", [](Host& host) { host.ScriptAnswer(); }},
    {"the end of answers", [](Host& host) { Nvml().Forget(host.AnyEntryPoint()); }},
    {"a hidden name", [](Host& host) { host.HideName(); }},
    {"a hidden library", [](Host& host) { Nvml().HideLibrary(host.Bytes.Byte()); }},
    {"confusion", [](Host& host) { host.Confuse(); }},
    {"a frame time", [](Host& host) { host.SetFrameTime(); }},
    {"a refused thread", [](Host&) { sampler_clock::RefuseThreads(1); }},
    {"Start", [](Host& host) { host.Start(&NvmlGpuMonitor::Start); }},
    {"Stop", [](Host& host) { host.Stop(); }},
    {"PauseSampling", [](Host& host) { host.Pause(); }},
    {"ResumeSampling", [](Host& host) { host.Start(&NvmlGpuMonitor::ResumeSampling); }},
    {"another monitor", [](Host& host) { host.MakeAnother(); }},
    {"SetSampleInterval", [](Host& host) { host.SetInterval(); }},
    {"SetInitialSampleDelay", [](Host& host) { host.SetDelay(); }},
    {"cycles", [](Host& host) { host.LetCyclesPass(); }},
    {"a spurious wake-up", [](Host& host) { host.WakeSpuriously(); }},
    {"ReadCurrentSample", [](Host& host) { host.Read({}); }},
    {"ReadCurrentSample by index", [](Host& host) { host.Read(host.AnyIndex()); }},
    {"GetClockCapabilities", [](Host& host) { host.QueryClocks({}); }},
    {"GetClockCapabilities by index", [](Host& host) { host.QueryClocks(host.AnyIndex()); }},
    {"GetPowerCapabilities", [](Host& host) { host.QueryPower(); }},
    {"CaptureClockState", [](Host& host) { host.Capture(); }},
    {"SetLockedClock", [](Host& host) { host.Lock({}); }},
    {"SetLockedClock by index", [](Host& host) { host.Lock(host.AnyIndex()); }},
    {"RestoreClockState", [](Host& host) { host.RestoreState(); }},
    {"RestoreDefaultClocks", [](Host& host) { host.Reset({}); }},
    {"RestoreDefaultClocks by index", [](Host& host) { host.Reset(host.AnyIndex()); }},
    {"SetPowerLimit", [](Host& host) { host.SetLimit(); }},
    {"RestoreDefaultPowerLimit", [](Host& host) { host.RestoreLimit(); }},
};

void Host::Step() {
    const Instruction& chosen = kInstructions[Bytes.Byte() % std::size(kInstructions)];
    Operation = chosen.Name;
    Nvml().BeginOperation();
    chosen.Do(*this);
    RequireState();
    for (const std::string& misuse : Sim().Misuse()) Fail(misuse);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ResetDriver();
    sampler_clock::Reset();
    sampler_clock::Hold();
    GPUProfiler::Get()->FrameTimeMs.reset();
    Host(data, size).Run();
    return 0;
}
