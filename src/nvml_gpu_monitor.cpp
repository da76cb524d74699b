#include "nvml_gpu_monitor.h"

#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <new>
#include <set>
#include <unordered_map>
#include <utility>

#include "gpu_profiler.h"

namespace {

// ---- NVML as this module sees it: types, codes, records. NVML's own header is not used. ----

using NvmlReturn = unsigned int;
using NvmlDevice = void*;

constexpr NvmlReturn kNvmlSuccess = 0;
constexpr NvmlReturn kNvmlErrorNotSupported = 3;
constexpr NvmlReturn kNvmlErrorNoPermission = 4;
constexpr NvmlReturn kNvmlErrorInsufficientSize = 7;

constexpr unsigned int kNvmlTemperatureGpu = 0;
constexpr unsigned int kNvmlClockGraphics = 0;
constexpr unsigned int kNvmlClockSm = 1;
constexpr unsigned int kNvmlClockMemory = 2;
constexpr unsigned int kNvmlClockVideo = 3;
constexpr unsigned int kNvmlPcieUtilTxBytes = 0;
constexpr unsigned int kNvmlPcieUtilRxBytes = 1;

// NVML writes these records, so their layout is its binary interface.

struct NvmlUtilization {
    unsigned int Gpu;
    unsigned int Memory;
};
static_assert(sizeof(NvmlUtilization) == 8);
static_assert(offsetof(NvmlUtilization, Gpu) == 0);
static_assert(offsetof(NvmlUtilization, Memory) == 4);

/// Serves frame-buffer memory and the BAR1 aperture alike.
struct NvmlMemory {
    uint64_t Total;
    uint64_t Free;
    uint64_t Used;
};
static_assert(sizeof(NvmlMemory) == 24);
static_assert(offsetof(NvmlMemory, Total) == 0);
static_assert(offsetof(NvmlMemory, Free) == 8);
static_assert(offsetof(NvmlMemory, Used) == 16);

struct NvmlPciInfo {
    char BusIdLegacy[16];
    unsigned int Domain;
    unsigned int Bus;
    unsigned int Device;
    unsigned int PciDeviceId;
    unsigned int PciSubSystemId;
    char BusId[32];
};
static_assert(sizeof(NvmlPciInfo) == 68);
static_assert(offsetof(NvmlPciInfo, BusIdLegacy) == 0);
static_assert(offsetof(NvmlPciInfo, Domain) == 16);
static_assert(offsetof(NvmlPciInfo, Bus) == 20);
static_assert(offsetof(NvmlPciInfo, Device) == 24);
static_assert(offsetof(NvmlPciInfo, PciDeviceId) == 28);
static_assert(offsetof(NvmlPciInfo, PciSubSystemId) == 32);
static_assert(offsetof(NvmlPciInfo, BusId) == 36);

struct NvmlProcessInfo {
    unsigned int Pid;
    uint64_t UsedGpuMemory;
    unsigned int GpuInstanceId;
    unsigned int ComputeInstanceId;
};
static_assert(sizeof(NvmlProcessInfo) == 24);
static_assert(offsetof(NvmlProcessInfo, Pid) == 0);
static_assert(offsetof(NvmlProcessInfo, UsedGpuMemory) == 8);
static_assert(offsetof(NvmlProcessInfo, GpuInstanceId) == 16);
static_assert(offsetof(NvmlProcessInfo, ComputeInstanceId) == 20);

using InitFn = NvmlReturn (*)();
using ShutdownFn = NvmlReturn (*)();
using DeviceCountFn = NvmlReturn (*)(unsigned int* count);
using HandleByIndexFn = NvmlReturn (*)(unsigned int index, NvmlDevice* device);
using SystemTextFn = NvmlReturn (*)(char* text, unsigned int size);
using DeviceTextFn = NvmlReturn (*)(NvmlDevice device, char* text, unsigned int size);
using PciInfoFn = NvmlReturn (*)(NvmlDevice device, NvmlPciInfo* pci);
using ValueFn = NvmlReturn (*)(NvmlDevice device, unsigned int* value);
using SelectedValueFn = NvmlReturn (*)(NvmlDevice device, unsigned int selector, unsigned int* value);
using ValuePairFn = NvmlReturn (*)(NvmlDevice device, unsigned int* first, unsigned int* second);
using BitMaskFn = NvmlReturn (*)(NvmlDevice device, unsigned long long* mask);
using UtilizationFn = NvmlReturn (*)(NvmlDevice device, NvmlUtilization* utilization);
using MemoryFn = NvmlReturn (*)(NvmlDevice device, NvmlMemory* memory);
using ProcessFn = NvmlReturn (*)(NvmlDevice device, unsigned int* count, NvmlProcessInfo* processes);
using MemoryClocksFn = NvmlReturn (*)(NvmlDevice device, unsigned int* count, unsigned int* clocks);
using GraphicsClocksFn = NvmlReturn (*)(NvmlDevice device, unsigned int memoryClock, unsigned int* count,
                                        unsigned int* clocks);
using LockClocksFn = NvmlReturn (*)(NvmlDevice device, unsigned int lowest, unsigned int highest);
using ResetClocksFn = NvmlReturn (*)(NvmlDevice device);
using SetLimitFn = NvmlReturn (*)(NvmlDevice device, unsigned int milliwatts);

// ---- Lookup by name. Only the library handle is kept, so a missing name affects only what it would fill. ----

/// The entry point `name`; null when the open `library` does not export it.
template <typename T>
T Symbol(void* library, const char* name) {
    return reinterpret_cast<T>(dlsym(library, name));
}

/// The first of `names`, newest version first, that `library` exports; null when it exports none.
template <typename T>
T NewestSymbol(void* library, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (const T entryPoint = Symbol<T>(library, name)) return entryPoint;
    }
    return nullptr;
}

/// The query behind every device handle.
HandleByIndexFn HandleByIndexSymbol(void* library) {
    return NewestSymbol<HandleByIndexFn>(library, {"nvmlDeviceGetHandleByIndex_v2", "nvmlDeviceGetHandleByIndex"});
}

/// True when `query` is exported and its call succeeds. Only then may its outputs be used.
template <typename Fn, typename... Arguments>
bool Succeeds(Fn query, Arguments... arguments) {
    return query != nullptr && query(arguments...) == kNvmlSuccess;
}

/// Gets the handle of the GPU with NVML index `index`; NVML decides whether there is such a GPU. Only after true may
/// `*device` be used.
bool GetDevice(void* library, unsigned int index, NvmlDevice* device) {
    if (device == nullptr) return false;
    *device = nullptr;
    if (library == nullptr) return false;
    return Succeeds(HandleByIndexSymbol(library), index, device) && *device != nullptr;
}

/// The text in a buffer that NVML filled, with or without a terminator.
template <size_t Size>
std::string BufferText(const char (&buffer)[Size]) {
    return std::string(buffer, std::find(buffer, buffer + Size, '\0'));
}

// ---- Startup and discovery ----

