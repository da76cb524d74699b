// Bytes choose what NVML answers and what a host asks of the monitor, and after every operation the monitor must have
// kept its word. The bytes are a list of instructions: those that script the driver, and public operations.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <system_error>
#include <vector>

#include "fixed_boards.h"
#include "gpu_profiler.h"
#include "monitor_fuzz_input.h"
#include "nvml_gpu_monitor.h"
#include "sampler_clock.h"
#include "simulated_nvml.h"

namespace monitor_fuzz {

namespace {

using simulated_nvml::Answer;
using simulated_nvml::Board;
using simulated_nvml::EntryPoint;
using simulated_nvml::LastCall;
using simulated_nvml::LibraryUse;
using simulated_nvml::Shape;
using simulated_nvml::SimulatedNvml;
using Outcome = LastCall::Result;
using Result = GpuClockOperationResult;
using Sample = GpuTelemetrySample;

constexpr size_t kMostInstructions = 200;
/// Filling histories takes a large part of a second. Fuzzing with `-max_len` of this size never does it, and is fast.
constexpr size_t kShortInput = 512;
constexpr size_t kMostSamples = 6000;
/// The cycles of one execution: a few more than fill a history.
constexpr unsigned int kMostCycles = 6100;

/// For the message of a failure.
const char* Operation = "nothing";
size_t InstructionNumber = 0;

// ---- The driver ----

SimulatedNvml& Sim() {
    static SimulatedNvml& sim = SimulatedNvml::Get();
    return sim;
}

/// What calls answer and what they came to.
simulated_nvml::ScriptedAnswers& Nvml() {
    static simulated_nvml::ScriptedAnswers& answers = Sim().Answers();
    return answers;
}

/// GPUs that nothing is wrong with, whose texts have only characters that `RequireText` expects.
std::vector<Board> HealthyBoards() {
    const std::vector<simulated_nvml::ClockGroup> clocks = {{405, {330, 315, 300}}, {420, {330, 315, 300}}};
    std::vector<Board> boards = fixed_boards::FixedBoards(2, fixed_boards::DistinctReadings(), clocks);
    for (Board& board : boards) {
        for (std::string Board::*text :
             {&Board::Name, &Board::Uuid, &Board::BusId, &Board::BusIdLegacy, &Board::VbiosVersion}) {
            board.*text = "abcdefgh";
        }
    }
    return boards;
}

void ResetDriver() {
    static const std::vector<Board> kBoards = HealthyBoards();
    Sim().Reset();
    Sim().SetBoards(kBoards);
    Sim().ForbidConcurrentCalls();
    // Discovery and cycles pass on a null handle that was given as a success. What reads a sample or changes a GPU must
    // not.
    for (unsigned int i = 0; i < simulated_nvml::kEntryPointCount; ++i) {
        const auto name = EntryPoint{i};
        const Shape shape = ShapeOf(name);
        const bool bOnlyDiscovery = shape == Shape::Text || shape == Shape::Pci || shape == Shape::Processes ||
                                    name == EntryPoint::nvmlDeviceGetArchitecture ||
                                    name == EntryPoint::nvmlDeviceGetBAR1MemoryInfo;
        if (bOnlyDiscovery) Nvml().AllowNullHandle(name);
    }
}

void RequireNoMisuse() {
    const std::vector<std::string> misuse = Sim().Misuse();
    if (!misuse.empty()) Fail(misuse.front());
}

// ---- The sentences ----

constexpr const char* kStartFailures[] = {"NVML unavailable / NVIDIA GPU monitoring disabled.",
                                          "NVML initialization failed.", "No NVIDIA GPU found."};
constexpr const char* kNoUsableDevice = "NVML has no usable NVIDIA device.";
constexpr const char* kClockObstacles[] = {
    "NVML locked-clock control is not supported by this driver.", "NVML did not expose supported memory clocks.",
    "NVML supported memory-clock query failed.", "NVML returned no supported locked-clock pairs."};
constexpr const char* kGpuUnavailable = "NVIDIA GPU is unavailable.";

struct PowerSentence {
    GpuCapabilityState State;
    const char* Text;
};

constexpr PowerSentence kPowerSentences[] = {
    {GpuCapabilityState::Supported, "Power-limit control supported; authorization may be required to apply."},
    {GpuCapabilityState::Unsupported, "Power-limit control is not supported by this GPU."},
    {GpuCapabilityState::DriverLimitation, "Power-limit control is not exposed by this NVIDIA driver."},
    {GpuCapabilityState::Unavailable, "Power-limit constraints are temporarily unavailable."}};

template <typename Texts>
bool IsOneOf(const std::string& text, const Texts& texts) {
    return std::find(std::begin(texts), std::end(texts), text) != std::end(texts);
}

std::string ActiveStatus(size_t devices) {
    return "NVML active: " + std::to_string(devices) + " NVIDIA GPU(s).";
}

double NowSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// ---- Fields ----

/// What a field holds that was not read, and what it holds before an operation.
template <typename T>
constexpr T kUnread = -1;
template <>
constexpr uint64_t kUnread<uint64_t> = 0;
template <typename T>
constexpr T kPoisoned = static_cast<T>(kPoison);
template <>
constexpr uint64_t kPoisoned<uint64_t> = uint64_t{kPoison} << 32 | kPoison;
template <>
constexpr double kPoisoned<double> = -12345.5;
constexpr const char* kPoisonText = "?untouched?";

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
    const LastCall& last = Nvml().Last(source.Query, source.Selector);
    T read = static_cast<T>(source.bSecond ? last.Second : last.First);
    if constexpr (std::is_same_v<T, double>) read /= source.Scale;
    switch (last.Outcome) {
        case Outcome::NotCalled:
        case Outcome::Failed: Require(field == kUnread<T>, "a field was filled without a successful query"); break;
        case Outcome::Answered: Require(field == read, "a field is not what the query answered"); break;
        // The query promised an answer and wrote nothing, so anything that the monitor itself had will do.
        case Outcome::WroteNothing: Require(field != kPoisoned<T>, "a field was left as it was"); break;
    }
}

template <typename T>
struct Reading {
    T Sample::*Field;
    Source From;
};

constexpr double kMilli = 1000.0;
constexpr double kKibi = 1024.0;

constexpr Reading<int> kIntReadings[] = {
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
};

constexpr Reading<double> kRealReadings[] = {
    {&Sample::PowerWatts, {EntryPoint::nvmlDeviceGetPowerUsage, 0, false, kMilli}},
    {&Sample::PcieTransmitMiBPerSecond, {EntryPoint::nvmlDeviceGetPcieThroughput, 0, false, kKibi}},
    {&Sample::PcieReceiveMiBPerSecond, {EntryPoint::nvmlDeviceGetPcieThroughput, 1, false, kKibi}},
};

constexpr Reading<uint64_t> kLongReadings[] = {
    {&Sample::VramUsedBytes, {EntryPoint::nvmlDeviceGetMemoryInfo}},
    {&Sample::VramTotalBytes, {EntryPoint::nvmlDeviceGetMemoryInfo, 0, true}},
    {&Sample::Bar1UsedBytes, {EntryPoint::nvmlDeviceGetBAR1MemoryInfo}},
    {&Sample::Bar1TotalBytes, {EntryPoint::nvmlDeviceGetBAR1MemoryInfo, 0, true}},
    {&Sample::PerformanceLimitReasons, {EntryPoint::nvmlDeviceGetCurrentClocksThrottleReasons}},
};

constexpr double Sample::*kLimits[] = {&Sample::PowerLimitWatts, &Sample::DefaultPowerLimitWatts,
                                       &Sample::MinimumPowerLimitWatts, &Sample::MaximumPowerLimitWatts};

void RequireLimits(double current, double standard, double minimum, double maximum) {
    constexpr EntryPoint kEnforced = EntryPoint::nvmlDeviceGetEnforcedPowerLimit;
    constexpr EntryPoint kRange = EntryPoint::nvmlDeviceGetPowerManagementLimitConstraints;
    // Of the limits in force, the first one that NVML answers counts.
    const bool bEnforced = Nvml().Last(kEnforced).Outcome >= Outcome::WroteNothing;
    RequireFrom({bEnforced ? kEnforced : EntryPoint::nvmlDeviceGetPowerManagementLimit, 0, false, kMilli}, current);
    RequireFrom({EntryPoint::nvmlDeviceGetPowerManagementDefaultLimit, 0, false, kMilli}, standard);
    RequireFrom({kRange, 0, false, kMilli}, minimum);
    RequireFrom({kRange, 0, true, kMilli}, maximum);
}

void RequireText(const std::string& text, size_t longest) {
    constexpr const char* kCharacters = "abcdefghijklmnop0123456789.";
    Require(text.size() <= longest, "a text is longer than its buffer");
    Require(text.find_first_not_of(kCharacters) == std::string::npos, "a text has a character that NVML did not write");
}

void RequireArchitecture(const std::string& name) {
    constexpr const char* kNames[] = {"",       "Unknown", "Kepler", "Maxwell", "Pascal",   "Volta",
                                      "Turing", "Ampere",  "Ada",    "Hopper",  "Blackwell"};
    Require(IsOneOf(name, kNames), "an architecture has no known name");
}

void RequireFrameTime(double field) {
    const std::optional<double> frame = GPUProfiler::Get()->FrameTimeMs;
    if (!frame || *frame <= 0.0) {
        Require(field == -1.0, "a frame time was made up");
    } else {
        Require(field == *frame || (std::isnan(field) && std::isnan(*frame)), "a frame time is not the profiler's");
    }
}

// ---- Samples ----

Sample PoisonedSample() {
    Sample sample;
    for (const auto& reading : kIntReadings) sample.*reading.Field = kPoisoned<int>;
    for (const auto& reading : kRealReadings) sample.*reading.Field = kPoisoned<double>;
    for (const auto& reading : kLongReadings) sample.*reading.Field = kPoisoned<uint64_t>;
    for (double Sample::*limit : kLimits) sample.*limit = kPoisoned<double>;
    sample.TimestampSeconds = sample.FrameTimeMs = kPoisoned<double>;
    return sample;
}

void RequireReadings(const Sample& sample) {
    for (const auto& reading : kIntReadings) RequireFrom(reading.From, sample.*reading.Field);
    for (const auto& reading : kRealReadings) RequireFrom(reading.From, sample.*reading.Field);
    for (const auto& reading : kLongReadings) RequireFrom(reading.From, sample.*reading.Field);
    RequireLimits(sample.PowerLimitWatts, sample.DefaultPowerLimitWatts, sample.MinimumPowerLimitWatts,
                  sample.MaximumPowerLimitWatts);
}

/// No query may have filled anything.
void RequireDefaults(const Sample& sample) {
    Nvml().BeginOperation();
    RequireReadings(sample);
    Require(sample.TimestampSeconds == 0.0 && sample.FrameTimeMs == -1.0, "a record without a reading is not empty");
}

void RequirePlausible(const Sample& sample, double after, double before) {
    Require(sample.TimestampSeconds > after && sample.TimestampSeconds < before, "a sample is not from its time");
    const auto requireUnreadOrPositive = [&](double Sample::*field) {
        Require(sample.*field == -1.0 || sample.*field >= 0.0, "a sample has a negative reading");
    };
    for (const auto& reading : kRealReadings) requireUnreadOrPositive(reading.Field);
    for (double Sample::*limit : kLimits) requireUnreadOrPositive(limit);
    Require(!(sample.FrameTimeMs <= 0.0) || sample.FrameTimeMs == -1.0, "a sample has a negative frame time");
}

// ---- Histories ----

void RequireDevice(const GpuDeviceInfo& device) {
    RequireText(device.Name, 96);
    RequireText(device.Uuid, 128);
    RequireText(device.PciBusId, 32);
    RequireText(device.DriverVersion, 96);
    RequireText(device.VbiosVersion, 128);
    RequireArchitecture(device.Architecture);
}

void RequireProcesses(const std::vector<GpuProcessMemory>& processes) {
    Require(processes.size() <= 2 * size_t{4096}, "more processes than two lists hold");
    std::set<int> pids;
    for (const GpuProcessMemory& process : processes) {
        Require(process.Pid != 0 && process.VramUsedBytes != 0 && process.VramUsedBytes != UINT64_MAX,
                "a process without a number or memory is listed");
        Require(pids.insert(process.Pid).second, "a process is listed twice");
    }
}

void RequireHistory(const GpuTelemetryHistory& history) {
    RequireDevice(history.Device);
    RequireProcesses(history.ProcessMemory);
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
        Require(i == 0 || histories[i - 1].Device.Index < histories[i].Device.Index, "the GPUs are out of order");
        Require(histories[i].Device.DriverVersion == histories[0].Device.DriverVersion, "the GPUs' drivers differ");
    }
}

