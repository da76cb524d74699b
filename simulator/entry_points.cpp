// What the library exports: a function for each name of the list, made from the shape of its call. Each shape has one
// function here that answers for all its names from the board.

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "engine.h"

using namespace simulated_nvml;  // NOLINT(google-build-using-namespace): the exports are in no namespace

namespace {

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
        case EntryPoint::nvmlDeviceGetArchitecture: return board.Architecture;
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
        case EntryPoint::nvmlDeviceGetMaxClockInfo: return MaxClockOf(board.Clocks.front(), selector);
        default: return ClockOf(selector, now.GraphicsMHz, now.SmMHz, now.MemoryMHz, now.VideoMHz);
    }
}

NvmlReturn Selected(EntryPoint name, NvmlDevice device, unsigned int selector, unsigned int* value) {
    return Nvml().DeviceCall(name, device, {selector}, {value}, [&](const BoardModel& board) {
        const bool bLacksClocks = name == EntryPoint::nvmlDeviceGetMaxClockInfo && board.Identity().Clocks.empty();
        return bLacksClocks ? kNotSupported : Store(value, SelectedOf(name, selector, board));
    });
}

NvmlReturn Count(EntryPoint name, unsigned int* count) {
    return Nvml().SystemCall(name, {}, {count}, [&] { return Store(count, Nvml().BoardCount()); });
}

// ---- Values that come together ----

std::pair<unsigned int, unsigned int> PairOf(EntryPoint name, const BoardModel& model) {
    constexpr unsigned int kSamplingPeriodMicroseconds = 167000;
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

NvmlReturn Mask(EntryPoint name, NvmlDevice device, unsigned long long* reasons) {
    return Nvml().DeviceCall(name, device, {}, {reasons}, [&](const BoardModel& board) {
        *reasons = board.Now().LimitReasons;
        return kSuccess;
    });
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
        default: return board.VbiosVersion;
    }
}

NvmlReturn SystemText(EntryPoint name, char* text, unsigned int size) {
    return Nvml().SystemCall(name, {size}, {text, nullptr, size}, [&] { return StoreText(text, size, "550.120"); });
}

NvmlReturn Text(EntryPoint name, NvmlDevice device, char* text, unsigned int size) {
    return Nvml().DeviceCall(name, device, {size}, {text, nullptr, size}, [&](const BoardModel& board) {
        return StoreText(text, size, TextOf(name, board.Identity()));
    });
}