/// The entry points without which NVML cannot be started.
struct StartupEntryPoints {
    explicit StartupEntryPoints(void* library)
        : Init(NewestSymbol<InitFn>(library, {"nvmlInit_v2", "nvmlInit"})),
          GetCount(NewestSymbol<DeviceCountFn>(library, {"nvmlDeviceGetCount_v2", "nvmlDeviceGetCount"})),
          GetHandle(HandleByIndexSymbol(library)),
          GetName(Symbol<DeviceTextFn>(library, "nvmlDeviceGetName")) {}

    bool Complete() const {
        return Init != nullptr && GetCount != nullptr && GetHandle != nullptr && GetName != nullptr;
    }

    InitFn Init;
    DeviceCountFn GetCount;
    HandleByIndexFn GetHandle;
    DeviceTextFn GetName;
};

/// Shuts NVML down if it was initialized, closes the library if it is open, and clears the handle.
void CloseNvml(void** library, bool bNvmlInitialized) {
    if (*library == nullptr) return;
    if (bNvmlInitialized) Succeeds(Symbol<ShutdownFn>(*library, "nvmlShutdown"));
    dlclose(*library);
    *library = nullptr;
}

/// Closes NVML again when startup ends early, by a failure or by an exception.
class StartupGuard {
public:
    explicit StartupGuard(void** library) : Library(library) {}
    ~StartupGuard() {
        if (!bStarted) CloseNvml(Library, bNvmlInitialized);
    }
    StartupGuard(const StartupGuard&) = delete;
    StartupGuard& operator=(const StartupGuard&) = delete;

    /// From here on NVML's driver callbacks may exist: closing without a shutdown would unmap their code.
    void NvmlInitialized() { bNvmlInitialized = true; }
    void Started() { bStarted = true; }

private:
    void** Library;
    bool bNvmlInitialized = false;
    bool bStarted = false;
};

/// The codes are NVML's. Kepler has the lowest.
const char* ArchitectureName(unsigned int architecture) {
    switch (architecture) {
        case 2: return "Kepler";
        case 3: return "Maxwell";
        case 4: return "Pascal";
        case 5: return "Volta";
        case 6: return "Turing";
        case 7: return "Ampere";
        case 8: return "Ada";
        case 9: return "Hopper";
        case 10: return "Blackwell";
        default: return "Unknown";
    }
}

std::string ReadDriverVersion(void* library) {
    char driverVersion[96] = {};
    // The result is not examined: a failing query leaves the buffer empty or with the best text it has.
    Succeeds(Symbol<SystemTextFn>(library, "nvmlSystemGetDriverVersion"), driverVersion,
             static_cast<unsigned int>(sizeof driverVersion));
    return BufferText(driverVersion);
}

std::string ReadDeviceText(void* library, NvmlDevice device, const char* name) {
    char value[128] = {};
    const bool bRead =
        Succeeds(Symbol<DeviceTextFn>(library, name), device, value, static_cast<unsigned int>(sizeof value));
    return bRead ? BufferText(value) : std::string();
}

std::string ReadPciBusId(void* library, NvmlDevice device) {
    NvmlPciInfo pci{};
    if (!Succeeds(Symbol<PciInfoFn>(library, "nvmlDeviceGetPciInfo_v3"), device, &pci)) return {};
    return pci.BusId[0] != '\0' ? BufferText(pci.BusId) : BufferText(pci.BusIdLegacy);
}

std::string ReadArchitecture(void* library, NvmlDevice device) {
    unsigned int architecture = 0;
    if (!Succeeds(Symbol<ValueFn>(library, "nvmlDeviceGetArchitecture"), device, &architecture)) return {};
    return ArchitectureName(architecture);
}

uint64_t ReadBar1TotalBytes(void* library, NvmlDevice device) {
    NvmlMemory bar1{};
    return Succeeds(Symbol<MemoryFn>(library, "nvmlDeviceGetBAR1MemoryInfo"), device, &bar1) ? bar1.Total : 0;
}

/// Fills the fields that a GPU can be without; a query that is missing or fails leaves only its own field empty.
void ReadOptionalIdentity(void* library, NvmlDevice device, GpuDeviceInfo* info) {
    info->Uuid = ReadDeviceText(library, device, "nvmlDeviceGetUUID");
    info->VbiosVersion = ReadDeviceText(library, device, "nvmlDeviceGetVbiosVersion");
    info->PciBusId = ReadPciBusId(library, device);
    info->Architecture = ReadArchitecture(library, device);
    info->Bar1TotalBytes = ReadBar1TotalBytes(library, device);
}

/// One empty history for every GPU with a handle and a name; `primaryDevice` receives the handle of the first.
std::vector<GpuTelemetryHistory> DiscoverDevices(void* library, const StartupEntryPoints& nvml, unsigned int devices,
                                                 NvmlDevice* primaryDevice) {
    const std::string driverVersion = ReadDriverVersion(library);
    std::vector<GpuTelemetryHistory> histories;
    for (unsigned int i = 0; i < devices; ++i) {
        NvmlDevice device = nullptr;
        char text[96] = {};
        if (nvml.GetHandle(i, &device) != kNvmlSuccess) continue;
        if (nvml.GetName(device, text, static_cast<unsigned int>(sizeof text)) != kNvmlSuccess) continue;
        if (*primaryDevice == nullptr) *primaryDevice = device;

        GpuTelemetryHistory history;
        history.Device.Name = BufferText(text);
        history.Device.Index = i;
        history.Device.DriverVersion = driverVersion;
        ReadOptionalIdentity(library, device, &history.Device);
        histories.push_back(std::move(history));
    }
    return histories;
}

// ---- Reading one sample ----

/// The steady clock, so that a history does not show when somebody sets the machine's time.
double NowSeconds() {
    const std::chrono::nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<double>(now.count()) / 1e9;
}

/// -1.0 when the host's profiler has no frame or did not measure it; any other value is passed on, NaN included.
double LatestGpuFrameTimeMs() {
    // The host's record may own memory, so it is made and destroyed for each reading.
    GPUProfiler::FrameSnapshot frame{};
    if (!GPUProfiler::Get()->GetLatestSnapshot(&frame)) return -1.0;
    return frame.GpuFrameTimeMs <= 0.0 ? -1.0 : frame.GpuFrameTimeMs;
}

// Both take NVML's whole unsigned range: an int would hold only half of it.

double WattsFromMilliwatts(unsigned int milliwatts) {
    return milliwatts / 1000.0;
}

double MiBPerSecondFromKiB(unsigned int kibPerSecond) {
    return kibPerSecond * 0.0009765625;
}