// ---- Changes ----

/// The sentences of an answer to a change.
bool IsAnswerTo(const std::string& change, Result result, const std::string& error) {
    switch (result) {
        case Result::NoPermission: return error == "NVML denied " + change + " for this user.";
        case Result::Unsupported: return error == "The NVIDIA driver does not support " + change + ".";
        case Result::Error: return error == "NVML " + change + " failed.";
        case Result::Success: break;
    }
    return false;
}

Result ResultOf(unsigned int code) {
    switch (code) {
        case 0: return Result::Success;
        case 3: return Result::Unsupported;
        case 4: return Result::NoPermission;
        default: return Result::Error;
    }
}

/// `error` is null where the host did not want the sentence.
void RequireAnswer(EntryPoint setter, const char* change, Result result, const std::string* error) {
    Require(result == ResultOf(Nvml().Last(setter).Code), "a result is not what the driver answered");
    if (error == nullptr || result == Result::Success) return;
    Require(IsAnswerTo(change, result, *error), "a sentence is not that of the answer");
}

bool Called(EntryPoint name) {
    return Nvml().Calls(name) != 0;
}

/// Nothing was asked of the driver, so the sentence must be one of those that go with `result`.
void RequireRefusal(Result result, const std::string* error, std::initializer_list<const char*> errors,
                    std::initializer_list<const char*> unsupported) {
    Require(result == Result::Error || result == Result::Unsupported, "a change succeeded that was not made");
    if (error == nullptr) return;
    const bool bStartFailed = result == Result::Error && IsOneOf(*error, kStartFailures);
    Require(bStartFailed || IsOneOf(*error, result == Result::Error ? errors : unsupported),
            "a sentence is not one of a refusal");
}

