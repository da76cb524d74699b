// Bytes choose what NVML answers and what a host asks of the monitor, and after every operation the monitor must have
// kept its word. The bytes are a list of instructions: those that script the driver, and public operations.

#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <variant>
#include <vector>

#include "fixed_boards.h"
#include "gpu_profiler.h"
#include "nvml_gpu_monitor.h"
#include "sampler_clock.h"
#include "simulated_nvml.h"

namespace {

using namespace simulated_nvml;
using std::chrono::milliseconds;
using Outcome = LastCall::Result;
using Result = GpuClockOperationResult;
using Sample = GpuTelemetrySample;

/// What outputs hold before an operation. No answer of the driver is this number, so it can only be what was there.
constexpr uint32_t kPoison = 0x5A5A5A5A;

constexpr size_t kMostInstructions = 200;
/// Filling histories takes a large part of a second. Fuzzing with `-max_len` of this size never does it, and is fast.
constexpr size_t kShortInput = 512;
constexpr size_t kMostSamples = 6000;
/// The cycles of one execution: a few more than fill a history.
constexpr unsigned int kMostCycles = 6100;

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
        const uint32_t word = Word();
        return word == kPoison ? word + 1 : word;
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

// ---- The sentences ----

constexpr const char* kStartFailures[] = {"NVML unavailable / NVIDIA GPU monitoring disabled.",
                                          "NVML initialization failed.", "No NVIDIA GPU found."};
constexpr const char* kNoUsableDevice = "NVML has no usable NVIDIA device.";
constexpr const char* kClockObstacles[] = {
    "NVML locked-clock control is not supported by this driver.", "NVML did not expose supported memory clocks.",
    "NVML supported memory-clock query failed.", "NVML returned no supported locked-clock pairs."};
constexpr const char* kGpuUnavailable = "NVIDIA GPU is unavailable.";

constexpr std::pair<GpuCapabilityState, std::string_view> kPowerSentences[] = {
    {GpuCapabilityState::Supported, "Power-limit control supported; authorization may be required to apply."},
    {GpuCapabilityState::Unsupported, "Power-limit control is not supported by this GPU."},
    {GpuCapabilityState::DriverLimitation, "Power-limit control is not exposed by this NVIDIA driver."},
    {GpuCapabilityState::Unavailable, "Power-limit constraints are temporarily unavailable."}};

template <typename Values, typename T>
bool IsOneOf(const T& value, const Values& values) {
    return std::find(std::begin(values), std::end(values), value) != std::end(values);
}

double NowSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// ---- Fields ----

/// What a field holds that was not read, and what it holds before an operation.
template <typename T>
constexpr T kUnread = std::is_unsigned_v<T> ? T{0} : static_cast<T>(-1);
template <typename T>
constexpr T kPoisoned = static_cast<T>(kPoison);
constexpr const char* kPoisonText = "?untouched?";

constexpr EntryPoint kEnforcedLimit = EntryPoint::nvmlDeviceGetEnforcedPowerLimit;
constexpr EntryPoint kConfiguredLimit = EntryPoint::nvmlDeviceGetPowerManagementLimit;
constexpr EntryPoint kDefaultLimit = EntryPoint::nvmlDeviceGetPowerManagementDefaultLimit;
constexpr EntryPoint kRange = EntryPoint::nvmlDeviceGetPowerManagementLimitConstraints;

/// Where a field comes from.
struct Source {
    EntryPoint Query;
    size_t Selector = 0;
    /// Whether it is the second value that the query writes.
    bool bSecond = false;
    /// How many units of the query are one of the field.
    double Scale = 1.0;
};

/// What a field may hold after the last call of its query.
template <typename T>
void RequireFrom(const Source& source, const T& field) {
    // Of the limits in force, the first one that NVML answers counts.
    const bool bOther = source.Query == kEnforcedLimit && Nvml().Last(kEnforcedLimit).Outcome < Outcome::WroteNothing;
    const LastCall& last = Nvml().Last(bOther ? kConfiguredLimit : source.Query, source.Selector);
    T read = static_cast<T>(source.bSecond ? last.Second : last.First);
    if constexpr (std::is_same_v<T, double>) read /= source.Scale;
    if (last.Outcome == Outcome::Answered) return Require(field == read, "a field is not what the query answered");
    // The query promised an answer and wrote nothing, so anything that the monitor itself had will do.
    if (last.Outcome == Outcome::WroteNothing) return Require(field != kPoisoned<T>, "a field was left as it was");
    Require(field == kUnread<T>, "a field was filled without a successful query");
}

struct Reading {
    std::variant<int Sample::*, double Sample::*, uint64_t Sample::*> Field;
    Source From;
};

constexpr double kMilli = 1000.0;
constexpr double kKibi = 1024.0;
constexpr Reading kReadings[] = {
    {&Sample::TemperatureC, {EntryPoint::nvmlDeviceGetTemperature}},
    {&Sample::GpuUtilizationPercent, {EntryPoint::nvmlDeviceGetUtilizationRates}},
    {&Sample::MemoryUtilizationPercent, {EntryPoint::nvmlDeviceGetUtilizationRates, 0, true}},
    {&Sample::EncoderUtilizationPercent, {EntryPoint::nvmlDeviceGetEncoderUtilization}},
    {&Sample::DecoderUtilizationPercent, {EntryPoint::nvmlDeviceGetDecoderUtilization}},
    {&Sample::FanPercent, {EntryPoint::nvmlDeviceGetFanSpeed}},
    {&Sample::GraphicsClockMHz, {EntryPoint::nvmlDeviceGetClockInfo, 0}},
    {&Sample::SmClockMHz, {EntryPoint::nvmlDeviceGetClockInfo, 1}},
    {&Sample::MemoryClockMHz, {EntryPoint::nvmlDeviceGetClockInfo, 2}},
    {&Sample::VideoClockMHz, {EntryPoint::nvmlDeviceGetClockInfo, 3}},
    {&Sample::PerformanceState, {EntryPoint::nvmlDeviceGetPerformanceState}},
    {&Sample::PcieGeneration, {EntryPoint::nvmlDeviceGetCurrPcieLinkGeneration}},
    {&Sample::PcieWidth, {EntryPoint::nvmlDeviceGetCurrPcieLinkWidth}},
    {&Sample::PowerWatts, {EntryPoint::nvmlDeviceGetPowerUsage, 0, false, kMilli}},
    {&Sample::PowerLimitWatts, {kEnforcedLimit, 0, false, kMilli}},
    {&Sample::DefaultPowerLimitWatts, {kDefaultLimit, 0, false, kMilli}},
    {&Sample::MinimumPowerLimitWatts, {kRange, 0, false, kMilli}},
    {&Sample::MaximumPowerLimitWatts, {kRange, 0, true, kMilli}},
    {&Sample::PcieTransmitMiBPerSecond, {EntryPoint::nvmlDeviceGetPcieThroughput, 0, false, kKibi}},
    {&Sample::PcieReceiveMiBPerSecond, {EntryPoint::nvmlDeviceGetPcieThroughput, 1, false, kKibi}},
    {&Sample::VramUsedBytes, {EntryPoint::nvmlDeviceGetMemoryInfo}},
    {&Sample::VramTotalBytes, {EntryPoint::nvmlDeviceGetMemoryInfo, 0, true}},
    {&Sample::Bar1UsedBytes, {EntryPoint::nvmlDeviceGetBAR1MemoryInfo}},
    {&Sample::Bar1TotalBytes, {EntryPoint::nvmlDeviceGetBAR1MemoryInfo, 0, true}},
    {&Sample::PerformanceLimitReasons, {EntryPoint::nvmlDeviceGetCurrentClocksThrottleReasons}},
};

// ---- Samples ----

/// Calls `visit(sample.*field, source)` for each reading.
template <typename AnySample, typename Visit>
void ForEachReading(AnySample& sample, Visit visit) {
    for (const Reading& reading : kReadings) {
        std::visit([&](auto field) { visit(sample.*field, reading.From); }, reading.Field);
    }
}

void RequirePlausible(const Sample& sample, double after, double before) {
    Require(sample.TimestampSeconds > after && sample.TimestampSeconds < before, "a sample is not from its time");
    Require(!(sample.FrameTimeMs <= 0.0) || sample.FrameTimeMs == -1.0, "a sample has a negative frame time");
}

// ---- Histories ----

void RequireDevice(const GpuDeviceInfo& device) {
    const std::pair<std::string, size_t> texts[] = {{device.Name, 96},
                                                    {device.Uuid, 128},
                                                    {device.PciBusId, 32},
                                                    {device.DriverVersion, 96},
                                                    {device.VbiosVersion, 128}};
    for (const auto& [text, longest] : texts) {
        Require(text.size() <= longest, "a text is longer than its buffer");
        const auto isPrintable = [](char c) { return c >= ' ' && c <= '~'; };
        Require(std::all_of(text.begin(), text.end(), isPrintable), "a text has a character that NVML did not write");
    }
}

void RequireHistory(const GpuTelemetryHistory& history) {
    RequireDevice(history.Device);
    Require(history.ProcessMemory.size() <= 2 * size_t{4096}, "more processes than two lists hold");
    std::set<int> pids;
    for (const GpuProcessMemory& process : history.ProcessMemory) {
        Require(process.Pid != 0 && process.VramUsedBytes != 0 && process.VramUsedBytes != UINT64_MAX,
                "a process without a number or memory is listed");
        Require(pids.insert(process.Pid).second, "a process is listed twice");
    }
    Require(history.Samples.size() <= kMostSamples, "a history is longer than its bound");
    const double now = NowSeconds();
    double latest = 0.0;
    for (const Sample& sample : history.Samples) {
        // A cycle whose reading finds no GPU leaves an empty sample.
        if (sample.TimestampSeconds == 0.0) continue;
        RequirePlausible(sample, latest, now);
        latest = sample.TimestampSeconds;
    }
}

void RequireHistories(const std::vector<GpuTelemetryHistory>& histories) {
    for (size_t i = 0; i < histories.size(); ++i) {
        RequireHistory(histories[i]);
        const GpuDeviceInfo& device = histories[i].Device;
        Require(i == 0 || histories[i - 1].Device.Index < device.Index, "the GPUs are out of order");
        Require(device.DriverVersion == histories[0].Device.DriverVersion, "the GPUs' drivers differ");
    }
}

/// `newer` is what `SnapshotSince` gives for `moment`, `histories` what `Snapshot` gives.
void RequireNewer(double moment, const std::vector<GpuTelemetryHistory>& newer,
                  const std::vector<GpuTelemetryHistory>& histories) {
    RequireHistories(newer);
    Require(newer.size() == histories.size(), "the newer samples are of other GPUs");
    const auto isNew = [moment](const Sample& sample) { return sample.TimestampSeconds > moment; };
    for (size_t i = 0; i < newer.size(); ++i) {
        const auto count = std::count_if(histories[i].Samples.begin(), histories[i].Samples.end(), isNew);
        Require(newer[i].Samples.size() == static_cast<size_t>(count), "newer samples are left out, or old ones given");
    }
}

// ---- Changes ----

constexpr EntryPoint kLockGraphics = EntryPoint::nvmlDeviceSetGpuLockedClocks;
constexpr EntryPoint kResetGraphics = EntryPoint::nvmlDeviceResetGpuLockedClocks;
constexpr EntryPoint kLockMemory = EntryPoint::nvmlDeviceSetMemoryLockedClocks;
constexpr EntryPoint kResetMemory = EntryPoint::nvmlDeviceResetMemoryLockedClocks;
constexpr EntryPoint kSetLimit = EntryPoint::nvmlDeviceSetPowerManagementLimit;

/// What becomes of the driver's code, and the sentence around the name of the change.
struct Verdict {
    unsigned int Code;
    Result Outcome;
    const char* Before;
    const char* After;
};

constexpr Verdict kVerdicts[] = {{kSuccess, Result::Success, "", ""},
                                 {kNotSupported, Result::Unsupported, "The NVIDIA driver does not support ", "."},
                                 {kNoPermission, Result::NoPermission, "NVML denied ", " for this user."},
                                 {kUnknown, Result::Error, "NVML ", " failed."}};

/// `error` is null where the host did not want the sentence.
void RequireAnswer(EntryPoint setter, const std::string& change, Result result, const std::string* error) {
    const Verdict* verdict = std::begin(kVerdicts);
    // The last one is for every other code.
    while (verdict->Code != Nvml().Last(setter).Code && verdict != std::end(kVerdicts) - 1) ++verdict;
    const auto& [code, outcome, before, after] = *verdict;
    Require(result == outcome, "a result is not what the driver answered");
    if (error == nullptr || result == Result::Success) return;
    Require(*error == before + change + after, "a sentence is not that of the answer");
}

bool Called(EntryPoint name) {
    return Nvml().Calls(name) != 0;
}

/// Nothing was asked of the driver, so the sentence must be one of those that go with `result`.
void RequireRefusal(Result result, const std::string* error, std::initializer_list<std::string_view> errors,
                    std::initializer_list<std::string_view> unsupported) {
    Require(result == Result::Error || result == Result::Unsupported, "a change succeeded that was not made");
    if (error == nullptr) return;
    const bool bStartFailed = result == Result::Error && IsOneOf(*error, kStartFailures);
    Require(bStartFailed || IsOneOf(*error, result == Result::Error ? errors : unsupported),
            "a sentence is not one of a refusal");
}

void RequireLock(Result result, const std::string* error) {
    if (!Called(kLockGraphics)) {
        return RequireRefusal(
            result, error, {kNoUsableDevice, kGpuUnavailable},
            {"Requested clock pair is not supported by NVML.", "NVML locked-clock control is unavailable."});
    }
    // Only a pair that the driver lists may be locked, each clock of it by itself.
    const LastCall& graphics = Nvml().Last(kLockGraphics);
    const LastCall& memory = Nvml().Last(kLockMemory);
    const auto& pairs = Nvml().ListedPairs();
    Require(graphics.First == graphics.Second && memory.First == memory.Second, "a range of clocks was locked");
    const auto isLocked = [&](const std::pair<int, int>& pair) {
        return pair.first == static_cast<int>(graphics.First) &&
               (memory.Outcome == Outcome::NotCalled || pair.second == static_cast<int>(memory.First));
    };
    Require(std::any_of(pairs.begin(), pairs.end(), isLocked), "a lock of clocks that are not listed together");
    if (!Called(kLockMemory)) {
        RequireAnswer(kLockGraphics, "GPU locked-clock control", result, error);
        Require(result != Result::Success, "a lock of one clock only succeeded");
        return Require(!Called(kResetGraphics), "an earlier lock was reset");
    }
    RequireAnswer(kLockMemory, "memory locked-clock control", result, error);
    const unsigned int undone = result == Result::Success ? 0 : 1;
    Require(Nvml().Calls(kResetGraphics) == undone && Nvml().Calls(kResetMemory) == undone,
            "half a lock was not undone, or a whole one was");
}

void RequireReset(Result result, const std::string* error) {
    Require(Nvml().Calls(kResetGraphics) == Nvml().Calls(kResetMemory), "only one clock was reset");
    if (!Called(kResetMemory)) {
        return RequireRefusal(result, error, {kNoUsableDevice}, {"NVML locked-clock reset is unavailable."});
    }
    const bool bMemory = Nvml().Last(kResetMemory).Code != 0;
    RequireAnswer(bMemory ? kResetMemory : kResetGraphics,
                  bMemory ? "memory locked-clock reset" : "GPU locked-clock reset", result, error);
}

void RequireLimitChange(Result result, const std::string* error) {
    if (Called(kSetLimit)) {
        const uint64_t limit = Nvml().Last(kSetLimit).First;
        const LastCall& range = Nvml().Last(kRange);
        Require(range.Outcome == Outcome::Answered && range.First <= limit && limit <= range.Second,
                "a limit was set out of the range");
        return RequireAnswer(kSetLimit, "power-limit control", result, error);
    }
    RequireRefusal(
        result, error, {kGpuUnavailable},
        {"Requested power limit is outside the driver-supported range.", "NVML power-limit control is unavailable.",
         kPowerSentences[1].second, kPowerSentences[2].second, kPowerSentences[3].second});
}

/// Like another limit, but a GPU whose default limit cannot be read refuses with the sentence of its state.
void RequireDefaultLimit(Result result, const std::string* error) {
    const bool bLacksDefault =
        !Called(kSetLimit) && result == Result::Unsupported && error != nullptr &&
        (*error == kPowerSentences[0].second || *error == kGpuUnavailable || IsOneOf(*error, kStartFailures));
    if (!bLacksDefault) RequireLimitChange(result, error);
}

void RequireNoChange() {
    for (const EntryPoint change : {kLockGraphics, kResetGraphics, kLockMemory, kResetMemory, kSetLimit}) {
        Require(!Called(change), "a GPU was changed without a request");
    }
}

// ---- The dynamic loader ----

// What the monitor calls in its place: one library, which is the simulator. Lookups and openings are counted there;
// here an opening gets an address of its own, so that a stale one is noticed.
uintptr_t Openings = 0;
void* Library = nullptr;

// ---- A host that does what the input says ----

class Host {
public:
    Host(const uint8_t* data, size_t size) : Bytes(data, size), bLong(size > kShortInput) {}

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