/// Fills the power-limit fields. Limits are taken as reported, also a range that makes no sense.
void ReadPowerLimits(void* library, NvmlDevice device, GpuTelemetrySample* sample) {
    unsigned int milliwatts = 0;
    const auto enforced = Symbol<ValueFn>(library, "nvmlDeviceGetEnforcedPowerLimit");
    const auto configured = Symbol<ValueFn>(library, "nvmlDeviceGetPowerManagementLimit");
    // The enforced limit is the one in force. Where it cannot be read, the configured one is taken.
    if (Succeeds(enforced, device, &milliwatts) || Succeeds(configured, device, &milliwatts)) {
        sample->PowerLimitWatts = WattsFromMilliwatts(milliwatts);
    }

    const auto defaults = Symbol<ValueFn>(library, "nvmlDeviceGetPowerManagementDefaultLimit");
    if (Succeeds(defaults, device, &milliwatts)) sample->DefaultPowerLimitWatts = WattsFromMilliwatts(milliwatts);

    unsigned int minimum = 0;
    unsigned int maximum = 0;
    const auto constraints = Symbol<ValuePairFn>(library, "nvmlDeviceGetPowerManagementLimitConstraints");
    if (Succeeds(constraints, device, &minimum, &maximum)) {
        sample->MinimumPowerLimitWatts = WattsFromMilliwatts(minimum);
        sample->MaximumPowerLimitWatts = WattsFromMilliwatts(maximum);
    }
}

/// The queries of one sample, looked up in the order of the members.
struct SampleEntryPoints {
    explicit SampleEntryPoints(void* library)
        : Temperature(Symbol<SelectedValueFn>(library, "nvmlDeviceGetTemperature")),
          Utilization(Symbol<UtilizationFn>(library, "nvmlDeviceGetUtilizationRates")),
          Memory(Symbol<MemoryFn>(library, "nvmlDeviceGetMemoryInfo")),
          Power(Symbol<ValueFn>(library, "nvmlDeviceGetPowerUsage")),
          Fan(Symbol<ValueFn>(library, "nvmlDeviceGetFanSpeed")),
          Clock(Symbol<SelectedValueFn>(library, "nvmlDeviceGetClockInfo")),
          PerformanceState(Symbol<ValueFn>(library, "nvmlDeviceGetPerformanceState")),
          Encoder(Symbol<ValuePairFn>(library, "nvmlDeviceGetEncoderUtilization")),
          Decoder(Symbol<ValuePairFn>(library, "nvmlDeviceGetDecoderUtilization")),
          Bar1Memory(Symbol<MemoryFn>(library, "nvmlDeviceGetBAR1MemoryInfo")),
          PcieGeneration(Symbol<ValueFn>(library, "nvmlDeviceGetCurrPcieLinkGeneration")),
          PcieWidth(Symbol<ValueFn>(library, "nvmlDeviceGetCurrPcieLinkWidth")),
          PcieThroughput(Symbol<SelectedValueFn>(library, "nvmlDeviceGetPcieThroughput")),
          LimitReasons(Symbol<BitMaskFn>(library, "nvmlDeviceGetCurrentClocksThrottleReasons")) {}

    SelectedValueFn Temperature;
    UtilizationFn Utilization;
    MemoryFn Memory;
    ValueFn Power;
    ValueFn Fan;
    SelectedValueFn Clock;
    ValueFn PerformanceState;
    ValuePairFn Encoder;
    ValuePairFn Decoder;
    MemoryFn Bar1Memory;
    ValueFn PcieGeneration;
    ValueFn PcieWidth;
    SelectedValueFn PcieThroughput;
    BitMaskFn LimitReasons;
};

/// Reads one GPU into one sample; every query fills its own fields or leaves them as they are.
class SampleReader {
public:
    SampleReader(void* library, NvmlDevice device, GpuTelemetrySample* sample)
        : Library(library), Device(device), Sample(sample), Nvml(library) {}

    /// Makes all queries in their fixed order.
    void Read() {
        ReadInt(Nvml.Temperature, &Sample->TemperatureC, kNvmlTemperatureGpu);
        ReadUtilization();
        ReadMemory(Nvml.Memory, &Sample->VramUsedBytes, &Sample->VramTotalBytes);
        if (Succeeds(Nvml.Power, Device, &Value)) Sample->PowerWatts = WattsFromMilliwatts(Value);
        ReadPowerLimits(Library, Device, Sample);
        ReadInt(Nvml.Fan, &Sample->FanPercent);
        ReadInt(Nvml.Clock, &Sample->GraphicsClockMHz, kNvmlClockGraphics);
        ReadInt(Nvml.Clock, &Sample->SmClockMHz, kNvmlClockSm);
        ReadInt(Nvml.Clock, &Sample->MemoryClockMHz, kNvmlClockMemory);
        ReadInt(Nvml.Clock, &Sample->VideoClockMHz, kNvmlClockVideo);
        ReadInt(Nvml.PerformanceState, &Sample->PerformanceState);
        ReadCoder(Nvml.Encoder, &Sample->EncoderUtilizationPercent);
        ReadCoder(Nvml.Decoder, &Sample->DecoderUtilizationPercent);
        ReadMemory(Nvml.Bar1Memory, &Sample->Bar1UsedBytes, &Sample->Bar1TotalBytes);
        ReadInt(Nvml.PcieGeneration, &Sample->PcieGeneration);
        ReadInt(Nvml.PcieWidth, &Sample->PcieWidth);
        ReadPcieThroughput(kNvmlPcieUtilRxBytes, &Sample->PcieReceiveMiBPerSecond);
        ReadPcieThroughput(kNvmlPcieUtilTxBytes, &Sample->PcieTransmitMiBPerSecond);
        ReadLimitReasons();
    }

private:
    template <typename Fn, typename... Selector>
    void ReadInt(Fn query, int* field, Selector... selector) {
        if (Succeeds(query, Device, selector..., &Value)) *field = static_cast<int>(Value);
    }

    void ReadUtilization() {
        NvmlUtilization utilization{};
        if (!Succeeds(Nvml.Utilization, Device, &utilization)) return;
        Sample->GpuUtilizationPercent = static_cast<int>(utilization.Gpu);
        Sample->MemoryUtilizationPercent = static_cast<int>(utilization.Memory);
    }

    void ReadMemory(MemoryFn query, uint64_t* usedBytes, uint64_t* totalBytes) {
        if (!Succeeds(query, Device, &MemoryInfo)) return;
        *usedBytes = MemoryInfo.Used;
        *totalBytes = MemoryInfo.Total;
    }

    void ReadCoder(ValuePairFn query, int* percent) {
        if (Succeeds(query, Device, &Value, &SamplingPeriod)) *percent = static_cast<int>(Value);
    }

    void ReadPcieThroughput(unsigned int counter, double* mibPerSecond) {
        if (Succeeds(Nvml.PcieThroughput, Device, counter, &Value)) *mibPerSecond = MiBPerSecondFromKiB(Value);
    }

    void ReadLimitReasons() {
        unsigned long long reasons = 0;
        if (Succeeds(Nvml.LimitReasons, Device, &reasons)) Sample->PerformanceLimitReasons = reasons;
    }