/// Only a pair that the driver lists may be locked, each clock of it by itself.
void RequireListedLock() {
    const LastCall& graphics = Nvml().Last(EntryPoint::nvmlDeviceSetGpuLockedClocks);
    const LastCall& memory = Nvml().Last(EntryPoint::nvmlDeviceSetMemoryLockedClocks);
    const auto& pairs = Nvml().ListedPairs();
    Require(graphics.First == graphics.Second && memory.First == memory.Second, "a range of clocks was locked");
    const auto isLocked = [&](const std::pair<int, int>& pair) {
        return pair.first == static_cast<int>(graphics.First) &&
               (memory.Outcome == Outcome::NotCalled || pair.second == static_cast<int>(memory.First));
    };
    Require(std::any_of(pairs.begin(), pairs.end(), isLocked), "a lock of clocks that are not listed together");
}

void RequireLock(Result result, const std::string* error) {
    if (!Called(EntryPoint::nvmlDeviceSetGpuLockedClocks)) {
        RequireRefusal(result, error, {kNoUsableDevice, kGpuUnavailable},
                       {"Requested clock pair is not supported by NVML.", "NVML locked-clock control is unavailable."});
        return;
    }
    RequireListedLock();
    if (!Called(EntryPoint::nvmlDeviceSetMemoryLockedClocks)) {
        RequireAnswer(EntryPoint::nvmlDeviceSetGpuLockedClocks, "GPU locked-clock control", result, error);
        Require(result != Result::Success, "a lock of one clock only succeeded");
        Require(!Called(EntryPoint::nvmlDeviceResetGpuLockedClocks), "an earlier lock was reset");
        return;
    }
    RequireAnswer(EntryPoint::nvmlDeviceSetMemoryLockedClocks, "memory locked-clock control", result, error);
    const unsigned int undone = result == Result::Success ? 0 : 1;
    Require(Nvml().Calls(EntryPoint::nvmlDeviceResetGpuLockedClocks) == undone &&
                Nvml().Calls(EntryPoint::nvmlDeviceResetMemoryLockedClocks) == undone,
            "half a lock was not undone, or a whole one was");
}

