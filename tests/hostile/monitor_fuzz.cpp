// Bytes choose what an NVML answers and what a host asks of the monitor, and after every operation the monitor must
// have kept its word. The bytes are a list of instructions: those that script the driver, and public operations.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <system_error>

#include "gpu_profiler.h"
#include "monitor_fuzz_input.h"
#include "monitor_fuzz_nvml.h"
#include "monitor_fuzz_sampler.h"
#include "nvml_gpu_monitor.h"

namespace monitor_fuzz {

namespace {

using Result = GpuClockOperationResult;
using Outcome = Told::Outcome;

constexpr size_t kMostInstructions = 200;
/// Filling histories takes a large part of a second. Fuzzing with `-max_len` of this size never does it, and is fast.
constexpr size_t kShortInput = 512;
constexpr size_t kMostSamples = 6000;
/// The cycles of one execution: a few more than fill a history.
constexpr unsigned int kMostCycles = 6100;

constexpr auto kPoisonInt = static_cast<int>(kPoison);
constexpr uint64_t kPoisonLong = uint64_t{kPoison} << 32 | kPoison;
constexpr double kPoisonDouble = -12345.5;
constexpr const char* kPoisonText = "?untouched?";

/// For the message of a failure.
const char* Operation = "nothing";
size_t InstructionNumber = 0;

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

// ---- Fields ----

/// What a field may hold after its query said `told`.
template <typename T>
void RequireField(const Told& told, const T& field, const T& unread, const T& read, const T& poison) {
    switch (told.Said) {
        case Outcome::NotAsked:
        case Outcome::Failed: Require(field == unread, "a field was filled without a successful query"); break;
        case Outcome::Spoke: Require(field == read, "a field is not what the query told"); break;
        // The query promised an answer and gave none, so anything that the monitor itself had will do.
        case Outcome::SaidNothing: Require(field != poison, "a field was left as it was"); break;
    }
}

void RequireInt(EntryPoint name, size_t selector, int field) {
    const Told& told = Nvml().Last(name, selector);
    RequireField(told, field, -1, static_cast<int>(told.First), kPoisonInt);
}

void RequireWatts(EntryPoint name, double field) {
    const Told& told = Nvml().Last(name);
    RequireField(told, field, -1.0, static_cast<double>(told.First) / 1000.0, kPoisonDouble);
}

void RequireThroughput(size_t selector, double field) {
    const Told& told = Nvml().Last(EntryPoint::nvmlDeviceGetPcieThroughput, selector);
    RequireField(told, field, -1.0, static_cast<double>(told.First) / 1024.0, kPoisonDouble);
}

void RequireMemory(EntryPoint name, uint64_t used, uint64_t total) {
    const Told& told = Nvml().Last(name);
    RequireField<uint64_t>(told, used, 0, told.First, kPoisonLong);
    RequireField<uint64_t>(told, total, 0, told.Second, kPoisonLong);
}

/// Of the limits in force, the one that is told first counts.
void RequireCurrentLimit(double field) {
    const bool bEnforced = Nvml().Last(EntryPoint::nvmlDeviceGetEnforcedPowerLimit).Said >= Outcome::SaidNothing;
    RequireWatts(
        bEnforced ? EntryPoint::nvmlDeviceGetEnforcedPowerLimit : EntryPoint::nvmlDeviceGetPowerManagementLimit, field);
}

void RequireLimits(double current, double standard, double minimum, double maximum) {
    RequireCurrentLimit(current);
    RequireWatts(EntryPoint::nvmlDeviceGetPowerManagementDefaultLimit, standard);
    RequireWatts(EntryPoint::nvmlDeviceGetPowerManagementLimitConstraints, minimum);
    const Told& range = Nvml().Last(EntryPoint::nvmlDeviceGetPowerManagementLimitConstraints);
    RequireField(range, maximum, -1.0, static_cast<double>(range.Second) / 1000.0, kPoisonDouble);
}

void RequireText(const std::string& text, size_t longest) {
    Require(text.size() <= longest, "a text is longer than its buffer");
    const bool bTold =
        std::all_of(text.begin(), text.end(), [](char c) { return kFirstCharacter <= c && c <= kLastCharacter; });
    Require(bTold, "a text has a character that was never told");
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

bool IsUnreadOrPositive(double field) {
    return field == -1.0 || field >= 0.0;
}

// ---- Samples ----

GpuTelemetrySample PoisonedSample() {
    GpuTelemetrySample sample;
    for (int* field : {&sample.TemperatureC, &sample.GpuUtilizationPercent, &sample.MemoryUtilizationPercent,
                       &sample.EncoderUtilizationPercent, &sample.DecoderUtilizationPercent, &sample.FanPercent,
                       &sample.GraphicsClockMHz, &sample.SmClockMHz, &sample.MemoryClockMHz, &sample.VideoClockMHz,
                       &sample.PerformanceState, &sample.PcieGeneration, &sample.PcieWidth}) {
        *field = kPoisonInt;
    }
    for (double* field :
         {&sample.TimestampSeconds, &sample.PowerWatts, &sample.PowerLimitWatts, &sample.DefaultPowerLimitWatts,
          &sample.MinimumPowerLimitWatts, &sample.MaximumPowerLimitWatts, &sample.PcieReceiveMiBPerSecond,
          &sample.PcieTransmitMiBPerSecond, &sample.FrameTimeMs}) {
        *field = kPoisonDouble;
    }
    for (uint64_t* field : {&sample.VramUsedBytes, &sample.VramTotalBytes, &sample.Bar1UsedBytes,
                            &sample.Bar1TotalBytes, &sample.PerformanceLimitReasons}) {
        *field = kPoisonLong;
    }
    return sample;
}

void RequireReadings(const GpuTelemetrySample& sample) {
    RequireInt(EntryPoint::nvmlDeviceGetTemperature, 0, sample.TemperatureC);
    RequireInt(EntryPoint::nvmlDeviceGetUtilizationRates, 0, sample.GpuUtilizationPercent);
    const Told& utilization = Nvml().Last(EntryPoint::nvmlDeviceGetUtilizationRates);
    RequireField(utilization, sample.MemoryUtilizationPercent, -1, static_cast<int>(utilization.Second), kPoisonInt);
    RequireInt(EntryPoint::nvmlDeviceGetEncoderUtilization, 0, sample.EncoderUtilizationPercent);
    RequireInt(EntryPoint::nvmlDeviceGetDecoderUtilization, 0, sample.DecoderUtilizationPercent);
    RequireMemory(EntryPoint::nvmlDeviceGetMemoryInfo, sample.VramUsedBytes, sample.VramTotalBytes);
    RequireMemory(EntryPoint::nvmlDeviceGetBAR1MemoryInfo, sample.Bar1UsedBytes, sample.Bar1TotalBytes);
    RequireWatts(EntryPoint::nvmlDeviceGetPowerUsage, sample.PowerWatts);
    RequireLimits(sample.PowerLimitWatts, sample.DefaultPowerLimitWatts, sample.MinimumPowerLimitWatts,
                  sample.MaximumPowerLimitWatts);
    RequireInt(EntryPoint::nvmlDeviceGetFanSpeed, 0, sample.FanPercent);
    RequireInt(EntryPoint::nvmlDeviceGetClockInfo, 0, sample.GraphicsClockMHz);
    RequireInt(EntryPoint::nvmlDeviceGetClockInfo, 1, sample.SmClockMHz);
    RequireInt(EntryPoint::nvmlDeviceGetClockInfo, 2, sample.MemoryClockMHz);
    RequireInt(EntryPoint::nvmlDeviceGetClockInfo, 3, sample.VideoClockMHz);
    RequireInt(EntryPoint::nvmlDeviceGetPerformanceState, 0, sample.PerformanceState);
    RequireInt(EntryPoint::nvmlDeviceGetCurrPcieLinkGeneration, 0, sample.PcieGeneration);
    RequireInt(EntryPoint::nvmlDeviceGetCurrPcieLinkWidth, 0, sample.PcieWidth);
    RequireThroughput(0, sample.PcieTransmitMiBPerSecond);
    RequireThroughput(1, sample.PcieReceiveMiBPerSecond);
    const Told& reasons = Nvml().Last(EntryPoint::nvmlDeviceGetCurrentClocksThrottleReasons);
    RequireField<uint64_t>(reasons, sample.PerformanceLimitReasons, 0, reasons.First, kPoisonLong);
}

/// No query may have filled anything.
void RequireDefaults(const GpuTelemetrySample& sample) {
    Nvml().BeginOperation();
    RequireReadings(sample);
    Require(sample.TimestampSeconds == 0.0 && sample.FrameTimeMs == -1.0, "a record without a reading is not empty");
}

void RequirePlausible(const GpuTelemetrySample& sample, double after, double before) {
    Require(sample.TimestampSeconds > after && sample.TimestampSeconds < before, "a sample is not from its time");
    for (const double field :
         {sample.PowerWatts, sample.PowerLimitWatts, sample.DefaultPowerLimitWatts, sample.MinimumPowerLimitWatts,
          sample.MaximumPowerLimitWatts, sample.PcieReceiveMiBPerSecond, sample.PcieTransmitMiBPerSecond}) {
        Require(IsUnreadOrPositive(field), "a sample has a negative reading");
    }
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
    const double now = sampler::NowSeconds();
    double latest = 0.0;
    for (const GpuTelemetrySample& sample : history.Samples) {
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
    Require(result == ResultOf(Nvml().LastCode(setter)), "a result is not what the driver answered");
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

void RequireLock(Result result, const std::string* error) {
    if (!Called(EntryPoint::nvmlDeviceSetGpuLockedClocks)) {
        RequireRefusal(result, error, {kNoUsableDevice, kGpuUnavailable},
                       {"Requested clock pair is not supported by NVML.", "NVML locked-clock control is unavailable."});
        return;
    }
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
    } else if (Nvml().LastCode(EntryPoint::nvmlDeviceResetMemoryLockedClocks) != 0) {
        RequireAnswer(EntryPoint::nvmlDeviceResetMemoryLockedClocks, "memory locked-clock reset", result, error);
    } else {
        RequireAnswer(EntryPoint::nvmlDeviceResetGpuLockedClocks, "GPU locked-clock reset", result, error);
    }
}

void RequireLimitChange(Result result, const std::string* error, bool bToDefault) {
    if (Called(EntryPoint::nvmlDeviceSetPowerManagementLimit)) {
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

bool AnythingChanged() {
    return Called(EntryPoint::nvmlDeviceSetGpuLockedClocks) || Called(EntryPoint::nvmlDeviceSetMemoryLockedClocks) ||
           Called(EntryPoint::nvmlDeviceResetGpuLockedClocks) ||
           Called(EntryPoint::nvmlDeviceResetMemoryLockedClocks) ||
           Called(EntryPoint::nvmlDeviceSetPowerManagementLimit);
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
        OpeningsBefore = Nvml().Openings();
        (this->*chosen.Do)();
        RequireState();
    }

    // ---- Scripting the driver ----

    EntryPoint AnyEntryPoint() { return static_cast<EntryPoint>(Bytes.Byte() % kEntryPointCount); }

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
        answer.bHasValue = (parts & 2) != 0;
        answer.bHasCount = (parts & 4) != 0;
        answer.Form = static_cast<uint8_t>(parts >> 3);
        if (answer.bHasValue) answer.Value = Bytes.Number();
        if (answer.bHasCount) answer.Count = Bytes.Number();
        Nvml().Append(name, answer);
    }

    void ForgetAnswers() { Nvml().Forget(AnyEntryPoint()); }

    void HideName() {
        const EntryPoint name = AnyEntryPoint();
        Nvml().Hide(name, Bytes.Byte());
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

    void RefuseThread() { sampler::RefuseNextThread(); }

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
        const uint64_t waits = sampler::Waits();
        const bool bRefused = sampler::ThreadRefusalPending();
        bool bStarted = false;
        try {
            bStarted = (Monitor.get()->*start)();
        } catch (const std::system_error&) {
            Require(bRefused && !sampler::ThreadRefusalPending() && Monitor->IsAvailable(), "a start threw");
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
        const uint64_t activity = Nvml().Activity();
        Monitor->PauseSampling();
        bSamplerRuns = false;
        Require(Nvml().Activity() == activity, "a pause used the driver");
    }

    void Destroy() {
        Operation = "the destructor";
        Monitor.reset();
        bSamplerRuns = false;
        Require(!Nvml().IsOpen(), "a library outlives its monitor");
        Require(sampler::Waits() == WaitsSeen, "a sampler outlives its monitor");
    }

    void MakeAnother() {
        Destroy();
        Monitor = std::make_unique<NvmlGpuMonitor>();
        OpeningsAtBirth = Nvml().Openings();
        Interval = std::chrono::milliseconds(1000);
        Delay = std::chrono::milliseconds(0);
        Require(Monitor->Status().empty() && Monitor->Snapshot().empty(), "a new monitor is not empty");
    }

    // ---- Settings and cycles ----

    void SetInterval() {
        const std::chrono::milliseconds interval = AnyDuration();
        const uint64_t waits = sampler::Waits();
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
        const uint64_t waits = sampler::Waits();
        sampler::LetWaitsPass(cycles);
        AwaitWaits(waits + 1);
    }

    void WakeSpuriously() {
        if (!bSamplerRuns) return;
        const uint64_t waits = sampler::Waits();
        const uint64_t activity = Nvml().Activity();
        sampler::WakeSpuriously();
        AwaitWaits(waits + 1);
        Require(Nvml().Activity() == activity, "a spurious wake-up made a cycle");
    }

    void AwaitWaits(uint64_t count) {
        sampler::AwaitWaits(count);
        WaitsSeen = count;
        const std::chrono::milliseconds length = sampler::LatestWait();
        Require(length == Interval || length == RunningDelay, "the sampler waits for another time than was set");
        Require(!AnythingChanged(), "the sampler changed a GPU");
    }

    // ---- Readings and queries ----

    void ReadFirst() {
        ReadBy([this](GpuTelemetrySample* output) { return Monitor->ReadCurrentSample(output); });
    }

    void ReadAny() {
        const unsigned int index = AnyIndex();
        ReadBy([this, index](GpuTelemetrySample* output) { return Monitor->ReadCurrentSample(index, output); });
    }

    template <typename Read>
    void ReadBy(Read read) {
        if (Bytes.Byte() == 255) return RequireNullIsRefused([&] { return read(nullptr); });
        GpuTelemetrySample sample = PoisonedSample();
        const double before = sampler::NowSeconds();
        const bool bRead = read(&sample);
        Require(!AnythingChanged(), "a reading changed a GPU");
        if (!bRead && sample.TimestampSeconds == 0.0) return RequireDefaults(sample);
        RequireReadings(sample);
        RequireFrameTime(sample.FrameTimeMs);
        RequirePlausible(sample, before - 1e-6, sampler::NowSeconds());
        Require(bRead == (sample.PowerWatts >= 0.0 || sample.GraphicsClockMHz >= 0), "a reading tells another result");
    }

    template <typename Query>
    void RequireNullIsRefused(Query query) {
        const uint64_t activity = Nvml().Activity();
        Require(!query(), "a query without an output succeeded");
        Require(Nvml().Activity() == activity, "a query without an output used the driver");
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
        LatestClocks = {kPoison,    kPoisonText, kPoisonText, {{kPoisonInt, kPoisonInt}},
                        kPoisonInt, kPoisonInt,  true,        kPoisonText};
        const bool bFound = query(&LatestClocks);
        Require(!AnythingChanged(), "a query changed a GPU");
        RequireClocks(index, bFound, LatestClocks);
    }

    void RequireClocks(unsigned int index, bool bFound, const GpuClockCapabilities& clocks) {
        const bool bUp = Monitor->IsAvailable();
        Require(bUp || !bFound, "a query succeeded without NVML");
        Require(clocks.DeviceIndex == (bUp ? index : 0), "a record is of another GPU");
        const GpuDeviceInfo device = bUp ? DeviceOf(index).value_or(GpuDeviceInfo{}) : GpuDeviceInfo{};
        Require(clocks.DeviceName == device.Name && clocks.DeviceUuid == device.Uuid, "a record has another identity");
        RequireInt(EntryPoint::nvmlDeviceGetClockInfo, 0, clocks.CurrentGraphicsClockMHz);
        RequireInt(EntryPoint::nvmlDeviceGetClockInfo, 2, clocks.CurrentMemoryClockMHz);
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
        const std::set<std::pair<int, int>>& told = Nvml().ListedPairs();
        const bool bSame = std::equal(clocks.SupportedPairs.begin(), clocks.SupportedPairs.end(), told.begin(),
                                      told.end(), [](const GpuClockPair& pair, const std::pair<int, int>& listed) {
                                          return pair == GpuClockPair{listed.first, listed.second};
                                      });
        Require(bSame, "the pairs are not those that the driver listed, sorted and each once");
    }

    void QueryPower() {
        const unsigned int index = AnyIndex();
        if (Bytes.Byte() == 255) {
            RequireNullIsRefused([&] { return Monitor->GetPowerCapabilities(index, nullptr); });
            return;
        }
        LatestPower = {kPoison,       kPoisonText,   static_cast<GpuCapabilityState>(77),
                       kPoisonDouble, kPoisonDouble, kPoisonDouble,
                       kPoisonDouble, kPoisonText};
        const bool bFound = Monitor->GetPowerCapabilities(index, &LatestPower);
        Require(!AnythingChanged(), "a query changed a GPU");
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
        Captured = {true, kPoisonInt, kPoisonInt};
        const bool bCaptured = Monitor->CaptureClockState(&Captured);
        Require(!AnythingChanged(), "a query changed a GPU");
        Require(Captured.Valid == bCaptured && bCaptured == !Nvml().ListedPairs().empty(), "a capture is not valid");
        if (bCaptured) {
            RequireInt(EntryPoint::nvmlDeviceGetClockInfo, 0, Captured.GraphicsClockMHz);
            RequireInt(EntryPoint::nvmlDeviceGetClockInfo, 2, Captured.MemoryClockMHz);
        } else {
            Require(Captured.GraphicsClockMHz == -1 && Captured.MemoryClockMHz == -1,
                    "an invalid capture is not empty");
        }
    }

    // ---- Changes ----

    void LockFirst() {
        const GpuClockPair pair = AnyPair();
        std::string* const error = AnyError();
        RequireLock(Tell(Monitor->SetLockedClock(pair, error), error), error);
    }

    void LockAny() {
        const unsigned int index = AnyIndex();
        const GpuClockPair pair = AnyPair();
        std::string* const error = AnyError();
        RequireLock(Tell(Monitor->SetLockedClock(index, pair, error), error), error);
    }

    void RestoreState() {
        std::string* const error = AnyError();
        RequireReset(Tell(Monitor->RestoreClockState(Captured, error), error), error);
    }

    void ResetFirst() {
        std::string* const error = AnyError();
        RequireReset(Tell(Monitor->RestoreDefaultClocks(error), error), error);
    }

    void ResetAny() {
        const unsigned int index = AnyIndex();
        std::string* const error = AnyError();
        RequireReset(Tell(Monitor->RestoreDefaultClocks(index, error), error), error);
    }

    void SetLimit() {
        const unsigned int index = AnyIndex();
        const double watts = AnyWatts();
        std::string* const error = AnyError();
        RequireLimitChange(Tell(Monitor->SetPowerLimit(index, watts, error), error), error, false);
    }

    void RestoreLimit() {
        const unsigned int index = AnyIndex();
        std::string* const error = AnyError();
        RequireLimitChange(Tell(Monitor->RestoreDefaultPowerLimit(index, error), error), error, true);
    }

    /// What holds for the sentence of every change.
    static Result Tell(Result result, const std::string* error) {
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
        Require(Nvml().Openings() == OpeningsBefore, "an operation started NVML that never does");
    }

    void RequireState() {
        const uint64_t activity = Nvml().Activity();
        const bool bUp = Monitor->IsAvailable();
        const std::string status = Monitor->Status();
        const std::vector<GpuTelemetryHistory> histories = Monitor->Snapshot();
        Require(Nvml().Activity() == activity, "an observer used the driver");
        Require(bUp == Nvml().IsOpen() && bUp == Nvml().Initialized(), "the library is not open as it should be");
        Require(!bSamplerRuns || bUp, "a sampler runs without NVML");
        Require(sampler::Waits() == WaitsSeen, "the sampler woke without a reason");
        RequireHistories(histories);
        RequireStatus(bUp, status, histories);
    }

    void RequireStatus(bool bUp, const std::string& status, const std::vector<GpuTelemetryHistory>& histories) const {
        const bool bActive = status == ActiveStatus(histories.size()) && !histories.empty();
        if (bUp) {
            Require(bActive, "the status is not that of an NVML that is up");
            Require(histories.back().Device.Index < Nvml().ToldDevices(), "a GPU is listed that was not told");
        } else if (Nvml().Openings() == OpeningsAtBirth) {
            Require(status.empty() && histories.empty(), "something is known without an attempt");
        } else {
            Require(bActive || IsOneOf(status, kStartFailures), "the status is no known line");
        }
        // Of the failures, only this one comes after NVML told of GPUs.
        const bool bJustFailed = !bUp && Nvml().Openings() != OpeningsBefore;
        if (bJustFailed && Nvml().ToldDevices() > 0) Require(histories.empty(), "a failed start left histories");
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
    monitor_fuzz::Nvml().Reset();
    monitor_fuzz::sampler::Reset();
    GPUProfiler::Get()->FrameTimeMs.reset();
    monitor_fuzz::Host(data, size).Run();
    return 0;
}