    EntryPoint AnyEntryPoint() { return EntryPoint{Bytes.Byte() % kEntryPointCount}; }

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
        constexpr int64_t kDurations[] = {0,    1,     99,    100,
                                          1000, 10000, 10001, std::numeric_limits<int64_t>::max(),
                                          -1,   -1000, 5000,  std::numeric_limits<int64_t>::min()};
        const uint8_t choice = Bytes.Byte();
        return milliseconds(choice < 250 ? kDurations[choice % std::size(kDurations)] : int64_t{Bytes.Word()});
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
        const bool bRefused = sampler_clock::RefusalsLeft() > 0;
        bool bStarted = false;
        try {
            bStarted = (Monitor.get()->*start)();
        } catch (const std::system_error&) {
            Require(bRefused && sampler_clock::RefusalsLeft() == 0 && Monitor->IsAvailable(), "a start threw");
            return;
        }
        Require(bStarted == Monitor->IsAvailable(), "a start returns another answer than IsAvailable");
        Require(bStarted || !bSamplerRuns, "a running sampler was not found");
        if (!bStarted || bSamplerRuns) return;
        bSamplerRuns = true;
        RunningDelay = Delay;
        AwaitCycles(1);
    }

    void Stop() {
        Monitor->Stop();
        bSamplerRuns = false;
        Require(!Monitor->IsAvailable(), "NVML is up after a stop");
        Require(Sim().Use().Openings == OpeningsBefore, "a stop started NVML");
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
        OpeningsAtBirth = Sim().Use().Openings;
        Interval = milliseconds(1000);
        Delay = milliseconds(0);
    }