void RequireReset(Result result, const std::string* error) {
    const unsigned int resets = Nvml().Calls(EntryPoint::nvmlDeviceResetGpuLockedClocks);
    Require(resets == Nvml().Calls(EntryPoint::nvmlDeviceResetMemoryLockedClocks), "only one clock was reset");
    if (resets == 0) {
        RequireRefusal(result, error, {kNoUsableDevice}, {"NVML locked-clock reset is unavailable."});
    } else if (Nvml().Last(EntryPoint::nvmlDeviceResetMemoryLockedClocks).Code != 0) {
        RequireAnswer(EntryPoint::nvmlDeviceResetMemoryLockedClocks, "memory locked-clock reset", result, error);
    } else {
        RequireAnswer(EntryPoint::nvmlDeviceResetGpuLockedClocks, "GPU locked-clock reset", result, error);
    }
}

void RequireLimitChange(Result result, const std::string* error, bool bToDefault) {
    if (Called(EntryPoint::nvmlDeviceSetPowerManagementLimit)) {
        const uint64_t limit = Nvml().Last(EntryPoint::nvmlDeviceSetPowerManagementLimit).First;
        const LastCall& range = Nvml().Last(EntryPoint::nvmlDeviceGetPowerManagementLimitConstraints);
        Require(range.Outcome == Outcome::Answered && range.First <= limit && limit <= range.Second,
                "a limit was set out of the range");
        RequireAnswer(EntryPoint::nvmlDeviceSetPowerManagementLimit, "power-limit control", result, error);
        return;
    }
    const std::initializer_list<const char*> unsupported = {
        "Requested power limit is outside the driver-supported range.", "NVML power-limit control is unavailable.",
        kPowerSentences[1].Text, kPowerSentences[2].Text, kPowerSentences[3].Text};
    const bool bMayLackDefault = bToDefault && result == Result::Unsupported && error != nullptr;
    const bool bLacksDefault = bMayLackDefault && (*error == kPowerSentences[0].Text || *error == kGpuUnavailable ||
                                                   IsOneOf(*error, kStartFailures));
    if (!bLacksDefault) RequireRefusal(result, error, {kGpuUnavailable}, unsupported);
}

void RequireNoChange() {
    for (const EntryPoint change :
         {EntryPoint::nvmlDeviceSetGpuLockedClocks, EntryPoint::nvmlDeviceResetGpuLockedClocks,
          EntryPoint::nvmlDeviceSetMemoryLockedClocks, EntryPoint::nvmlDeviceResetMemoryLockedClocks,
          EntryPoint::nvmlDeviceSetPowerManagementLimit}) {
        Require(!Called(change), "a GPU was changed without a request");
    }
}

// ---- A host that does what the input says ----

class Host {
public:
    Host(const uint8_t* data, size_t size) : Bytes(data, size), bLong(size > kShortInput) {}

    void Run() {
        for (InstructionNumber = 0; InstructionNumber < kMostInstructions && !Bytes.AtEnd(); ++InstructionNumber) {
            Step();
        }
        Destroy();
    }

private:
    using Instruction = void (Host::*)();
    struct NamedInstruction {
        const char* Name;
        Instruction Do;
    };
    static const std::vector<NamedInstruction>& Instructions();

    void Step() {
        const std::vector<NamedInstruction>& all = Instructions();
        const NamedInstruction& chosen = all[Bytes.Byte() % all.size()];
        Operation = chosen.Name;
        Nvml().BeginOperation();
        OpeningsBefore = Sim().Use().Openings;
        (this->*chosen.Do)();
        RequireState();
        RequireNoMisuse();
    }

    // ---- Scripting the driver ----

    EntryPoint AnyEntryPoint() { return EntryPoint{Bytes.Byte() % simulated_nvml::kEntryPointCount}; }

    unsigned int AnyCode() {
        constexpr unsigned int kCodes[] = {0, 1, 2, 3, 4, 6, 7, 15, 999};
        const uint8_t choice = Bytes.Byte();
        return choice == 255 ? Bytes.Word() : kCodes[choice % std::size(kCodes)];
    }

