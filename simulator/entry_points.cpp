// What the library exports: a function for each name of the list, made from the shape of its call. Each shape has one
// function here that answers for all its names from the board.

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

#include "engine.h"

using namespace simulated_nvml;  // NOLINT(google-build-using-namespace): the exports are in no namespace

namespace {

constexpr unsigned int kSamplingPeriodMicroseconds = 167000;

Engine& Nvml() {
    return Engine::Get();
}

// ---- Single values ----

NvmlReturn Store(unsigned int* output, unsigned int value) {
    *output = value;
    return kSuccess;
}

unsigned int ValueOf(EntryPoint name, const BoardModel& model) {
    const Board& board = model.Identity();
    const Readings& now = model.Now();
    switch (name) {
        case EntryPoint::nvmlDeviceGetIndex:
        case EntryPoint::nvmlDeviceGetMinorNumber: return Nvml().IndexOfBoard(model);
        case EntryPoint::nvmlDeviceGetArchitecture: return board.Architecture;
        case EntryPoint::nvmlDeviceGetBrand: return board.Brand;
        // Any number of programs may compute on a simulated board.
        case EntryPoint::nvmlDeviceGetComputeMode: return 0;
        case EntryPoint::nvmlDeviceGetNumFans:
            return model.Verdict(EntryPoint::nvmlDeviceGetFanSpeed, {}) != kNotSupported ? board.FanCount : 0;
        case EntryPoint::nvmlDeviceGetFanSpeed: return now.FanPercent;
        case EntryPoint::nvmlDeviceGetPerformanceState:
        case EntryPoint::nvmlDeviceGetPowerState: return now.PerformanceState;
        case EntryPoint::nvmlDeviceGetCurrPcieLinkGeneration: return now.PcieGeneration;
        case EntryPoint::nvmlDeviceGetCurrPcieLinkWidth: return now.PcieWidth;
        case EntryPoint::nvmlDeviceGetMaxPcieLinkGeneration: return board.MaxPcieGeneration;
        case EntryPoint::nvmlDeviceGetMaxPcieLinkWidth: return board.MaxPcieWidth;
        case EntryPoint::nvmlDeviceGetPowerUsage: return now.PowerMilliwatts;
        case EntryPoint::nvmlDeviceGetPowerManagementDefaultLimit: return board.DefaultPowerLimitMilliwatts;
        // The limit that was set is also the one in force: no simulated board enforces a lower one by itself.
        default: return model.PowerLimitMilliwatts();
    }
}

NvmlReturn Value(EntryPoint name, NvmlDevice device, unsigned int* value) {
    return Nvml().DeviceCall(name, device, {}, {value},
                             [&](const BoardModel& board) { return Store(value, ValueOf(name, board)); });
}

unsigned int ClockOf(unsigned int type, unsigned int graphics, unsigned int sm, unsigned int memory,
                     unsigned int video) {
    const unsigned int clocks[] = {graphics, sm, memory, video};
    return clocks[type];
}

unsigned int MaxClockOf(const ClockGroup& fastest, unsigned int type) {
    const unsigned int graphics = fastest.GraphicsMHz.front();
    return ClockOf(type, graphics, graphics, fastest.MemoryMHz, BoardModel::VideoClockMHz(graphics));
}

unsigned int SelectedOf(EntryPoint name, unsigned int selector, const BoardModel& model) {
    const Board& board = model.Identity();
    const Readings& now = model.Now();
    switch (name) {
        case EntryPoint::nvmlDeviceGetTemperature: return now.TemperatureC;
        case EntryPoint::nvmlDeviceGetTemperatureThreshold:
            return selector == kThresholdShutdown ? board.ShutdownTemperatureC : board.SlowdownTemperatureC;
        case EntryPoint::nvmlDeviceGetPcieThroughput:
            return selector == kPcieTransmit ? now.PcieTransmitKiBPerSecond : now.PcieReceiveKiBPerSecond;
        case EntryPoint::nvmlDeviceGetFanSpeed_v2: return now.FanPercent;
        case EntryPoint::nvmlDeviceGetMaxClockInfo: return MaxClockOf(board.Clocks.front(), selector);
        default: return ClockOf(selector, now.GraphicsMHz, now.SmMHz, now.MemoryMHz, now.VideoMHz);
    }
}

NvmlReturn StoreSelected(EntryPoint name, unsigned int selector, const BoardModel& board, unsigned int* value) {
    const bool bLacksClocks = name == EntryPoint::nvmlDeviceGetMaxClockInfo && board.Identity().Clocks.empty();
    if (bLacksClocks) return kNotSupported;
    if (name == EntryPoint::nvmlDeviceGetFanSpeed_v2 && selector >= board.Identity().FanCount) return kInvalidArgument;
    return Store(value, SelectedOf(name, selector, board));
}

NvmlReturn Selected(EntryPoint name, NvmlDevice device, unsigned int selector, unsigned int* value) {
    return Nvml().DeviceCall(name, device, {selector}, {value},
                             [&](const BoardModel& board) { return StoreSelected(name, selector, board, value); });
}

NvmlReturn Clock(EntryPoint name, NvmlDevice device, unsigned int type, unsigned int which, unsigned int* clock) {
    return Nvml().DeviceCall(name, device, {type, which}, {clock}, [&](const BoardModel& board) {
        if (which != kClockNow && which != kClockHighest) return kNotSupported;
        const EntryPoint query =
            which == kClockNow ? EntryPoint::nvmlDeviceGetClockInfo : EntryPoint::nvmlDeviceGetMaxClockInfo;
        const NvmlReturn refusal = board.Verdict(query, {type});
        return refusal != kSuccess ? refusal : StoreSelected(query, type, board, clock);
    });
}

NvmlReturn LongValue(EntryPoint name, NvmlDevice device, unsigned long long* value) {
    return Nvml().DeviceCall(name, device, {}, {value}, [&](const BoardModel& board) {
        const bool bEnergy = name == EntryPoint::nvmlDeviceGetTotalEnergyConsumption;
        *value = bEnergy ? board.EnergyMillijoules() : board.Now().LimitReasons;
        return kSuccess;
    });
}

NvmlReturn SystemValue(EntryPoint name, unsigned int* value) {
    constexpr unsigned int kCudaVersion = 12040;
    return Nvml().SystemCall(name, {}, {value},
                             [&] { return Store(value, IsDeviceCount(name) ? Nvml().BoardCount() : kCudaVersion); });
}

// ---- Values that come together ----

std::pair<unsigned int, unsigned int> PairOf(EntryPoint name, const BoardModel& model) {
    const Readings& now = model.Now();
    switch (name) {
        case EntryPoint::nvmlDeviceGetUtilizationRates: return {now.GpuPercent, now.MemoryPercent};
        case EntryPoint::nvmlDeviceGetEncoderUtilization: return {now.EncoderPercent, kSamplingPeriodMicroseconds};
        case EntryPoint::nvmlDeviceGetDecoderUtilization: return {now.DecoderPercent, kSamplingPeriodMicroseconds};
        default: return {model.Identity().MinimumPowerLimitMilliwatts, model.Identity().MaximumPowerLimitMilliwatts};
    }
}

NvmlReturn Pair(EntryPoint name, NvmlDevice device, unsigned int* first, unsigned int* second) {
    return Nvml().DeviceCall(name, device, {}, {first, second}, [&](const BoardModel& board) {
        if (first == nullptr || second == nullptr) return kInvalidArgument;
        std::tie(*first, *second) = PairOf(name, board);
        return kSuccess;
    });
}

NvmlReturn Utilization(EntryPoint name, NvmlDevice device, UtilizationRecord* rates) {
    if (rates == nullptr) return Pair(name, device, nullptr, nullptr);
    return Pair(name, device, &rates->GpuPercent, &rates->MemoryPercent);
}

NvmlReturn Memory(EntryPoint name, NvmlDevice device, MemoryRecord* memory) {
    return Nvml().DeviceCall(name, device, {}, {memory}, [&](const BoardModel& board) {
        const bool bVram = name == EntryPoint::nvmlDeviceGetMemoryInfo;
        const uint64_t total = bVram ? board.Identity().VramTotalBytes : board.Identity().Bar1TotalBytes;
        const uint64_t used = std::min(bVram ? board.Now().VramUsedBytes : board.Now().Bar1UsedBytes, total);
        *memory = {total, total - used, used};
        return kSuccess;
    });
}

NvmlReturn VersionedMemory(EntryPoint name, NvmlDevice device, VersionedMemoryRecord* memory) {
    return Nvml().DeviceCall(name, device, {}, {memory}, [&](const BoardModel& board) {
        if (memory->Version != kMemoryRecordVersion) return kArgumentVersionMismatch;
        const uint64_t total = board.Identity().VramTotalBytes;
        const uint64_t taken = std::min(board.Now().VramUsedBytes, total);
        // A recording does not say how much the driver keeps.
        const uint64_t reserved = board.Identity().Recorded != nullptr ? 0 : std::min(kReservedVramBytes, taken);
        *memory = {kMemoryRecordVersion, total, reserved, total - taken, taken - reserved};
        return kSuccess;
    });
}

// ---- Texts ----

NvmlReturn StoreText(char* output, unsigned int size, const std::string& text) {
    if (Nvml().Rules.bUnterminatedText) {
        std::memset(output, 'x', size);
        // NOLINTNEXTLINE(bugprone-not-null-terminated-result): that is what was asked for.
        std::memcpy(output, text.data(), std::min<size_t>(size, text.size()));
        return kSuccess;
    }
    if (size < text.size() + 1) return kInsufficientSize;
    std::memcpy(output, text.c_str(), text.size() + 1);
    return kSuccess;
}

template <size_t Size>
void FillField(char (&field)[Size], const std::string& text) {
    std::memset(field, Nvml().Rules.bUnterminatedText ? 'x' : '\0', Size);
    std::memcpy(field, text.data(), std::min(Size, text.size()));
}

const std::string& TextOf(EntryPoint name, const Board& board) {
    switch (name) {
        case EntryPoint::nvmlDeviceGetName: return board.Name;
        case EntryPoint::nvmlDeviceGetUUID: return board.Uuid;
        case EntryPoint::nvmlDeviceGetSerial: return board.Serial;
        default: return board.VbiosVersion;
    }
}

NvmlReturn SystemText(EntryPoint name, char* text, unsigned int size) {
    const char* const version = name == EntryPoint::nvmlSystemGetNVMLVersion ? "12.550.120" : "550.120";
    return Nvml().SystemCall(name, {size}, {text, nullptr, size}, [&] { return StoreText(text, size, version); });
}

NvmlReturn Text(EntryPoint name, NvmlDevice device, char* text, unsigned int size) {
    return Nvml().DeviceCall(name, device, {size}, {text, nullptr, size}, [&](const BoardModel& board) {
        const std::string& found = TextOf(name, board.Identity());
        const bool bLacksSerial = name == EntryPoint::nvmlDeviceGetSerial && found.empty();
        return bLacksSerial ? kNotSupported : StoreText(text, size, found);
    });
}

NvmlReturn Pci(EntryPoint name, NvmlDevice device, PciRecord* pci) {
    return Nvml().DeviceCall(name, device, {}, {pci}, [&](const BoardModel& model) {
        const Board& board = model.Identity();
        PciRecord record{};
        FillField(record.BusIdLegacy, board.BusIdLegacy);
        // The older record has reserved bytes there.
        if (name == EntryPoint::nvmlDeviceGetPciInfo_v3) FillField(record.BusId, board.BusId);
        record.Bus = board.PciBus;
        record.DeviceAndVendorId = board.PciDeviceId;
        record.SubSystemId = board.PciSubSystemId;
        std::memcpy(pci, &record, RecordBytesOf(name));
        return kSuccess;
    });
}

const char* ErrorText(EntryPoint name, NvmlReturn result) {
    Nvml().NoteTextCall(name);
    switch (result) {
        case kSuccess: return "Success";
        case kUninitialized: return "NVML is not initialized";
        case kInvalidArgument: return "Invalid argument";
        case kNotSupported: return "Not supported";
        case kNoPermission: return "No permission";
        case kNotFound: return "Not found";
        case kInsufficientSize: return "Insufficient size";
        case kGpuIsLost: return "GPU is lost";
        case kArgumentVersionMismatch: return "Argument version mismatch";
        default: return "Unknown error";
    }
}

// ---- Lists ----

/// How many entries a list has for a caller that offers this room. The script can change it after a size query.
size_t ListedEntries(EntryPoint name, size_t entries, bool bSizeQuery) {
    const bool bSizeAsked = std::exchange(Nvml().Observed.SizeAsked[IndexOf(name)], bSizeQuery);
    if (bSizeQuery || !bSizeAsked) return entries;
    const int64_t changed = static_cast<int64_t>(entries) + Nvml().Rules.ListChanges[IndexOf(name)];
    return static_cast<size_t>(std::max<int64_t>(changed, 0));
}

/// The protocol of all list queries: a room too small is answered with the size needed, and `write(index, entry)` is
/// called for each entry when there is room. An entry that only the script adds is like the last one.
template <typename Entry, typename Write>
NvmlReturn StoreList(EntryPoint name, const std::vector<Entry>& entries, unsigned int* count, Write write) {
    const unsigned int room = *count;
    const size_t listed = ListedEntries(name, entries.size(), room == 0);
    *count = static_cast<unsigned int>(listed);
    if (listed > room) return kInsufficientSize;
    for (size_t i = 0; i < listed; ++i) {
        write(i, i < entries.size() ? entries[i] : entries.empty() ? Entry{} : entries.back());
    }
    return kSuccess;
}

NvmlReturn StoreClocks(EntryPoint name, const std::vector<unsigned int>& clocks, unsigned int* count,
                       unsigned int* output) {
    return StoreList(name, clocks, count, [output](size_t i, unsigned int clock) { output[i] = clock; });
}

std::optional<uint64_t> RoomArgument(const unsigned int* count) {
    return count != nullptr ? std::optional<uint64_t>(*count) : std::nullopt;
}

NvmlReturn MemoryClocks(EntryPoint name, NvmlDevice device, unsigned int* count, unsigned int* clocks) {
    return Nvml().DeviceCall(name, device, {RoomArgument(count)}, {count, clocks}, [&](const BoardModel& board) {
        std::vector<unsigned int> memoryClocks;
        for (const ClockGroup& group : board.Identity().Clocks) memoryClocks.push_back(group.MemoryMHz);
        return StoreClocks(name, memoryClocks, count, clocks);
    });
}

NvmlReturn GraphicsClocks(EntryPoint name, NvmlDevice device, unsigned int memoryMHz, unsigned int* count,
                          unsigned int* clocks) {
    const Outputs outputs{count, clocks};
    return Nvml().DeviceCall(name, device, {memoryMHz, RoomArgument(count)}, outputs, [&](const BoardModel& board) {
        for (const ClockGroup& group : board.Identity().Clocks) {
            if (group.MemoryMHz == memoryMHz) return StoreClocks(name, group.GraphicsMHz, count, clocks);
        }
        return kNotFound;
    });
}

const std::vector<Process>& ProcessesOf(EntryPoint name, const Readings& now) {
    const bool bCompute = QueryOf(name) == EntryPoint::nvmlDeviceGetComputeRunningProcesses_v3;
    return bCompute ? now.ComputeProcesses : now.GraphicsProcesses;
}

NvmlReturn Processes(EntryPoint name, NvmlDevice device, unsigned int* count, ProcessRecord* output) {
    return Nvml().DeviceCall(name, device, {RoomArgument(count)}, {count, output}, [&](const BoardModel& board) {
        const size_t recordBytes = Nvml().Rules.ProcessRecordBytes[IndexOf(name)].value_or(RecordBytesOf(name));
        auto* bytes = reinterpret_cast<unsigned char*>(output);
        const auto write = [bytes, recordBytes](size_t i, const Process& process) {
            constexpr uint32_t kNoInstance = UINT32_MAX;
            const ProcessRecord record = {process.Pid, 0, process.UsedBytes, kNoInstance, kNoInstance};
            std::memset(bytes + i * recordBytes, 0, recordBytes);
            std::memcpy(bytes + i * recordBytes, &record, std::min(recordBytes, sizeof record));
        };
        return StoreList(name, ProcessesOf(name, board.Now()), count, write);
    });
}

/// What each process does to the board: its share of everything is its share of the load.
std::vector<ProcessUtilizationRecord> UtilizationsOf(const Readings& now, uint64_t timestamp) {
    std::map<unsigned int, unsigned int> loads;
    for (const auto* list : {&now.ComputeProcesses, &now.GraphicsProcesses}) {
        for (const Process& process : *list) loads[process.Pid] = process.GpuPercent;
    }
    std::vector<ProcessUtilizationRecord> utilizations;
    for (const auto& [pid, load] : loads) {
        const auto share = [&now, load = load](unsigned int percent) {
            return now.GpuPercent != 0 ? percent * load / now.GpuPercent : 0;
        };
        utilizations.push_back(
            {pid, timestamp, load, share(now.MemoryPercent), share(now.EncoderPercent), share(now.DecoderPercent)});
    }
    return utilizations;
}

/// When the latest sampling period of the system clock ended.
uint64_t LatestSampleMicroseconds() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto microseconds = static_cast<uint64_t>(std::chrono::floor<std::chrono::microseconds>(now).count());
    return microseconds - microseconds % kSamplingPeriodMicroseconds;
}