    // ---- Settings and cycles ----

    void SetInterval() {
        const milliseconds interval = AnyDuration();
        Interval = std::clamp(interval, milliseconds(100), milliseconds(10000));
        RunningDelay = Delay;
        const auto set = [&] { Monitor->SetSampleInterval(interval); };
        if (!bSamplerRuns) return RequireNoDriver(set);
        set();
        AwaitCycles(1);
    }

    void SetDelay() {
        const milliseconds delay = AnyDuration();
        Delay = std::clamp(delay, milliseconds(0), milliseconds(10000));
        RequireNoDriver([&] { Monitor->SetInitialSampleDelay(delay); });
    }

    /// A few cycles or, in a long input, enough to fill the histories.
    void LetCyclesPass() {
        const uint8_t choice = Bytes.Byte();
        const bool bFill = bLong && choice == 255;
        const unsigned int cycles = bFill ? static_cast<unsigned int>(kMostSamples) + 1 : choice % 4 + 1;
        if (!bSamplerRuns || cycles > CyclesLeft) return;
        CyclesLeft -= cycles;
        sampler_clock::PassWaits(cycles);
        AwaitCycles(cycles);
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

    /// Returns when the sampler has begun so many more waits, each of them after a cycle or a change of its times.
    void AwaitCycles(uint64_t more) {
        AwaitWaits(more);
        const auto length = std::chrono::round<milliseconds>(sampler_clock::LatestWait().Duration);
        Require(length == Interval || length == RunningDelay, "the sampler waits for another time than was set");
    }

    /// Returns when the sampler has begun so many more waits.
    void AwaitWaits(uint64_t more) {
        WaitsSeen += more;
        Require(sampler_clock::AwaitWaits(WaitsSeen), "the sampler did not come to its wait");
        Require(sampler_clock::WaitsBegun() == WaitsSeen, "the sampler waited more often than it had a reason to");
        RequireNoChange();
    }

    // ---- Readings and queries ----

    /// Has `query` fill a record that nobody has filled, or refuse a null one. False: it was null.
    template <typename Record, typename Query>
    bool Fill(Record* record, const Record& poisoned, Query query) {
        if (Bytes.Byte() == 255) {
            RequireNoDriver([&] { Require(!query(nullptr), "a query without an output succeeded"); });
            return false;
        }
        *record = poisoned;
        bFilled = query(record);
        RequireNoChange();
        return true;
    }

    void Read(std::optional<unsigned int> index) {
        Sample poisoned;
        ForEachReading(poisoned, [](auto& field, const Source&) { field = kPoisoned<std::decay_t<decltype(field)>>; });
        poisoned.TimestampSeconds = poisoned.FrameTimeMs = kPoisoned<double>;
        Sample sample;
        const double before = NowSeconds();
        const auto read = [&](Sample* output) {
            return index ? Monitor->ReadCurrentSample(*index, output) : Monitor->ReadCurrentSample(output);
        };
        if (!Fill(&sample, poisoned, read)) return;
        const bool bEmpty = !bFilled && sample.TimestampSeconds == 0.0;
        // A record without a reading is empty, whatever the queries answered.
        if (bEmpty) Nvml().BeginOperation();
        ForEachReading(sample, [](const auto& field, const Source& source) { RequireFrom(source, field); });
        if (bEmpty) return Require(sample.FrameTimeMs == -1.0, "a record without a reading has a frame time");
        const double frame = GPUProfiler::Get()->FrameTimeMs.value_or(-1.0);
        const bool bNan = std::isnan(frame) && std::isnan(sample.FrameTimeMs);
        Require(bNan || sample.FrameTimeMs == (frame <= 0.0 ? -1.0 : frame), "a frame time is not the profiler's");
        RequirePlausible(sample, before - 1e-6, NowSeconds());
        Require(bFilled == (sample.PowerWatts >= 0.0 || sample.GraphicsClockMHz >= 0),
                "a reading reports another result");
    }

    void QueryClocks(std::optional<unsigned int> index) {
        const auto query = [&](GpuClockCapabilities* output) {
            return index ? Monitor->GetClockCapabilities(*index, output) : Monitor->GetClockCapabilities(output);
        };
        const GpuClockPair pair = {kPoisoned<int>, kPoisoned<int>};
        const GpuClockCapabilities poisoned = {kPoison,        kPoisonText,    kPoisonText, {pair},
                                               kPoisoned<int>, kPoisoned<int>, true,        kPoisonText};
        if (Fill(&LatestClocks, poisoned, query)) RequireClocks(index.value_or(0), LatestClocks);
    }

    void RequireClocks(unsigned int index, const GpuClockCapabilities& clocks) {
        const bool bUp = Monitor->IsAvailable();
        Require(bUp || !bFilled, "a query succeeded without NVML");
        Require(clocks.DeviceIndex == (bUp ? index : 0), "a record is of another GPU");
        const GpuDeviceInfo device = bUp ? DeviceOf(index).value_or(GpuDeviceInfo{}) : GpuDeviceInfo{};
        Require(clocks.DeviceName == device.Name && clocks.DeviceUuid == device.Uuid, "a record has another identity");
        RequireFrom({EntryPoint::nvmlDeviceGetClockInfo, 0}, clocks.CurrentGraphicsClockMHz);
        RequireFrom({EntryPoint::nvmlDeviceGetClockInfo, 2}, clocks.CurrentMemoryClockMHz);
        Require(clocks.CanControl == !clocks.SupportedPairs.empty(), "a record contradicts itself");
        std::vector<GpuClockPair> listed;
        for (const auto& [graphics, memory] : Nvml().ListedPairs()) listed.push_back({graphics, memory});
        Require(clocks.SupportedPairs == listed, "the pairs are not those of the driver, sorted and each once");
        if (!bUp || clocks.CanControl) {
            Require(clocks.Status == Monitor->Status(), "a record's status is not the monitor's");
        } else if (bFilled) {
            Require(IsOneOf(clocks.Status, kClockObstacles), "a record names no obstacle");
        } else {
            Require(clocks.Status == kNoUsableDevice, "a record does not say that there is no GPU");
        }
    }

    void QueryPower() {
        const unsigned int index = AnyIndex();
        const double watts = kPoisoned<double>;
        const GpuPowerCapabilities poisoned = {
            kPoison, kPoisonText, static_cast<GpuCapabilityState>(77), watts, watts, watts, watts, kPoisonText};
        const auto query = [&](GpuPowerCapabilities* output) { return Monitor->GetPowerCapabilities(index, output); };
        if (!Fill(&LatestPower, poisoned, query)) return;
        Require(LatestPower.DeviceIndex == index, "a record is of another GPU");
        RequireFrom({kEnforcedLimit, 0, false, kMilli}, LatestPower.CurrentWatts);
        RequireFrom({kDefaultLimit, 0, false, kMilli}, LatestPower.DefaultWatts);
        RequireFrom({kRange, 0, false, kMilli}, LatestPower.MinimumWatts);
        RequireFrom({kRange, 0, true, kMilli}, LatestPower.MaximumWatts);
        RequirePowerStatus(LatestPower);
    }

    void RequirePowerStatus(const GpuPowerCapabilities& power) {
        const std::optional<GpuDeviceInfo> device = DeviceOf(power.DeviceIndex);
        if (bFilled) {
            Require(Monitor->IsAvailable() && device.has_value(), "a GPU was found that is not there");
            Require(power.DeviceUuid == device->Uuid, "a record has another identity");
            const std::pair<GpuCapabilityState, std::string_view> sentence(power.State, power.Status);
            Require(IsOneOf(sentence, kPowerSentences), "a state and its sentence do not fit");
        } else {
            const bool bEmpty = power.DeviceUuid.empty() && power.State == GpuCapabilityState::Unavailable;
            const std::string obstacle = Monitor->IsAvailable() ? kGpuUnavailable : Monitor->Status();
            Require(bEmpty && power.Status == obstacle, "a record without a GPU is not empty but for the obstacle");
        }
        const bool bRange = power.MinimumWatts > 0.0 && power.MaximumWatts >= power.MinimumWatts;
        const bool bSettable = bRange && power.CurrentWatts >= 0.0;
        Require(bSettable || power.State != GpuCapabilityState::Supported, "a limit can be set in no range");
    }

    void Capture() {
        const auto query = [&](GpuClockState* output) { return Monitor->CaptureClockState(output); };
        if (!Fill(&Captured, {true, kPoisoned<int>, kPoisoned<int>}, query)) return;
        Require(Captured.Valid == bFilled && bFilled == !Nvml().ListedPairs().empty(), "a capture is not valid");
        // An invalid capture is empty, whatever the queries answered.
        if (!bFilled) Nvml().BeginOperation();
        RequireFrom({EntryPoint::nvmlDeviceGetClockInfo, 0}, Captured.GraphicsClockMHz);
        RequireFrom({EntryPoint::nvmlDeviceGetClockInfo, 2}, Captured.MemoryClockMHz);
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
        Change(RequireDefaultLimit,
               [&](std::string* error) { return Monitor->RestoreDefaultPowerLimit(index, error); });
    }

    /// Makes a change and has `require` judge it. In one of four cases the host does not want the sentence.
    template <typename Operation>
    void Change(void (*require)(Result result, const std::string* error), Operation operation) {
        std::string text = kPoisonText;
        std::string* const error = Bytes.Byte() % 4 == 3 ? nullptr : &text;
        const Result result = operation(error);
        Require(error == nullptr || (text == kPoisonText) == (result == Result::Success),
                "a sentence without a failure, or a failure without a sentence");
        require(result, error);
    }

    // ---- What holds after every operation ----

    template <typename Operation>
    static void RequireNoDriver(Operation operation) {
        const uint64_t activity = Sim().Use().Activity;
        operation();
        Require(Sim().Use().Activity == activity, "the driver was used without need");
    }

    std::optional<GpuDeviceInfo> DeviceOf(unsigned int index) const {
        for (const GpuTelemetryHistory& history : Monitor->Snapshot()) {
            if (history.Device.Index == index) return history.Device;
        }
        return {};
    }

    void RequireState() {
        const uint64_t activity = Sim().Use().Activity;
        const bool bUp = Monitor->IsAvailable();
        const std::string status = Monitor->Status();
        const std::vector<GpuTelemetryHistory> histories = Monitor->Snapshot();
        for (const double moment : {-1.0, 0.0, NowSeconds() - 3.0, std::nan("")}) {
            RequireNewer(moment, Monitor->SnapshotSince(moment), histories);
        }
        Require(Sim().Use().Activity == activity, "an observer used the driver");
        const LibraryUse use = Sim().Use();
        const unsigned int open = bUp ? 1 : 0;
        Require(use.OpenLibraries == open && use.Initializations == open, "the library is not open as it should be");
        Require(!bSamplerRuns || bUp, "a sampler runs without NVML");
        Require(sampler_clock::WaitsBegun() == WaitsSeen, "the sampler woke without a reason");
        RequireHistories(histories);
        const std::string active = "NVML active: " + std::to_string(histories.size()) + " NVIDIA GPU(s).";
        const bool bActive = status == active && !histories.empty();
        if (bUp) {
            Require(bActive, "the status is not that of an NVML that is up");
            Require(histories.back().Device.Index < Nvml().DeviceCount(), "a GPU is listed that NVML did not count");
        } else if (use.Openings == OpeningsAtBirth) {
            Require(status.empty() && histories.empty(), "something is known without an attempt");
        } else {
            Require(bActive || IsOneOf(status, kStartFailures), "the status is no known line");
        }
        // Only a start that fails after NVML has counted GPUs could leave histories.
        const bool bJustFailed = !bUp && use.Openings != OpeningsBefore && Nvml().DeviceCount() > 0;
        Require(!bJustFailed || histories.empty(), "a failed start left histories");
    }

    Input Bytes;
    bool bLong;
    std::unique_ptr<NvmlGpuMonitor> Monitor = std::make_unique<NvmlGpuMonitor>();
    bool bSamplerRuns = false;
    /// What the latest query returned.
    bool bFilled = false;
    uint64_t WaitsSeen = 0;
    uint64_t OpeningsAtBirth = 0;
    uint64_t OpeningsBefore = 0;
    unsigned int CyclesLeft = kMostCycles;
    milliseconds Interval{1000};
    milliseconds Delay{0};
    milliseconds RunningDelay{0};
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
    OpeningsBefore = Sim().Use().Openings;
    chosen.Do(*this);
    RequireState();
    for (const std::string& misuse : Sim().Misuse()) Fail(misuse);
}

}  // namespace

extern "C" {

void* MonitorFuzzOpen(const char* file, int mode) {
    Require(file != nullptr && std::string_view(file) == "libnvidia-ml.so.1", "a library of another name is opened");
    Require(Library == nullptr, "the library is opened while it is open");
    if (Sim().OnOpen(mode)) Library = reinterpret_cast<void*>(++Openings << 4);
    return Library;
}

int MonitorFuzzClose(void* library) {
    Require(library != nullptr && library == Library, "a library is closed that is not open");
    Sim().OnClose();
    Library = nullptr;
    return 0;
}

void* MonitorFuzzLookup(void* library, const char* name) {
    Require(library != nullptr && library == Library, "a name is looked up in a library that is not open");
    return Sim().OnLookup(name).has_value() ? dlsym(RTLD_DEFAULT, name) : nullptr;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ResetDriver();
    sampler_clock::Reset();
    sampler_clock::Hold();
    GPUProfiler::Get()->FrameTimeMs.reset();
    Host(data, size).Run();
    return 0;
}

}  // extern "C"