    void* Library;
    NvmlDevice Device;
    GpuTelemetrySample* Sample;
    SampleEntryPoints Nvml;
    // The queries share these. What an earlier query left is never used: only after a success are they read.
    unsigned int Value = 0;
    unsigned int SamplingPeriod = 0;
    NvmlMemory MemoryInfo{};
};

// ---- The sampler's cycle ----

constexpr size_t kMaxHistorySamples = 6000;

/// Room for processes that start between the count query and the list query of an idle GPU.
constexpr unsigned int kDefaultProcessRecords = 128;
/// So that a nonsensical count from the driver does not use up all memory.
constexpr unsigned int kMaxProcessRecords = 4096;

/// Room for `count` process records, every byte of it zero. Some drivers write 32 bytes per record through this
/// interface, so that much is owned for each record offered.
std::vector<NvmlProcessInfo> ProcessBuffer(unsigned int count) {
    constexpr size_t kLargestRecordBytes = 32;
    std::vector<NvmlProcessInfo> buffer((count * kLargestRecordBytes + sizeof(NvmlProcessInfo) - 1) /
                                        sizeof(NvmlProcessInfo));
    // The constructor need not write the gap between `Pid` and `UsedGpuMemory`.
    std::memset(buffer.data(), 0, buffer.size() * sizeof(NvmlProcessInfo));
    return buffer;
}

/// Adds what one process query reports for one GPU to `out`; a process that is there already keeps its larger value.
void MergeProcessMemory(ProcessFn fn, NvmlDevice device, std::unordered_map<int, uint64_t>& out) {
    if (fn == nullptr) return;
    unsigned int count = 0;
    // While processes run, NVML answers the count query with a failure code and the count.
    fn(device, &count, nullptr);
    if (count == 0) count = kDefaultProcessRecords;
    count = std::min(count, kMaxProcessRecords);

    // NVML overwrites the count, and what it writes cannot be trusted to stay within what was offered.
    const unsigned int offered = count;
    std::vector<NvmlProcessInfo> processes = ProcessBuffer(offered);
    if (fn(device, &count, processes.data()) != kNvmlSuccess) return;
    for (unsigned int i = 0; i < std::min(count, offered); ++i) {
        const uint64_t used = processes[i].UsedGpuMemory;
        // All ones is how NVML says that it does not know.
        if (processes[i].Pid == 0 || used == 0 || used == UINT64_MAX) continue;
        uint64_t& bytes = out[static_cast<int>(processes[i].Pid)];
        bytes = std::max(bytes, used);
    }
}

/// The entry points that a cycle itself uses, looked up in the order of the members.
struct CycleEntryPoints {
    explicit CycleEntryPoints(void* library)
        : GetHandle(HandleByIndexSymbol(library)),
          ComputeProcesses(NewestSymbol<ProcessFn>(
              library, {"nvmlDeviceGetComputeRunningProcesses_v3", "nvmlDeviceGetComputeRunningProcesses_v2",
                        "nvmlDeviceGetComputeRunningProcesses"})),
          GraphicsProcesses(NewestSymbol<ProcessFn>(
              library, {"nvmlDeviceGetGraphicsRunningProcesses_v3", "nvmlDeviceGetGraphicsRunningProcesses_v2",
                        "nvmlDeviceGetGraphicsRunningProcesses"})) {}

    HandleByIndexFn GetHandle;
    ProcessFn ComputeProcesses;
    ProcessFn GraphicsProcesses;
};

/// What runs on a GPU now.
std::vector<GpuProcessMemory> ReadProcessMemory(const CycleEntryPoints& nvml, NvmlDevice device) {
    std::unordered_map<int, uint64_t> processBytes;
    MergeProcessMemory(nvml.ComputeProcesses, device, processBytes);
    MergeProcessMemory(nvml.GraphicsProcesses, device, processBytes);
    std::vector<GpuProcessMemory> processes;
    processes.reserve(processBytes.size());
    for (const auto& [pid, bytes] : processBytes) processes.push_back({pid, bytes});
    return processes;
}

/// A full history drops its oldest sample for each new one.
void AppendSample(const GpuTelemetrySample& sample, std::deque<GpuTelemetrySample>* samples) {
    samples->push_back(sample);
    while (samples->size() > kMaxHistorySamples) samples->pop_front();
}

/// The samples that are newer than `timestampSeconds`. The search goes back from the newest one and past those without
/// a moment, and ends at the first one that is not newer.
std::deque<GpuTelemetrySample> SamplesSince(const std::deque<GpuTelemetrySample>& samples, double timestampSeconds) {
    // No moment is newer than NaN.
    const auto isNew = [=](const GpuTelemetrySample& sample) { return sample.TimestampSeconds > timestampSeconds; };
    const auto isOld = [=](const GpuTelemetrySample& sample) {
        return sample.TimestampSeconds != 0.0 && !isNew(sample);
    };
    std::deque<GpuTelemetrySample> newer;
    std::copy_if(std::find_if(samples.rbegin(), samples.rend(), isOld).base(), samples.end(), std::back_inserter(newer),
                 isNew);
    return newer;
}

// ---- Results of changes ----

/// Writes why an operation failed, if the host asked for the sentence.
void SetClockError(std::string* error, const char* message) {
    if (error == nullptr) return;
    *error = message != nullptr ? message : "NVML clock operation failed";
}

/// What NVML's answer to a change means. `operation` names the change in the sentence of a failure.
GpuClockOperationResult MapClockResult(NvmlReturn result, const char* operation, std::string* error) {
    if (result == kNvmlSuccess) return GpuClockOperationResult::Success;
    const std::string change(operation);
    if (result == kNvmlErrorNoPermission) {
        SetClockError(error, ("NVML denied " + change + " for this user.").c_str());
        return GpuClockOperationResult::NoPermission;
    }
    if (result == kNvmlErrorNotSupported) {
        SetClockError(error, ("The NVIDIA driver does not support " + change + ".").c_str());
        return GpuClockOperationResult::Unsupported;
    }
    SetClockError(error, ("NVML " + change + " failed.").c_str());
    return GpuClockOperationResult::Error;
}

/// Writes `message` and gives back `result`, for a failure that is found before NVML is asked for a change.
GpuClockOperationResult Refuse(GpuClockOperationResult result, const std::string& message, std::string* error) {
    SetClockError(error, message.c_str());
    return result;
}

/// The discovered GPU with NVML index `index`; null when discovery skipped it or there is no such GPU.
const GpuDeviceInfo* FindDevice(const std::vector<GpuTelemetryHistory>& histories, unsigned int index) {
    for (const GpuTelemetryHistory& history : histories) {
        if (history.Device.Index == index) return &history.Device;
    }
    return nullptr;
}

// ---- Clock capabilities ----

/// So that a nonsensical count from the driver does not use up all memory.
constexpr unsigned int kMaxClocks = 4096;

/// Graphics clock first: the order in which hosts are given the pairs.
using ClockPairs = std::set<std::pair<int, int>>;