NvmlReturn ProcessUtilization(EntryPoint name, NvmlDevice device, ProcessUtilizationRecord* output, unsigned int* count,
                              unsigned long long lastSeen) {
    const Outputs outputs{count, output};
    return Nvml().DeviceCall(name, device, {RoomArgument(count), lastSeen}, outputs, [&](const BoardModel& board) {
        const uint64_t latest = LatestSampleMicroseconds();
        const std::vector<ProcessUtilizationRecord> utilizations = UtilizationsOf(board.Now(), latest);
        if (latest <= lastSeen || utilizations.empty()) return kNotFound;
        // Without a place for the samples the call asks how many there are, whatever the count says.
        if (output == nullptr) *count = 0;
        return StoreList(name, utilizations, count,
                         [output](size_t i, const ProcessUtilizationRecord& record) { output[i] = record; });
    });
}

// ---- Changes ----

std::optional<ClockRange>& LockOf(EntryPoint name, BoardSettings* settings) {
    const bool bGraphics =
        name == EntryPoint::nvmlDeviceSetGpuLockedClocks || name == EntryPoint::nvmlDeviceResetGpuLockedClocks;
    return bGraphics ? settings->GraphicsLock : settings->MemoryLock;
}

NvmlReturn Change(EntryPoint name, NvmlDevice device, Arguments arguments, const SettingsEdit& edit) {
    return Nvml().DeviceCall(name, device, arguments, {},
                             [&](BoardModel& board) { return Nvml().Change(&board, edit); });
}