    void ScriptAnswer() {
        const EntryPoint name = AnyEntryPoint();
        Answer answer;
        answer.Code = AnyCode();
        const uint8_t parts = Bytes.Byte();
        answer.bWrites = (parts & 1) == 0;
        answer.Form = static_cast<uint8_t>(parts >> 3);
        if ((parts & 2) != 0) answer.Value = Bytes.Number();
        if ((parts & 4) != 0) answer.Count = Bytes.Number();
        Nvml().Append(name, answer);
    }

    void ForgetAnswers() { Nvml().Forget(AnyEntryPoint()); }

    void HideName() {
        const EntryPoint name = AnyEntryPoint();
        Nvml().HideLookups(name, Bytes.Byte());
    }

    void HideLibrary() { Nvml().HideLibrary(Bytes.Byte()); }

    void Confuse() {
        const uint32_t seed = Bytes.Byte();
        Nvml().Confuse(seed, Bytes.Byte());
    }

    void SetFrameTime() {
        GPUProfiler::Get()->FrameTimeMs.reset();
        if (Bytes.Flag()) GPUProfiler::Get()->FrameTimeMs = Bytes.AnyDouble();
    }

    void RefuseThread() { sampler_clock::RefuseThreads(1); }

    // ---- Arguments ----

    unsigned int AnyIndex() {
        const uint8_t choice = Bytes.Byte();
        return choice < 240 ? choice % 4 : Bytes.Word();
    }

    std::chrono::milliseconds AnyDuration() {
        constexpr int64_t kDurations[] = {0,    1,     99,    100,
                                          1000, 10000, 10001, std::numeric_limits<int64_t>::max(),
                                          -1,   -1000, 5000,  std::numeric_limits<int64_t>::min()};
        const uint8_t choice = Bytes.Byte();
        return std::chrono::milliseconds(choice < 250 ? kDurations[choice % std::size(kDurations)]
                                                      : int64_t{Bytes.Word()});
    }

    double AnyWatts() {
        switch (Bytes.Byte() % 8) {
            case 0: return LatestPower.MinimumWatts;
            case 1: return LatestPower.MaximumWatts;
            case 2: return LatestPower.DefaultWatts;
            case 3: return std::numeric_limits<double>::quiet_NaN();
            case 4: return std::numeric_limits<double>::infinity();
            case 5: return LatestPower.MaximumWatts + 0.0004;
            case 6: return Bytes.Number() / 1000.0;
            default: return Bytes.AnyDouble();
        }
    }

    GpuClockPair AnyPair() {
        const std::vector<GpuClockPair>& listed = LatestClocks.SupportedPairs;
        const uint8_t choice = Bytes.Byte();
        if (choice < 200 && !listed.empty()) return listed[choice % listed.size()];
        const auto graphics = static_cast<int>(Bytes.Number());
        return {graphics, static_cast<int>(Bytes.Number())};
    }

    /// Where an operation writes its sentence; null in one of four cases.
    std::string* AnyError() {
        Error = kPoisonText;
        return Bytes.Byte() % 4 == 3 ? nullptr : &Error;
    }

    // ---- Lifecycle ----

    void Start() { StartBy(&NvmlGpuMonitor::Start); }
    void Resume() { StartBy(&NvmlGpuMonitor::ResumeSampling); }

    void StartBy(bool (NvmlGpuMonitor::*start)()) {
        const uint64_t waits = sampler_clock::WaitsBegun();
        const bool bRefused = sampler_clock::RefusalsLeft() > 0;
        bool bStarted = false;
        try {
            bStarted = (Monitor.get()->*start)();
        } catch (const std::system_error&) {
            Require(bRefused && sampler_clock::RefusalsLeft() == 0 && Monitor->IsAvailable(), "a start threw");
            return;
        }
        Require(bStarted == Monitor->IsAvailable(), "a start does not tell whether NVML is up");
        Require(bStarted || !bSamplerRuns, "a running sampler was not found");
        if (!bStarted || bSamplerRuns) return;
        bSamplerRuns = true;
        RunningDelay = Delay;
        AwaitWaits(waits + 1);
    }

    void Stop() {
        Monitor->Stop();
        bSamplerRuns = false;
        Require(!Monitor->IsAvailable(), "NVML is up after a stop");
        RequireUnstarted();
    }

    void Pause() {
        const uint64_t activity = Sim().Use().Activity;
        Monitor->PauseSampling();
        bSamplerRuns = false;
        Require(Sim().Use().Activity == activity, "a pause used the driver");
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
        Interval = std::chrono::milliseconds(1000);
        Delay = std::chrono::milliseconds(0);
        Require(Monitor->Status().empty() && Monitor->Snapshot().empty(), "a new monitor is not empty");
    }

    // ---- Settings and cycles ----

    void SetInterval() {
        const std::chrono::milliseconds interval = AnyDuration();
        const uint64_t waits = sampler_clock::WaitsBegun();
        Interval = std::clamp(interval, std::chrono::milliseconds(100), std::chrono::milliseconds(10000));
        RunningDelay = Delay;
        Monitor->SetSampleInterval(interval);
        if (bSamplerRuns) AwaitWaits(waits + 1);
        RequireUnstarted();
    }

    void SetDelay() {
        const std::chrono::milliseconds delay = AnyDuration();
        Delay = std::clamp(delay, std::chrono::milliseconds(0), std::chrono::milliseconds(10000));
        Monitor->SetInitialSampleDelay(delay);
        RequireUnstarted();
    }