/// What a driver exports that can lock clocks, looked up in the order of the members.
struct ClockCapabilityEntryPoints {
    explicit ClockCapabilityEntryPoints(void* library)
        : MemoryClocks(Symbol<MemoryClocksFn>(library, "nvmlDeviceGetSupportedMemoryClocks")),
          GraphicsClocks(Symbol<GraphicsClocksFn>(library, "nvmlDeviceGetSupportedGraphicsClocks")),
          LockGraphics(Symbol<LockClocksFn>(library, "nvmlDeviceSetGpuLockedClocks")),
          ResetGraphics(Symbol<ResetClocksFn>(library, "nvmlDeviceResetGpuLockedClocks")),
          LockMemory(Symbol<LockClocksFn>(library, "nvmlDeviceSetMemoryLockedClocks")),
          ResetMemory(Symbol<ResetClocksFn>(library, "nvmlDeviceResetMemoryLockedClocks")) {}

    bool Complete() const {
        return MemoryClocks != nullptr && GraphicsClocks != nullptr && LockGraphics != nullptr &&
               ResetGraphics != nullptr && LockMemory != nullptr && ResetMemory != nullptr;
    }

    MemoryClocksFn MemoryClocks;
    GraphicsClocksFn GraphicsClocks;
    // A query does not call these. It looks them up because a driver that exports them can lock clocks.
    LockClocksFn LockGraphics;
    ResetClocksFn ResetGraphics;
    LockClocksFn LockMemory;
    ResetClocksFn ResetMemory;
};

/// Whether a query for the size of a list was answered.
bool CountQuerySucceeded(NvmlReturn result) {
    // Without room for the list, some drivers give the size and call the room too small.
    return result == kNvmlSuccess || result == kNvmlErrorInsufficientSize;
}

/// How many clocks a list has; 0 when NVML does not report it or it makes no sense. `selector` is what the list belongs
/// to.
template <typename Fn, typename... Selector>
unsigned int CountClocks(Fn query, NvmlDevice device, Selector... selector) {
    unsigned int count = 0;
    if (!CountQuerySucceeded(query(device, selector..., &count, nullptr)) || count > kMaxClocks) return 0;
    return count;
}

/// `count` clocks, 0 where NVML wrote nothing; empty when the query failed.
template <typename Fn, typename... Selector>
std::vector<unsigned int> ReadClocks(Fn query, unsigned int count, NvmlDevice device, Selector... selector) {
    std::vector<unsigned int> clocks(count);
    if (query(device, selector..., &count, clocks.data()) != kNvmlSuccess) clocks.clear();
    return clocks;
}

/// Adds every graphics clock that goes with one memory clock. A list that cannot be read adds nothing.
void AddClockPairs(GraphicsClocksFn query, NvmlDevice device, unsigned int memory, ClockPairs* pairs) {
    const unsigned int count = CountClocks(query, device, memory);
    if (count == 0) return;
    for (const unsigned int graphics : ReadClocks(query, count, device, memory)) {
        if (graphics != 0) pairs->emplace(static_cast<int>(graphics), static_cast<int>(memory));
    }
}

/// Collects every pair that the GPU can be locked to. Result: null, or why there is no such pair.
const char* ReadClockPairs(void* library, NvmlDevice device, ClockPairs* pairs) {
    const ClockCapabilityEntryPoints nvml(library);
    if (!nvml.Complete()) return "NVML locked-clock control is not supported by this driver.";
    const unsigned int count = CountClocks(nvml.MemoryClocks, device);
    if (count == 0) return "NVML did not expose supported memory clocks.";
    const std::vector<unsigned int> memoryClocks = ReadClocks(nvml.MemoryClocks, count, device);
    if (memoryClocks.empty()) return "NVML supported memory-clock query failed.";
    for (const unsigned int memory : memoryClocks) AddClockPairs(nvml.GraphicsClocks, device, memory, pairs);
    return pairs->empty() ? "NVML returned no supported locked-clock pairs." : nullptr;
}

void ReadCurrentClocks(void* library, NvmlDevice device, GpuClockCapabilities* output) {
    const auto clock = Symbol<SelectedValueFn>(library, "nvmlDeviceGetClockInfo");
    unsigned int value = 0;
    const auto read = [&](unsigned int type, int* megahertz) {
        if (Succeeds(clock, device, type, &value)) *megahertz = static_cast<int>(value);
    };
    read(kNvmlClockGraphics, &output->CurrentGraphicsClockMHz);
    read(kNvmlClockMemory, &output->CurrentMemoryClockMHz);
}

// ---- Locked clocks ----

/// What a lock and its undo need, looked up in the order of the members.
struct LockedClockEntryPoints {
    explicit LockedClockEntryPoints(void* library)
        : LockGraphics(Symbol<LockClocksFn>(library, "nvmlDeviceSetGpuLockedClocks")),
          LockMemory(Symbol<LockClocksFn>(library, "nvmlDeviceSetMemoryLockedClocks")),
          ResetGraphics(Symbol<ResetClocksFn>(library, "nvmlDeviceResetGpuLockedClocks")),
          ResetMemory(Symbol<ResetClocksFn>(library, "nvmlDeviceResetMemoryLockedClocks")) {}

    bool Complete() const {
        return LockGraphics != nullptr && LockMemory != nullptr && ResetGraphics != nullptr && ResetMemory != nullptr;
    }

    LockClocksFn LockGraphics;
    LockClocksFn LockMemory;
    ResetClocksFn ResetGraphics;
    ResetClocksFn ResetMemory;
};

/// Locks both clocks of a GPU or, when the memory clock cannot be locked, neither.
GpuClockOperationResult LockClockPair(const LockedClockEntryPoints& nvml, NvmlDevice device, const GpuClockPair& pair,
                                      std::string* error) {
    const auto graphics = static_cast<unsigned int>(pair.GraphicsClockMHz);
    const auto memory = static_cast<unsigned int>(pair.MemoryClockMHz);
    const GpuClockOperationResult graphicsResult =
        MapClockResult(nvml.LockGraphics(device, graphics, graphics), "GPU locked-clock control", error);
    if (graphicsResult != GpuClockOperationResult::Success) return graphicsResult;

    const NvmlReturn memoryResult = nvml.LockMemory(device, memory, memory);
    // Undone before the sentence is made: if that runs out of memory, no half of a lock must be left.
    if (memoryResult != kNvmlSuccess) {
        nvml.ResetGraphics(device);
        nvml.ResetMemory(device);
    }
    return MapClockResult(memoryResult, "memory locked-clock control", error);
}

// ---- Power-limit capabilities ----

/// What a driver exports that can control the power limit, looked up in the order of the members.
struct PowerLimitEntryPoints {
    explicit PowerLimitEntryPoints(void* library)
        : Enforced(Symbol<ValueFn>(library, "nvmlDeviceGetEnforcedPowerLimit")),
          Configured(Symbol<ValueFn>(library, "nvmlDeviceGetPowerManagementLimit")),
          Default(Symbol<ValueFn>(library, "nvmlDeviceGetPowerManagementDefaultLimit")),
          Constraints(Symbol<ValuePairFn>(library, "nvmlDeviceGetPowerManagementLimitConstraints")),
          Set(Symbol<SetLimitFn>(library, "nvmlDeviceSetPowerManagementLimit")) {}