NvmlReturn Lock(EntryPoint name, NvmlDevice device, unsigned int lowest, unsigned int highest) {
    return Change(name, device, {lowest, highest}, [&](const Board&, BoardSettings* settings) {
        const ClockRange range{lowest, highest};
        if (!IsSensible(range)) return kInvalidArgument;
        LockOf(name, settings) = range;
        return kSuccess;
    });
}

NvmlReturn Reset(EntryPoint name, NvmlDevice device) {
    return Change(name, device, {}, [&](const Board&, BoardSettings* settings) {
        LockOf(name, settings) = std::nullopt;
        return kSuccess;
    });
}

NvmlReturn SetLimit(EntryPoint name, NvmlDevice device, unsigned int milliwatts) {
    return Change(name, device, {milliwatts}, [&](const Board& board, BoardSettings* settings) {
        if (!AllowsPowerLimit(board, milliwatts)) return kInvalidArgument;
        settings->PowerLimitMilliwatts = milliwatts;
        return kSuccess;
    });
}

// ---- The rest of the shapes ----

NvmlReturn Init(EntryPoint name) {
    return Nvml().Initialize(name, {});
}

/// The flags say what to do without GPUs and where not to attach to them, so here they change nothing.
NvmlReturn FlaggedInit(EntryPoint name, unsigned int flags) {
    return Nvml().Initialize(name, {flags});
}