    /// A few or, in a long input, enough to fill the histories.
    unsigned int AnyCycles() {
        const uint8_t choice = Bytes.Byte();
        return bLong && choice == 255 ? static_cast<unsigned int>(kMostSamples) + 1 : choice % 4 + 1;
    }

    void LetCyclesPass() {
        const unsigned int cycles = AnyCycles();
        if (!bSamplerRuns || cycles > CyclesLeft) return;
        CyclesLeft -= cycles;
        const uint64_t waits = sampler_clock::WaitsBegun();
        sampler_clock::PassWaits(cycles);
        AwaitWaits(waits + cycles);
    }

    void WakeSpuriously() {
        if (!bSamplerRuns) return;
        const uint64_t waits = sampler_clock::WaitsBegun();
        const uint64_t activity = Sim().Use().Activity;
        sampler_clock::WakeSpuriously();
        AwaitWaits(waits + 1);
        Require(Sim().Use().Activity == activity, "a spurious wake-up made a cycle");
    }

    void AwaitWaits(uint64_t count) {
        Require(sampler_clock::AwaitWaits(count), "the sampler did not come to its wait");
        Require(sampler_clock::WaitsBegun() == count, "the sampler waited more often than it had a reason to");
        WaitsSeen = count;
        const auto length = std::chrono::round<std::chrono::milliseconds>(sampler_clock::LatestWait().Duration);
        Require(length == Interval || length == RunningDelay, "the sampler waits for another time than was set");
        RequireNoChange();
    }

    // ---- Readings and queries ----

    void ReadFirst() {
        ReadBy([this](Sample* output) { return Monitor->ReadCurrentSample(output); });
    }

    void ReadAny() {
        const unsigned int index = AnyIndex();
        ReadBy([this, index](Sample* output) { return Monitor->ReadCurrentSample(index, output); });
    }

    template <typename Read>
    void ReadBy(Read read) {
        if (Bytes.Byte() == 255) return RequireNullIsRefused([&] { return read(nullptr); });
        Sample sample = PoisonedSample();
        const double before = NowSeconds();
        const bool bRead = read(&sample);
        RequireNoChange();
        if (!bRead && sample.TimestampSeconds == 0.0) return RequireDefaults(sample);
        RequireReadings(sample);
        RequireFrameTime(sample.FrameTimeMs);
        RequirePlausible(sample, before - 1e-6, NowSeconds());
        Require(bRead == (sample.PowerWatts >= 0.0 || sample.GraphicsClockMHz >= 0), "a reading tells another result");
    }

    template <typename Query>
    void RequireNullIsRefused(Query query) {
        const uint64_t activity = Sim().Use().Activity;
        Require(!query(), "a query without an output succeeded");
        Require(Sim().Use().Activity == activity, "a query without an output used the driver");
    }

    void QueryFirstClocks() {
        QueryClocksBy(0, [this](GpuClockCapabilities* output) { return Monitor->GetClockCapabilities(output); });
    }

    void QueryClocks() {
        const unsigned int index = AnyIndex();
        QueryClocksBy(index, [this, index](GpuClockCapabilities* output) {
            return Monitor->GetClockCapabilities(index, output);
        });
    }

    template <typename Query>
    void QueryClocksBy(unsigned int index, Query query) {
        if (Bytes.Byte() == 255) return RequireNullIsRefused([&] { return query(nullptr); });
        LatestClocks = {kPoison,        kPoisonText,    kPoisonText, {{kPoisoned<int>, kPoisoned<int>}},
                        kPoisoned<int>, kPoisoned<int>, true,        kPoisonText};
        const bool bFound = query(&LatestClocks);
        RequireNoChange();
        RequireClocks(index, bFound, LatestClocks);
    }

    void RequireClocks(unsigned int index, bool bFound, const GpuClockCapabilities& clocks) {
        const bool bUp = Monitor->IsAvailable();
        Require(bUp || !bFound, "a query succeeded without NVML");
        Require(clocks.DeviceIndex == (bUp ? index : 0), "a record is of another GPU");
        const GpuDeviceInfo device = bUp ? DeviceOf(index).value_or(GpuDeviceInfo{}) : GpuDeviceInfo{};
        Require(clocks.DeviceName == device.Name && clocks.DeviceUuid == device.Uuid, "a record has another identity");
        RequireFrom({EntryPoint::nvmlDeviceGetClockInfo, 0}, clocks.CurrentGraphicsClockMHz);
        RequireFrom({EntryPoint::nvmlDeviceGetClockInfo, 2}, clocks.CurrentMemoryClockMHz);
        RequirePairs(clocks);
        if (!bUp || clocks.CanControl) {
            Require(clocks.Status == Monitor->Status(), "a record's status is not the monitor's");
        } else if (bFound) {
            Require(IsOneOf(clocks.Status, kClockObstacles), "a record tells no obstacle");
        } else {
            Require(clocks.Status == kNoUsableDevice, "a record does not tell that there is no GPU");
        }
    }