    bool Complete() const {
        return (Enforced != nullptr || Configured != nullptr) && Default != nullptr && Constraints != nullptr &&
               Set != nullptr;
    }

    ValueFn Enforced;
    ValueFn Configured;
    ValueFn Default;
    ValuePairFn Constraints;
    // A query does not call it. It looks it up because a driver that exports it can set a limit.
    SetLimitFn Set;
};

/// The limit in force or, where the driver or the board does not report it, the configured one. Result: of the last
/// call.
NvmlReturn ReadCurrentLimit(const PowerLimitEntryPoints& nvml, NvmlDevice device, unsigned int* milliwatts) {
    NvmlReturn result = kNvmlErrorNotSupported;
    if (nvml.Enforced != nullptr) result = nvml.Enforced(device, milliwatts);
    if (result != kNvmlSuccess && nvml.Configured != nullptr) result = nvml.Configured(device, milliwatts);
    return result;
}

void Conclude(GpuCapabilityState state, const char* status, GpuPowerCapabilities* output) {
    output->State = state;
    output->Status = status;
}

/// Reads all limits, and concludes from the results whether the limit can be set. What can be read stays in the record
/// whatever the conclusion.
void ReadPowerCapabilities(const PowerLimitEntryPoints& nvml, NvmlDevice device, GpuPowerCapabilities* output) {
    unsigned int value = 0;
    unsigned int minimum = 0;
    unsigned int maximum = 0;
    const NvmlReturn currentResult = ReadCurrentLimit(nvml, device, &value);
    if (currentResult == kNvmlSuccess) output->CurrentWatts = WattsFromMilliwatts(value);
    if (nvml.Default(device, &value) == kNvmlSuccess) output->DefaultWatts = WattsFromMilliwatts(value);
    const NvmlReturn constraintsResult = nvml.Constraints(device, &minimum, &maximum);
    if (constraintsResult == kNvmlSuccess) {
        output->MinimumWatts = WattsFromMilliwatts(minimum);
        output->MaximumWatts = WattsFromMilliwatts(maximum);
    }

    if (currentResult == kNvmlErrorNotSupported || constraintsResult == kNvmlErrorNotSupported) {
        Conclude(GpuCapabilityState::Unsupported, "Power-limit control is not supported by this GPU.", output);
    } else if (currentResult != kNvmlSuccess || constraintsResult != kNvmlSuccess || minimum == 0 ||
               maximum < minimum) {
        Conclude(GpuCapabilityState::Unavailable, "Power-limit constraints are temporarily unavailable.", output);
    } else {
        Conclude(GpuCapabilityState::Supported,
                 "Power-limit control supported; authorization may be required to apply.", output);
    }
}

}  // namespace

// ---- Lifecycle ----

NvmlGpuMonitor::NvmlGpuMonitor() = default;

NvmlGpuMonitor::~NvmlGpuMonitor() {
    Stop();
}

bool NvmlGpuMonitor::Start() {
    const std::lock_guard<std::mutex> lock(Mutex);
    return StartSamplingLocked();
}

void NvmlGpuMonitor::Stop() {
    PauseSampling();
    const std::lock_guard<std::mutex> lock(Mutex);
    ShutdownLocked();
}

void NvmlGpuMonitor::PauseSampling() {
    {
        const std::lock_guard<std::mutex> lock(Mutex);
        bRunning = false;
        ++WakeGeneration;
    }
    WakeCv.notify_all();
    // Without Mutex, which the sampler needs to see that it is to end.
    if (SamplerThread.joinable()) SamplerThread.join();
}

bool NvmlGpuMonitor::ResumeSampling() {
    const std::lock_guard<std::mutex> lock(Mutex);
    return StartSamplingLocked();
}

bool NvmlGpuMonitor::StartSamplingLocked() {
    if (bRunning) return bInitialized;
    if (!InitializeLocked()) return false;
    // The thread waits for Mutex first, so it finds bRunning set; when it cannot be created, the flag is still clear.
    SamplerThread = std::thread(&NvmlGpuMonitor::SamplerLoop, this);
    bRunning = true;
    return true;
}

bool NvmlGpuMonitor::IsAvailable() const {
    const std::lock_guard<std::mutex> lock(Mutex);
    return bInitialized;
}

std::string NvmlGpuMonitor::Status() const {
    const std::lock_guard<std::mutex> lock(Mutex);
    return StatusText;
}

// ---- Settings ----

void NvmlGpuMonitor::SetSampleInterval(std::chrono::milliseconds interval) {
    {
        const std::lock_guard<std::mutex> lock(Mutex);
        SampleInterval = std::clamp(interval, std::chrono::milliseconds(100), std::chrono::milliseconds(10000));
        // Also when nothing changed: each call of this operation asks for a cycle now.
        ++WakeGeneration;
    }
    WakeCv.notify_all();
}

void NvmlGpuMonitor::SetInitialSampleDelay(std::chrono::milliseconds delay) {
    const std::lock_guard<std::mutex> lock(Mutex);
    InitialSampleDelay = std::clamp(delay, std::chrono::milliseconds(0), std::chrono::milliseconds(10000));
}

// ---- Histories ----

std::vector<GpuTelemetryHistory> NvmlGpuMonitor::Snapshot() const {
    const std::lock_guard<std::mutex> lock(Mutex);
    return Histories;
}

std::vector<GpuTelemetryHistory> NvmlGpuMonitor::SnapshotSince(double timestampSeconds) const {
    const std::lock_guard<std::mutex> lock(Mutex);
    std::vector<GpuTelemetryHistory> copies;
    copies.reserve(Histories.size());
    for (const GpuTelemetryHistory& history : Histories) {
        copies.push_back({history.Device, SamplesSince(history.Samples, timestampSeconds), history.ProcessMemory});
    }
    return copies;
}

// ---- Tuning ----

bool NvmlGpuMonitor::GetClockCapabilities(GpuClockCapabilities* output) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return GetClockCapabilitiesLocked(output);
}

bool NvmlGpuMonitor::GetClockCapabilities(unsigned int deviceIndex, GpuClockCapabilities* output) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return GetClockCapabilitiesLocked(deviceIndex, output);
}

bool NvmlGpuMonitor::GetPowerCapabilities(unsigned int deviceIndex, GpuPowerCapabilities* output) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return GetPowerCapabilitiesLocked(deviceIndex, output);
}

bool NvmlGpuMonitor::CaptureClockState(GpuClockState* output) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return CaptureClockStateLocked(output);
}

GpuClockOperationResult NvmlGpuMonitor::SetLockedClock(const GpuClockPair& pair, std::string* error) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return SetLockedClockLocked(pair, error);
}

GpuClockOperationResult NvmlGpuMonitor::SetLockedClock(unsigned int deviceIndex, const GpuClockPair& pair,
                                                       std::string* error) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return SetLockedClockLocked(deviceIndex, pair, error);
}