NvmlReturn Shutdown(EntryPoint) {
    return Nvml().Shutdown();
}

NvmlReturn Handle(EntryPoint name, unsigned int index, NvmlDevice* device) {
    return Nvml().HandleCall(name, index, "", device);
}

NvmlReturn NamedHandle(EntryPoint name, const char* text, NvmlDevice* device) {
    return Nvml().HandleCall(name, std::nullopt, text, device);
}

NvmlReturn Unsupported(EntryPoint name, NvmlDevice device) {
    const auto refuse = [](const auto&...) { return kNotSupported; };
    // The unit is no board.
    if (name == EntryPoint::nvmlUnitGetFanSpeedInfo) return Nvml().SystemCall(name, {}, {}, refuse);
    return Nvml().DeviceCall(name, device, {}, {}, refuse);
}

template <typename Result, typename... Parameters>
std::tuple<Parameters...> ParametersOf(Result (*shape)(Parameters...));

/// What the parameter at this place of a call of this shape is.
template <typename Shape, size_t Place>
using Parameter = std::tuple_element_t<Place, decltype(ParametersOf(std::declval<Shape*>()))>;

}  // namespace

// ---- The exports ----

// NOLINTBEGIN(readability-identifier-naming): the list gives the ends of these names.
// clang-format off
#define PARAMETER(shape, place) Parameter<shapes::shape, place>
#define EXPORT_0(name, shape) NvmlReturn name() { return shape(EntryPoint::name); }
#define EXPORT_1(name, shape) \
    auto name(PARAMETER(shape, 0) a) -> decltype(shape(EntryPoint::name, a)) { return shape(EntryPoint::name, a); }