    static void RequirePairs(const GpuClockCapabilities& clocks) {
        Require(clocks.CanControl == !clocks.SupportedPairs.empty(), "a record contradicts itself");
        const std::set<std::pair<int, int>>& listed = Nvml().ListedPairs();
        const bool bSame = std::equal(clocks.SupportedPairs.begin(), clocks.SupportedPairs.end(), listed.begin(),
                                      listed.end(), [](const GpuClockPair& pair, const std::pair<int, int>& other) {
                                          return pair == GpuClockPair{other.first, other.second};
                                      });
        Require(bSame, "the pairs are not those that the driver listed, sorted and each once");
    }

    void QueryPower() {
        const unsigned int index = AnyIndex();
        if (Bytes.Byte() == 255) {
            RequireNullIsRefused([&] { return Monitor->GetPowerCapabilities(index, nullptr); });
            return;
        }
        LatestPower = {kPoison,           kPoisonText,       static_cast<GpuCapabilityState>(77),
                       kPoisoned<double>, kPoisoned<double>, kPoisoned<double>,
                       kPoisoned<double>, kPoisonText};
        const bool bFound = Monitor->GetPowerCapabilities(index, &LatestPower);
        RequireNoChange();
        Require(LatestPower.DeviceIndex == index, "a record is of another GPU");
        RequireLimits(LatestPower.CurrentWatts, LatestPower.DefaultWatts, LatestPower.MinimumWatts,
                      LatestPower.MaximumWatts);
        RequirePowerStatus(bFound, LatestPower);
    }

    void RequirePowerStatus(bool bFound, const GpuPowerCapabilities& power) {
        const std::optional<GpuDeviceInfo> device = DeviceOf(power.DeviceIndex);
        if (bFound) {
            Require(Monitor->IsAvailable() && device.has_value(), "a GPU was found that is not there");
            Require(power.DeviceUuid == device->Uuid, "a record has another identity");
            const bool bFits =
                std::any_of(std::begin(kPowerSentences), std::end(kPowerSentences), [&](const PowerSentence& sentence) {
                    return power.State == sentence.State && power.Status == sentence.Text;
                });
            Require(bFits, "a state and its sentence do not fit");
        } else {
            Require(power.DeviceUuid.empty() && power.State == GpuCapabilityState::Unavailable,
                    "a record is not empty");
            const bool bUp = Monitor->IsAvailable();
            Require(power.Status == (bUp ? kGpuUnavailable : Monitor->Status()), "a record tells no obstacle");
        }
        RequireRange(power);
    }

    static void RequireRange(const GpuPowerCapabilities& power) {
        if (power.State != GpuCapabilityState::Supported) return;
        Require(power.MinimumWatts > 0.0 && power.MaximumWatts >= power.MinimumWatts && power.CurrentWatts >= 0.0,
                "a limit can be set in no range");
    }

    void Capture() {
        if (Bytes.Byte() == 255) return RequireNullIsRefused([&] { return Monitor->CaptureClockState(nullptr); });
        Captured = {true, kPoisoned<int>, kPoisoned<int>};
        const bool bCaptured = Monitor->CaptureClockState(&Captured);
        RequireNoChange();
        Require(Captured.Valid == bCaptured && bCaptured == !Nvml().ListedPairs().empty(), "a capture is not valid");
        if (bCaptured) {
            RequireFrom({EntryPoint::nvmlDeviceGetClockInfo, 0}, Captured.GraphicsClockMHz);
            RequireFrom({EntryPoint::nvmlDeviceGetClockInfo, 2}, Captured.MemoryClockMHz);
        } else {
            Require(Captured.GraphicsClockMHz == -1 && Captured.MemoryClockMHz == -1,
                    "an invalid capture is not empty");
        }
    }

    // ---- Changes ----

    void LockFirst() {
        const GpuClockPair pair = AnyPair();
        std::string* const error = AnyError();
        RequireLock(Checked(Monitor->SetLockedClock(pair, error), error), error);
    }

    void LockAny() {
        const unsigned int index = AnyIndex();
        const GpuClockPair pair = AnyPair();
        std::string* const error = AnyError();
        RequireLock(Checked(Monitor->SetLockedClock(index, pair, error), error), error);
    }

    void RestoreState() {
        std::string* const error = AnyError();
        RequireReset(Checked(Monitor->RestoreClockState(Captured, error), error), error);
    }

    void ResetFirst() {
        std::string* const error = AnyError();
        RequireReset(Checked(Monitor->RestoreDefaultClocks(error), error), error);
    }

    void ResetAny() {
        const unsigned int index = AnyIndex();
        std::string* const error = AnyError();
        RequireReset(Checked(Monitor->RestoreDefaultClocks(index, error), error), error);
    }

    void SetLimit() {
        const unsigned int index = AnyIndex();
        const double watts = AnyWatts();
        std::string* const error = AnyError();
        RequireLimitChange(Checked(Monitor->SetPowerLimit(index, watts, error), error), error, false);
    }

    void RestoreLimit() {
        const unsigned int index = AnyIndex();
        std::string* const error = AnyError();
        RequireLimitChange(Checked(Monitor->RestoreDefaultPowerLimit(index, error), error), error, true);
    }

    /// What holds for the sentence of every change.
    static Result Checked(Result result, const std::string* error) {
        if (error == nullptr) return result;
        Require((*error == kPoisonText) == (result == Result::Success),
                "a sentence without a failure, or none with one");
        return result;
    }