NvmlReturn Pci(EntryPoint name, NvmlDevice device, PciRecord* pci) {
    return Nvml().DeviceCall(name, device, {}, {pci}, [&](const BoardModel& model) {
        const Board& board = model.Identity();
        *pci = PciRecord{};
        FillField(pci->BusIdLegacy, board.BusIdLegacy);
        FillField(pci->BusId, board.BusId);
        pci->Bus = board.PciBus;
        pci->DeviceAndVendorId = board.PciDeviceId;
        pci->SubSystemId = board.PciSubSystemId;
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

/// Which list a query gives: its newer and older names give the same list, with the same records.
const std::vector<Process>& ProcessesOf(EntryPoint name, const Readings& now) {
    switch (name) {
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses_v3:
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses_v2:
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses: return now.ComputeProcesses;
        default: return now.GraphicsProcesses;
    }
}

NvmlReturn Processes(EntryPoint name, NvmlDevice device, unsigned int* count, ProcessRecord* output) {
    return Nvml().DeviceCall(name, device, {RoomArgument(count)}, {count, output}, [&](const BoardModel& board) {
        const size_t recordBytes = Nvml().Rules.ProcessRecordBytes;
        auto* bytes = reinterpret_cast<unsigned char*>(output);
        const auto write = [bytes, recordBytes](size_t i, const Process& process) {
            constexpr uint32_t kNoInstance = UINT32_MAX;
            const ProcessRecord record = {process.Pid, process.UsedBytes, kNoInstance, kNoInstance};
            std::memset(bytes + i * recordBytes, 0, recordBytes);
            std::memcpy(bytes + i * recordBytes, &record, sizeof record);
        };
        return StoreList(name, ProcessesOf(name, board.Now()), count, write);
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
    return Nvml().Initialize(name);
}

NvmlReturn Shutdown(EntryPoint) {
    return Nvml().Shutdown();
}

NvmlReturn Handle(EntryPoint name, unsigned int index, NvmlDevice* device) {
    return Nvml().HandleCall(name, index, device);
}

}  // namespace

// ---- The exports ----

// NOLINTBEGIN(readability-identifier-naming): the list gives the ends of these names.
// clang-format off
#define EXPORT_Init(name) NvmlReturn name() { return Init(EntryPoint::name); }
#define EXPORT_Shutdown(name) NvmlReturn name() { return Shutdown(EntryPoint::name); }
#define EXPORT_ErrorText(name) const char* name(NvmlReturn result) { return ErrorText(EntryPoint::name, result); }
#define EXPORT_SystemText(name) \
    NvmlReturn name(char* text, unsigned int size) { return SystemText(EntryPoint::name, text, size); }
#define EXPORT_Count(name) NvmlReturn name(unsigned int* count) { return Count(EntryPoint::name, count); }
#define EXPORT_Handle(name) \
    NvmlReturn name(unsigned int index, NvmlDevice* device) { return Handle(EntryPoint::name, index, device); }
#define EXPORT_DeviceCall(name, shape, type) \
    NvmlReturn name(NvmlDevice device, type output) { return shape(EntryPoint::name, device, output); }
#define EXPORT_Pci(name) EXPORT_DeviceCall(name, Pci, PciRecord*)
#define EXPORT_Value(name) EXPORT_DeviceCall(name, Value, unsigned int*)
#define EXPORT_Mask(name) EXPORT_DeviceCall(name, Mask, unsigned long long*)
#define EXPORT_Memory(name) EXPORT_DeviceCall(name, Memory, MemoryRecord*)
#define EXPORT_Utilization(name) EXPORT_DeviceCall(name, Utilization, UtilizationRecord*)
#define EXPORT_SetLimit(name) EXPORT_DeviceCall(name, SetLimit, unsigned int)
#define EXPORT_Reset(name) NvmlReturn name(NvmlDevice device) { return Reset(EntryPoint::name, device); }
#define EXPORT_DeviceCall2(name, shape, type1, type2) \
    NvmlReturn name(NvmlDevice device, type1 a, type2 b) { return shape(EntryPoint::name, device, a, b); }
#define EXPORT_Text(name) EXPORT_DeviceCall2(name, Text, char*, unsigned int)
#define EXPORT_Selected(name) EXPORT_DeviceCall2(name, Selected, unsigned int, unsigned int*)
#define EXPORT_Pair(name) EXPORT_DeviceCall2(name, Pair, unsigned int*, unsigned int*)
#define EXPORT_MemoryClocks(name) EXPORT_DeviceCall2(name, MemoryClocks, unsigned int*, unsigned int*)
#define EXPORT_Processes(name) EXPORT_DeviceCall2(name, Processes, unsigned int*, ProcessRecord*)
#define EXPORT_Lock(name) EXPORT_DeviceCall2(name, Lock, unsigned int, unsigned int)
#define EXPORT_GraphicsClocks(name) \
    NvmlReturn name(NvmlDevice device, unsigned int memory, unsigned int* count, unsigned int* clocks) { \
        return GraphicsClocks(EntryPoint::name, device, memory, count, clocks); \
    }
// clang-format on

#define EXPORT(name, shape) EXPORT_##shape(name)
SIMULATED_NVML_ENTRY_POINTS(EXPORT)
// NOLINTEND(readability-identifier-naming)

extern "C" {
/// Lets a program see that the library it has loaded is the simulator.
extern SIMULATED_NVML_EXPORT const bool kSimulatedNvml;
const bool kSimulatedNvml = true;
}