#define EXPORT_2(name, shape) \
    NvmlReturn name(PARAMETER(shape, 0) a, PARAMETER(shape, 1) b) { return shape(EntryPoint::name, a, b); }
#define EXPORT_3(name, shape) \
    NvmlReturn name(PARAMETER(shape, 0) a, PARAMETER(shape, 1) b, PARAMETER(shape, 2) c) { \
        return shape(EntryPoint::name, a, b, c); \
    }
#define EXPORT_4(name, shape) \
    NvmlReturn name(PARAMETER(shape, 0) a, PARAMETER(shape, 1) b, PARAMETER(shape, 2) c, PARAMETER(shape, 3) d) { \
        return shape(EntryPoint::name, a, b, c, d); \
    }
// How many parameters each shape has.
#define EXPORT_Init EXPORT_0
#define EXPORT_FlaggedInit EXPORT_1
#define EXPORT_Shutdown EXPORT_0
#define EXPORT_ErrorText EXPORT_1
#define EXPORT_SystemText EXPORT_2
#define EXPORT_SystemValue EXPORT_1
#define EXPORT_Handle EXPORT_2
#define EXPORT_NamedHandle EXPORT_2
#define EXPORT_Text EXPORT_3
#define EXPORT_Pci EXPORT_2
#define EXPORT_Value EXPORT_2
#define EXPORT_LongValue EXPORT_2
#define EXPORT_Selected EXPORT_3
#define EXPORT_Clock EXPORT_4
#define EXPORT_Pair EXPORT_3
#define EXPORT_Memory EXPORT_2
#define EXPORT_VersionedMemory EXPORT_2
#define EXPORT_Utilization EXPORT_2
#define EXPORT_MemoryClocks EXPORT_3
#define EXPORT_GraphicsClocks EXPORT_4
#define EXPORT_Processes EXPORT_3
#define EXPORT_ProcessUtilization EXPORT_4
#define EXPORT_Lock EXPORT_3
#define EXPORT_Reset EXPORT_1
#define EXPORT_SetLimit EXPORT_2
#define EXPORT_Unsupported EXPORT_1
// clang-format on

#define EXPORT(name, shape) EXPORT_##shape(name, shape)
SIMULATED_NVML_ENTRY_POINTS(EXPORT)
// NOLINTEND(readability-identifier-naming)

extern "C" {
/// Lets a program see that the library it has loaded is the simulator.
extern SIMULATED_NVML_EXPORT const bool kSimulatedNvml;
const bool kSimulatedNvml = true;
}