GpuClockOperationResult NvmlGpuMonitor::RestoreClockState(const GpuClockState& state, std::string* error) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return RestoreClockStateLocked(state, error);
}

GpuClockOperationResult NvmlGpuMonitor::RestoreDefaultClocks(std::string* error) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return RestoreDefaultClocksLocked(error);
}

GpuClockOperationResult NvmlGpuMonitor::RestoreDefaultClocks(unsigned int deviceIndex, std::string* error) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return RestoreDefaultClocksLocked(deviceIndex, error);
}

GpuClockOperationResult NvmlGpuMonitor::SetPowerLimit(unsigned int deviceIndex, double watts, std::string* error) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return SetPowerLimitLocked(deviceIndex, watts, error);
}

GpuClockOperationResult NvmlGpuMonitor::RestoreDefaultPowerLimit(unsigned int deviceIndex, std::string* error) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return RestoreDefaultPowerLimitLocked(deviceIndex, error);
}

// ---- One sample ----

bool NvmlGpuMonitor::ReadCurrentSample(GpuTelemetrySample* output) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return ReadCurrentSampleLocked(output);
}

bool NvmlGpuMonitor::ReadCurrentSample(unsigned int deviceIndex, GpuTelemetrySample* output) {
    const std::lock_guard<std::mutex> lock(Mutex);
    return ReadCurrentSampleLocked(deviceIndex, output);
}

// ---- The sampler thread ----

void NvmlGpuMonitor::SamplerLoop() {
    if (!WaitInitialDelay()) return;
    for (;;) {
        std::chrono::milliseconds interval{};
        uint64_t generation = 0;
        {
            const std::lock_guard<std::mutex> cycle(Mutex);
            if (!bRunning) return;
            interval = SampleInterval;
            // Taken before the work, so that a wake-up which arrives during it ends the wait after it.
            generation = WakeGeneration;
            try {
                SampleAllDevicesLocked();
            } catch (const std::bad_alloc&) {
                // This thread has no caller to report to, and the host must not end because a cycle failed: the next
                // cycle tries again.
            }
        }
        std::unique_lock<std::mutex> wait(Mutex);
        WaitForWake(wait, interval, generation);
    }
}

bool NvmlGpuMonitor::WaitInitialDelay() {
    std::unique_lock<std::mutex> lock(Mutex);
    while (bRunning) {
        const std::chrono::milliseconds delay = InitialSampleDelay;
        const uint64_t generation = WakeGeneration;
        if (delay <= std::chrono::milliseconds(0)) return true;
        WaitForWake(lock, delay, generation);
        if (bRunning && WakeGeneration == generation) return true;
    }
    return false;
}

void NvmlGpuMonitor::WaitForWake(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds duration,
                                 uint64_t generation) {
    // Computed once: a spurious wake-up goes back to sleep until this same moment.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::nanoseconds(duration);
    WakeCv.wait_until(lock, deadline, [&] { return !bRunning || WakeGeneration != generation; });
}

void NvmlGpuMonitor::SampleAllDevicesLocked() {
    const CycleEntryPoints nvml(Library);
    for (GpuTelemetryHistory& history : Histories) {
        NvmlDevice device = nullptr;
        if (!Succeeds(nvml.GetHandle, history.Device.Index, &device)) continue;
        GpuTelemetrySample sample;
        // A reading that reports failure is kept too: some of its fields may have been read.
        ReadCurrentSampleLocked(history.Device.Index, &sample);
        std::vector<GpuProcessMemory> processes = ReadProcessMemory(nvml, device);
        AppendSample(sample, &history.Samples);
        // Last, because this cannot run out of memory: a GPU gets all updates of a cycle or no update.
        history.ProcessMemory = std::move(processes);
    }
}

// ---- Operations that run under Mutex ----

bool NvmlGpuMonitor::InitializeLocked() {
    if (bInitialized) return true;
    const auto fail = [this](const char* status) {
        StatusText = status;
        return false;
    };
    Library = dlopen("libnvidia-ml.so.1", RTLD_LAZY);
    if (Library == nullptr) return fail("NVML unavailable / NVIDIA GPU monitoring disabled.");
    StartupGuard guard(&Library);
    const StartupEntryPoints nvml(Library);
    if (!nvml.Complete() || nvml.Init() != kNvmlSuccess) return fail("NVML initialization failed.");
    guard.NvmlInitialized();

    unsigned int devices = 0;
    if (nvml.GetCount(&devices) != kNvmlSuccess || devices == 0) return fail("No NVIDIA GPU found.");
    Histories.clear();
    NvmlDevice primaryDevice = nullptr;
    std::vector<GpuTelemetryHistory> discovered = DiscoverDevices(Library, nvml, devices, &primaryDevice);
    if (discovered.empty()) return fail("No NVIDIA GPU found.");
    std::string active = "NVML active: " + std::to_string(discovered.size()) + " NVIDIA GPU(s).";

    // Nothing below can throw, so no exception leaves only some of the members changed.
    guard.Started();
    Histories = std::move(discovered);
    PrimaryDevice = primaryDevice;
    bInitialized = true;
    StatusText = std::move(active);
    return true;
}

void NvmlGpuMonitor::ShutdownLocked() {
    CloseNvml(&Library, bInitialized);
    PrimaryDevice = nullptr;
    bInitialized = false;
}

bool NvmlGpuMonitor::GetClockCapabilitiesLocked(GpuClockCapabilities* output) {
    return GetClockCapabilitiesLocked(0, output);
}

bool NvmlGpuMonitor::GetClockCapabilitiesLocked(unsigned int deviceIndex, GpuClockCapabilities* output) {
    if (output == nullptr) return false;
    *output = GpuClockCapabilities{};
    const bool bStarted = InitializeLocked();
    output->Status = StatusText;
    if (!bStarted) return false;
    output->DeviceIndex = deviceIndex;
    if (const GpuDeviceInfo* info = FindDevice(Histories, deviceIndex)) {
        output->DeviceName = info->Name;
        output->DeviceUuid = info->Uuid;
    }
    NvmlDevice device = nullptr;
    if (!GetDevice(Library, deviceIndex, &device)) {
        output->Status = "NVML has no usable NVIDIA device.";
        return false;
    }

    ReadCurrentClocks(Library, device, output);
    ClockPairs pairs;
    const char* const obstacle = ReadClockPairs(Library, device, &pairs);
    if (obstacle != nullptr) output->Status = obstacle;
    output->SupportedPairs.reserve(pairs.size());
    for (const auto& [graphics, memory] : pairs) output->SupportedPairs.push_back({graphics, memory});
    output->CanControl = !pairs.empty();
    return true;
}