    // ---- What holds after every operation ----

    std::optional<GpuDeviceInfo> DeviceOf(unsigned int index) const {
        for (const GpuTelemetryHistory& history : Monitor->Snapshot()) {
            if (history.Device.Index == index) return history.Device;
        }
        return {};
    }

    void RequireUnstarted() const {
        Require(Sim().Use().Openings == OpeningsBefore, "an operation started NVML that never does");
    }

    void RequireState() {
        const uint64_t activity = Sim().Use().Activity;
        const bool bUp = Monitor->IsAvailable();
        const std::string status = Monitor->Status();
        const std::vector<GpuTelemetryHistory> histories = Monitor->Snapshot();
        Require(Sim().Use().Activity == activity, "an observer used the driver");
        const LibraryUse use = Sim().Use();
        Require(use.OpenLibraries == (bUp ? 1U : 0U) && use.Initializations == (bUp ? 1U : 0U),
                "the library is not open as it should be");
        Require(!bSamplerRuns || bUp, "a sampler runs without NVML");
        Require(sampler_clock::WaitsBegun() == WaitsSeen, "the sampler woke without a reason");
        RequireHistories(histories);
        RequireStatus(bUp, status, histories);
    }

    void RequireStatus(bool bUp, const std::string& status, const std::vector<GpuTelemetryHistory>& histories) const {
        const bool bActive = status == ActiveStatus(histories.size()) && !histories.empty();
        if (bUp) {
            Require(bActive, "the status is not that of an NVML that is up");
            Require(histories.back().Device.Index < Nvml().DeviceCount(), "a GPU is listed that was not told");
        } else if (Sim().Use().Openings == OpeningsAtBirth) {
            Require(status.empty() && histories.empty(), "something is known without an attempt");
        } else {
            Require(bActive || IsOneOf(status, kStartFailures), "the status is no known line");
        }
        // Of the failures, only this one comes after NVML told of GPUs.
        const bool bJustFailed = !bUp && Sim().Use().Openings != OpeningsBefore;
        if (bJustFailed && Nvml().DeviceCount() > 0) Require(histories.empty(), "a failed start left histories");
    }

    Input Bytes;
    bool bLong;
    std::unique_ptr<NvmlGpuMonitor> Monitor = std::make_unique<NvmlGpuMonitor>();
    bool bSamplerRuns = false;
    uint64_t WaitsSeen = 0;
    uint64_t OpeningsAtBirth = 0;
    uint64_t OpeningsBefore = 0;
    unsigned int CyclesLeft = kMostCycles;
    std::chrono::milliseconds Interval{1000};
    std::chrono::milliseconds Delay{0};
    std::chrono::milliseconds RunningDelay{0};
    GpuClockCapabilities LatestClocks;
    GpuPowerCapabilities LatestPower;
    GpuClockState Captured;
    std::string Error;
};

/// Inputs name an instruction by its position, so new ones go last.
const std::vector<Host::NamedInstruction>& Host::Instructions() {
    static const std::vector<NamedInstruction> kAll = {
        {"an answer", &Host::ScriptAnswer},
        {"the end of answers", &Host::ForgetAnswers},
        {"a hidden name", &Host::HideName},
        {"a hidden library", &Host::HideLibrary},
        {"confusion", &Host::Confuse},
        {"a frame time", &Host::SetFrameTime},
        {"a refused thread", &Host::RefuseThread},
        {"Start", &Host::Start},
        {"Stop", &Host::Stop},
        {"PauseSampling", &Host::Pause},
        {"ResumeSampling", &Host::Resume},
        {"another monitor", &Host::MakeAnother},
        {"SetSampleInterval", &Host::SetInterval},
        {"SetInitialSampleDelay", &Host::SetDelay},
        {"cycles", &Host::LetCyclesPass},
        {"a spurious wake-up", &Host::WakeSpuriously},
        {"ReadCurrentSample", &Host::ReadFirst},
        {"ReadCurrentSample by index", &Host::ReadAny},
        {"GetClockCapabilities", &Host::QueryFirstClocks},
        {"GetClockCapabilities by index", &Host::QueryClocks},
        {"GetPowerCapabilities", &Host::QueryPower},
        {"CaptureClockState", &Host::Capture},
        {"SetLockedClock", &Host::LockFirst},
        {"SetLockedClock by index", &Host::LockAny},
        {"RestoreClockState", &Host::RestoreState},
        {"RestoreDefaultClocks", &Host::ResetFirst},
        {"RestoreDefaultClocks by index", &Host::ResetAny},
        {"SetPowerLimit", &Host::SetLimit},
        {"RestoreDefaultPowerLimit", &Host::RestoreLimit},
    };
    return kAll;
}

}  // namespace

void Fail(const std::string& what) {
    std::fprintf(stderr, "monitor_fuzz: %s (instruction %zu, %s)\n", what.c_str(), InstructionNumber, Operation);
    std::abort();
}

}  // namespace monitor_fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    monitor_fuzz::ResetDriver();
    sampler_clock::Reset();
    sampler_clock::Hold();
    GPUProfiler::Get()->FrameTimeMs.reset();
    monitor_fuzz::Host(data, size).Run();
    return 0;
}