bool NvmlGpuMonitor::GetPowerCapabilitiesLocked(unsigned int deviceIndex, GpuPowerCapabilities* output) {
    if (output == nullptr) return false;
    *output = GpuPowerCapabilities{};
    output->DeviceIndex = deviceIndex;
    if (!InitializeLocked()) {
        output->Status = StatusText;
        return false;
    }
    const GpuDeviceInfo* const info = FindDevice(Histories, deviceIndex);
    NvmlDevice device = nullptr;
    if (!GetDevice(Library, deviceIndex, &device) || info == nullptr) {
        output->Status = "NVIDIA GPU is unavailable.";
        return false;
    }
    output->DeviceUuid = info->Uuid;

    const PowerLimitEntryPoints nvml(Library);
    if (nvml.Complete()) {
        ReadPowerCapabilities(nvml, device, output);
    } else {
        Conclude(GpuCapabilityState::DriverLimitation, "Power-limit control is not exposed by this NVIDIA driver.",
                 output);
    }
    return true;
}

bool NvmlGpuMonitor::CaptureClockStateLocked(GpuClockState* output) {
    if (output == nullptr) return false;
    *output = GpuClockState{};
    GpuClockCapabilities capabilities;
    if (!GetClockCapabilitiesLocked(&capabilities) || !capabilities.CanControl) return false;
    *output = {true, capabilities.CurrentGraphicsClockMHz, capabilities.CurrentMemoryClockMHz};
    return true;
}

GpuClockOperationResult NvmlGpuMonitor::SetLockedClockLocked(const GpuClockPair& pair, std::string* error) {
    return SetLockedClockLocked(0, pair, error);
}

GpuClockOperationResult NvmlGpuMonitor::SetLockedClockLocked(unsigned int deviceIndex, const GpuClockPair& pair,
                                                             std::string* error) {
    using Result = GpuClockOperationResult;
    GpuClockCapabilities capabilities;
    if (!GetClockCapabilitiesLocked(deviceIndex, &capabilities)) {
        return Refuse(Result::Error, capabilities.Status, error);
    }
    const std::vector<GpuClockPair>& listed = capabilities.SupportedPairs;
    if (std::find(listed.begin(), listed.end(), pair) == listed.end()) {
        return Refuse(Result::Unsupported, "Requested clock pair is not supported by NVML.", error);
    }
    const LockedClockEntryPoints nvml(Library);
    if (!nvml.Complete()) return Refuse(Result::Unsupported, "NVML locked-clock control is unavailable.", error);
    NvmlDevice device = nullptr;
    if (!GetDevice(Library, deviceIndex, &device)) return Refuse(Result::Error, "NVIDIA GPU is unavailable.", error);
    return LockClockPair(nvml, device, pair, error);
}

GpuClockOperationResult NvmlGpuMonitor::RestoreClockStateLocked(const GpuClockState& /*state*/, std::string* error) {
    // The state holds the clocks that ran, not clocks that were locked: applying it would lock the GPU again.
    return RestoreDefaultClocksLocked(error);
}

GpuClockOperationResult NvmlGpuMonitor::RestoreDefaultClocksLocked(std::string* error) {
    return RestoreDefaultClocksLocked(0, error);
}

GpuClockOperationResult NvmlGpuMonitor::RestoreDefaultClocksLocked(unsigned int deviceIndex, std::string* error) {
    using Result = GpuClockOperationResult;
    if (!InitializeLocked()) return Refuse(Result::Error, StatusText, error);
    NvmlDevice device = nullptr;
    if (!GetDevice(Library, deviceIndex, &device)) {
        return Refuse(Result::Error, "NVML has no usable NVIDIA device.", error);
    }
    const auto resetGraphics = Symbol<ResetClocksFn>(Library, "nvmlDeviceResetGpuLockedClocks");
    const auto resetMemory = Symbol<ResetClocksFn>(Library, "nvmlDeviceResetMemoryLockedClocks");
    if (resetGraphics == nullptr || resetMemory == nullptr) {
        return Refuse(Result::Unsupported, "NVML locked-clock reset is unavailable.", error);
    }

    // Both are tried before either failure is reported, so that at least one lock is released.
    const NvmlReturn memoryResult = resetMemory(device);
    const NvmlReturn graphicsResult = resetGraphics(device);
    if (memoryResult != kNvmlSuccess) return MapClockResult(memoryResult, "memory locked-clock reset", error);
    return MapClockResult(graphicsResult, "GPU locked-clock reset", error);
}

GpuClockOperationResult NvmlGpuMonitor::SetPowerLimitLocked(unsigned int deviceIndex, double watts,
                                                            std::string* error) {
    using Result = GpuClockOperationResult;
    GpuPowerCapabilities capabilities;
    if (!GetPowerCapabilitiesLocked(deviceIndex, &capabilities)) {
        return Refuse(Result::Error, capabilities.Status, error);
    }
    if (capabilities.State != GpuCapabilityState::Supported) {
        return Refuse(Result::Unsupported, capabilities.Status, error);
    }
    if (!std::isfinite(watts) || watts < capabilities.MinimumWatts || watts > capabilities.MaximumWatts) {
        return Refuse(Result::Unsupported, "Requested power limit is outside the driver-supported range.", error);
    }
    // Within the range that NVML reported, so NVML's unsigned milliwatts hold it.
    const double milliwatts = std::round(watts * 1000.0);
    const auto set = Symbol<SetLimitFn>(Library, "nvmlDeviceSetPowerManagementLimit");
    NvmlDevice device = nullptr;
    if (!GetDevice(Library, deviceIndex, &device) || set == nullptr) {
        return Refuse(Result::Unsupported, "NVML power-limit control is unavailable.", error);
    }
    return MapClockResult(set(device, static_cast<unsigned int>(milliwatts)), "power-limit control", error);
}

GpuClockOperationResult NvmlGpuMonitor::RestoreDefaultPowerLimitLocked(unsigned int deviceIndex, std::string* error) {
    GpuPowerCapabilities capabilities;
    if (!GetPowerCapabilitiesLocked(deviceIndex, &capabilities) || capabilities.DefaultWatts <= 0.0) {
        return Refuse(GpuClockOperationResult::Unsupported, capabilities.Status, error);
    }
    return SetPowerLimitLocked(deviceIndex, capabilities.DefaultWatts, error);
}

bool NvmlGpuMonitor::ReadCurrentSampleLocked(GpuTelemetrySample* output) {
    return ReadCurrentSampleLocked(0, output);
}

bool NvmlGpuMonitor::ReadCurrentSampleLocked(unsigned int deviceIndex, GpuTelemetrySample* output) {
    if (output == nullptr) return false;
    *output = GpuTelemetrySample{};
    if (!InitializeLocked()) return false;
    NvmlDevice device = nullptr;
    if (!GetDevice(Library, deviceIndex, &device)) return false;

    // The profiler is asked under Mutex: its lock comes second, and it must not call back into the monitor.
    output->TimestampSeconds = NowSeconds();
    output->FrameTimeMs = LatestGpuFrameTimeMs();
    SampleReader(Library, device, output).Read();
    return output->PowerWatts >= 0.0 || output->GraphicsClockMHz >= 0;
}
