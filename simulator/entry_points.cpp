// What the library exports: NVML's functions, each answered by the engine. nvml_abi.h declares them.

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "engine.h"

using namespace simulated_nvml;  // NOLINT(google-build-using-namespace): the exports themselves stand in no namespace

namespace {

using Milliwatts = unsigned int;

Engine& Nvml() {
    return Engine::Get();
}

// ---- Answers of one value ----

NvmlReturn Store(unsigned int* output, unsigned int value) {
    if (output == nullptr) return kInvalidArgument;
    *output = value;
    return kSuccess;
}

NvmlReturn StorePair(unsigned int* first, unsigned int firstValue, unsigned int* second, unsigned int secondValue) {
    if (first == nullptr || second == nullptr) return kInvalidArgument;
    *first = firstValue;
    *second = secondValue;
    return kSuccess;
}

NvmlReturn StoreText(char* output, unsigned int size, const std::string& text) {
    if (output == nullptr) return kInvalidArgument;
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

/// A query that tells one of the board's present readings.
NvmlReturn ReadingCall(EntryPoint name, NvmlDevice device, unsigned int* output, unsigned int Readings::*reading) {
    return Nvml().DeviceCall(name, device, {}, {output},
                             [&](const BoardModel& board) { return Store(output, board.Now().*reading); });
}

/// A query that tells one fixed fact of the board.
NvmlReturn FactCall(EntryPoint name, NvmlDevice device, unsigned int* output, unsigned int Board::*fact) {
    return Nvml().DeviceCall(name, device, {}, {output},
                             [&](const BoardModel& board) { return Store(output, board.Identity().*fact); });
}

NvmlReturn TextCall(EntryPoint name, NvmlDevice device, char* output, unsigned int size, std::string Board::*text) {
    return Nvml().DeviceCall(name, device, {size}, {output, nullptr, size},
                             [&](const BoardModel& board) { return StoreText(output, size, board.Identity().*text); });
}

NvmlReturn MemoryCall(EntryPoint name, NvmlDevice device, MemoryRecord* output, uint64_t Board::*total,
                      uint64_t Readings::*used) {
    return Nvml().DeviceCall(name, device, {}, {output}, [&](const BoardModel& board) {
        if (output == nullptr) return kInvalidArgument;
        const uint64_t totalBytes = board.Identity().*total;
        const uint64_t usedBytes = std::min(board.Now().*used, totalBytes);
        *output = {totalBytes, totalBytes - usedBytes, usedBytes};
        return kSuccess;
    });
}

NvmlReturn CoderCall(EntryPoint name, NvmlDevice device, unsigned int* percent, unsigned int* periodMicroseconds,
                     unsigned int Readings::*reading) {
    constexpr unsigned int kSamplingPeriodMicroseconds = 167000;
    return Nvml().DeviceCall(name, device, {}, {percent, periodMicroseconds}, [&](const BoardModel& board) {
        return StorePair(percent, board.Now().*reading, periodMicroseconds, kSamplingPeriodMicroseconds);
    });
}

/// The limit that was set is also the one in force: no simulated board enforces a lower one by itself.
NvmlReturn PowerLimitCall(EntryPoint name, NvmlDevice device, Milliwatts* limit) {
    return Nvml().DeviceCall(name, device, {}, {limit},
                             [&](const BoardModel& board) { return Store(limit, board.PowerLimitMilliwatts()); });
}

// ---- Answers that are lists ----

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
NvmlReturn ListCall(EntryPoint name, const std::vector<Entry>& entries, unsigned int* count, const void* output,
                    Write write) {
    if (count == nullptr) return kInvalidArgument;
    const unsigned int room = *count;
    if (room != 0 && output == nullptr) return kInvalidArgument;
    const size_t listed = ListedEntries(name, entries.size(), room == 0);
    *count = static_cast<unsigned int>(listed);
    if (listed > room) return kInsufficientSize;
    for (size_t i = 0; i < listed; ++i) {
        write(i, i < entries.size() ? entries[i] : entries.empty() ? Entry{} : entries.back());
    }
    return kSuccess;
}

NvmlReturn ClockListCall(EntryPoint name, const std::vector<unsigned int>& clocks, unsigned int* count,
                         unsigned int* output) {
    return ListCall(name, clocks, count, output, [output](size_t i, unsigned int clock) { output[i] = clock; });
}

std::optional<uint64_t> RoomArgument(const unsigned int* count) {
    return count != nullptr ? std::optional<uint64_t>(*count) : std::nullopt;
}

NvmlReturn ProcessesCall(EntryPoint name, NvmlDevice device, unsigned int* count, ProcessRecord* output,
                         std::vector<Process> Readings::*processes) {
    return Nvml().DeviceCall(name, device, {RoomArgument(count)}, {count, output}, [&](const BoardModel& board) {
        const size_t recordBytes = Nvml().Rules.ProcessRecordBytes;
        auto* bytes = reinterpret_cast<unsigned char*>(output);
        const auto write = [bytes, recordBytes](size_t i, const Process& process) {
            constexpr uint32_t kNoInstance = UINT32_MAX;
            const ProcessRecord record = {process.Pid, process.UsedBytes, kNoInstance, kNoInstance};
            std::memset(bytes + i * recordBytes, 0, recordBytes);
            std::memcpy(bytes + i * recordBytes, &record, sizeof record);
        };
        return ListCall(name, board.Now().*processes, count, output, write);
    });
}

// ---- Clocks ----

std::optional<unsigned int> ClockOf(unsigned int type, unsigned int graphics, unsigned int sm, unsigned int memory,
                                    unsigned int video) {
    switch (type) {
        case kClockGraphics: return graphics;
        case kClockSm: return sm;
        case kClockMemory: return memory;
        case kClockVideo: return video;
        default: return std::nullopt;
    }
}

NvmlReturn StoreClock(unsigned int* output, std::optional<unsigned int> clock) {
    return clock.has_value() ? Store(output, *clock) : kInvalidArgument;
}

// ---- Changes ----

using ClockLock = std::optional<ClockRange> BoardSettings::*;

NvmlReturn ChangeCall(EntryPoint name, NvmlDevice device, Arguments arguments, const SettingsEdit& edit) {
    return Nvml().DeviceCall(name, device, arguments, {},
                             [&](BoardModel& board) { return Nvml().Change(&board, edit); });
}

NvmlReturn LockCall(EntryPoint name, NvmlDevice device, unsigned int lowest, unsigned int highest, ClockLock lock) {
    return ChangeCall(name, device, {lowest, highest}, [&](const Board&, BoardSettings* settings) {
        const ClockRange range{lowest, highest};
        if (!IsSensible(range)) return kInvalidArgument;
        settings->*lock = range;
        return kSuccess;
    });
}

NvmlReturn UnlockCall(EntryPoint name, NvmlDevice device, ClockLock lock) {
    return ChangeCall(name, device, {}, [&](const Board&, BoardSettings* settings) {
        settings->*lock = std::nullopt;
        return kSuccess;
    });
}

NvmlReturn CountCall(EntryPoint name, unsigned int* count) {
    return Nvml().SystemCall(name, {}, {count}, [&] { return Store(count, Nvml().BoardCount()); });
}

}  // namespace

// ---- The library ----

NvmlReturn nvmlInit_v2() {
    return Nvml().Initialize(EntryPoint::nvmlInit_v2);
}

NvmlReturn nvmlInit() {
    return Nvml().Initialize(EntryPoint::nvmlInit);
}

NvmlReturn nvmlShutdown() {
    return Nvml().Shutdown();
}

const char* nvmlErrorString(NvmlReturn result) {
    Nvml().NoteTextCall(EntryPoint::nvmlErrorString);
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

NvmlReturn nvmlSystemGetDriverVersion(char* version, unsigned int size) {
    return Nvml().SystemCall(EntryPoint::nvmlSystemGetDriverVersion, {size}, {version, nullptr, size},
                             [&] { return StoreText(version, size, "550.120"); });
}

NvmlReturn nvmlDeviceGetCount_v2(unsigned int* count) {
    return CountCall(EntryPoint::nvmlDeviceGetCount_v2, count);
}

NvmlReturn nvmlDeviceGetCount(unsigned int* count) {
    return CountCall(EntryPoint::nvmlDeviceGetCount, count);
}

NvmlReturn nvmlDeviceGetHandleByIndex_v2(unsigned int index, NvmlDevice* device) {
    return Nvml().HandleCall(EntryPoint::nvmlDeviceGetHandleByIndex_v2, index, device);
}

NvmlReturn nvmlDeviceGetHandleByIndex(unsigned int index, NvmlDevice* device) {
    return Nvml().HandleCall(EntryPoint::nvmlDeviceGetHandleByIndex, index, device);
}

// ---- Identity ----

NvmlReturn nvmlDeviceGetName(NvmlDevice device, char* name, unsigned int size) {
    return TextCall(EntryPoint::nvmlDeviceGetName, device, name, size, &Board::Name);
}

NvmlReturn nvmlDeviceGetUUID(NvmlDevice device, char* uuid, unsigned int size) {
    return TextCall(EntryPoint::nvmlDeviceGetUUID, device, uuid, size, &Board::Uuid);
}

NvmlReturn nvmlDeviceGetVbiosVersion(NvmlDevice device, char* version, unsigned int size) {
    return TextCall(EntryPoint::nvmlDeviceGetVbiosVersion, device, version, size, &Board::VbiosVersion);
}

NvmlReturn nvmlDeviceGetPciInfo_v3(NvmlDevice device, PciRecord* pci) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetPciInfo_v3, device, {}, {pci}, [&](const BoardModel& model) {
        if (pci == nullptr) return kInvalidArgument;
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

NvmlReturn nvmlDeviceGetArchitecture(NvmlDevice device, unsigned int* architecture) {
    return FactCall(EntryPoint::nvmlDeviceGetArchitecture, device, architecture, &Board::Architecture);
}

// ---- Readings ----

NvmlReturn nvmlDeviceGetBAR1MemoryInfo(NvmlDevice device, MemoryRecord* memory) {
    return MemoryCall(EntryPoint::nvmlDeviceGetBAR1MemoryInfo, device, memory, &Board::Bar1TotalBytes,
                      &Readings::Bar1UsedBytes);
}

NvmlReturn nvmlDeviceGetMemoryInfo(NvmlDevice device, MemoryRecord* memory) {
    return MemoryCall(EntryPoint::nvmlDeviceGetMemoryInfo, device, memory, &Board::VramTotalBytes,
                      &Readings::VramUsedBytes);
}

NvmlReturn nvmlDeviceGetTemperature(NvmlDevice device, unsigned int sensor, unsigned int* celsius) {
    return Nvml().DeviceCall(
        EntryPoint::nvmlDeviceGetTemperature, device, {sensor}, {celsius}, [&](const BoardModel& board) {
            return sensor == kSensorGpu ? Store(celsius, board.Now().TemperatureC) : kInvalidArgument;
        });
}

NvmlReturn nvmlDeviceGetTemperatureThreshold(NvmlDevice device, unsigned int threshold, unsigned int* celsius) {
    constexpr EntryPoint kName = EntryPoint::nvmlDeviceGetTemperatureThreshold;
    return Nvml().DeviceCall(kName, device, {threshold}, {celsius}, [&](const BoardModel& board) {
        switch (threshold) {
            case kThresholdShutdown: return Store(celsius, board.Identity().ShutdownTemperatureC);
            case kThresholdSlowdown: return Store(celsius, board.Identity().SlowdownTemperatureC);
            default: return kInvalidArgument;
        }
    });
}

NvmlReturn nvmlDeviceGetUtilizationRates(NvmlDevice device, UtilizationRecord* utilization) {
    constexpr EntryPoint kName = EntryPoint::nvmlDeviceGetUtilizationRates;
    uint32_t* const gpu = utilization != nullptr ? &utilization->GpuPercent : nullptr;
    uint32_t* const memory = utilization != nullptr ? &utilization->MemoryPercent : nullptr;
    return Nvml().DeviceCall(kName, device, {}, {gpu, memory}, [&](const BoardModel& board) {
        return StorePair(gpu, board.Now().GpuPercent, memory, board.Now().MemoryPercent);
    });
}

NvmlReturn nvmlDeviceGetEncoderUtilization(NvmlDevice device, unsigned int* percent, unsigned int* period) {
    return CoderCall(EntryPoint::nvmlDeviceGetEncoderUtilization, device, percent, period, &Readings::EncoderPercent);
}

NvmlReturn nvmlDeviceGetDecoderUtilization(NvmlDevice device, unsigned int* percent, unsigned int* period) {
    return CoderCall(EntryPoint::nvmlDeviceGetDecoderUtilization, device, percent, period, &Readings::DecoderPercent);
}

NvmlReturn nvmlDeviceGetFanSpeed(NvmlDevice device, unsigned int* percent) {
    return ReadingCall(EntryPoint::nvmlDeviceGetFanSpeed, device, percent, &Readings::FanPercent);
}

NvmlReturn nvmlDeviceGetClockInfo(NvmlDevice device, unsigned int type, unsigned int* megahertz) {
    return Nvml().DeviceCall(
        EntryPoint::nvmlDeviceGetClockInfo, device, {type}, {megahertz}, [&](const BoardModel& board) {
            const Readings& now = board.Now();
            return StoreClock(megahertz, ClockOf(type, now.GraphicsMHz, now.SmMHz, now.MemoryMHz, now.VideoMHz));
        });
}

NvmlReturn nvmlDeviceGetMaxClockInfo(NvmlDevice device, unsigned int type, unsigned int* megahertz) {
    return Nvml().DeviceCall(
        EntryPoint::nvmlDeviceGetMaxClockInfo, device, {type}, {megahertz}, [&](const BoardModel& board) {
            if (board.Identity().Clocks.empty()) return kNotSupported;
            const ClockGroup& fastest = board.Identity().Clocks.front();
            const unsigned int graphics = fastest.GraphicsMHz.front();
            return StoreClock(
                megahertz, ClockOf(type, graphics, graphics, fastest.MemoryMHz, BoardModel::VideoClockMHz(graphics)));
        });
}

NvmlReturn nvmlDeviceGetPerformanceState(NvmlDevice device, unsigned int* state) {
    return ReadingCall(EntryPoint::nvmlDeviceGetPerformanceState, device, state, &Readings::PerformanceState);
}

NvmlReturn nvmlDeviceGetPowerState(NvmlDevice device, unsigned int* state) {
    return ReadingCall(EntryPoint::nvmlDeviceGetPowerState, device, state, &Readings::PerformanceState);
}

NvmlReturn nvmlDeviceGetCurrPcieLinkGeneration(NvmlDevice device, unsigned int* generation) {
    return ReadingCall(EntryPoint::nvmlDeviceGetCurrPcieLinkGeneration, device, generation, &Readings::PcieGeneration);
}

NvmlReturn nvmlDeviceGetCurrPcieLinkWidth(NvmlDevice device, unsigned int* width) {
    return ReadingCall(EntryPoint::nvmlDeviceGetCurrPcieLinkWidth, device, width, &Readings::PcieWidth);
}

NvmlReturn nvmlDeviceGetMaxPcieLinkGeneration(NvmlDevice device, unsigned int* generation) {
    return FactCall(EntryPoint::nvmlDeviceGetMaxPcieLinkGeneration, device, generation, &Board::MaxPcieGeneration);
}

NvmlReturn nvmlDeviceGetMaxPcieLinkWidth(NvmlDevice device, unsigned int* width) {
    return FactCall(EntryPoint::nvmlDeviceGetMaxPcieLinkWidth, device, width, &Board::MaxPcieWidth);
}

NvmlReturn nvmlDeviceGetPcieThroughput(NvmlDevice device, unsigned int counter, unsigned int* kibPerSecond) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetPcieThroughput, device, {counter}, {kibPerSecond},
                             [&](const BoardModel& board) {
                                 if (counter == kPcieTransmit)
                                     return Store(kibPerSecond, board.Now().PcieTransmitKiBPerSecond);
                                 if (counter == kPcieReceive)
                                     return Store(kibPerSecond, board.Now().PcieReceiveKiBPerSecond);
                                 return kInvalidArgument;
                             });
}

NvmlReturn nvmlDeviceGetCurrentClocksThrottleReasons(NvmlDevice device, unsigned long long* reasons) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetCurrentClocksThrottleReasons, device, {}, {reasons},
                             [&](const BoardModel& board) {
                                 if (reasons == nullptr) return kInvalidArgument;
                                 *reasons = board.Now().LimitReasons;
                                 return kSuccess;
                             });
}

// ---- Power ----

NvmlReturn nvmlDeviceGetPowerUsage(NvmlDevice device, Milliwatts* usage) {
    return ReadingCall(EntryPoint::nvmlDeviceGetPowerUsage, device, usage, &Readings::PowerMilliwatts);
}

NvmlReturn nvmlDeviceGetEnforcedPowerLimit(NvmlDevice device, Milliwatts* limit) {
    return PowerLimitCall(EntryPoint::nvmlDeviceGetEnforcedPowerLimit, device, limit);
}

NvmlReturn nvmlDeviceGetPowerManagementLimit(NvmlDevice device, Milliwatts* limit) {
    return PowerLimitCall(EntryPoint::nvmlDeviceGetPowerManagementLimit, device, limit);
}

NvmlReturn nvmlDeviceGetPowerManagementDefaultLimit(NvmlDevice device, Milliwatts* limit) {
    return FactCall(EntryPoint::nvmlDeviceGetPowerManagementDefaultLimit, device, limit,
                    &Board::DefaultPowerLimitMilliwatts);
}

NvmlReturn nvmlDeviceGetPowerManagementLimitConstraints(NvmlDevice device, Milliwatts* minimum, Milliwatts* maximum) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetPowerManagementLimitConstraints, device, {}, {minimum, maximum},
                             [&](const BoardModel& board) {
                                 return StorePair(minimum, board.Identity().MinimumPowerLimitMilliwatts, maximum,
                                                  board.Identity().MaximumPowerLimitMilliwatts);
                             });
}

NvmlReturn nvmlDeviceSetPowerManagementLimit(NvmlDevice device, Milliwatts limit) {
    constexpr EntryPoint kName = EntryPoint::nvmlDeviceSetPowerManagementLimit;
    return ChangeCall(kName, device, {limit}, [&](const Board& board, BoardSettings* settings) {
        if (!AllowsPowerLimit(board, limit)) return kInvalidArgument;
        settings->PowerLimitMilliwatts = limit;
        return kSuccess;
    });
}

// ---- Clock lists and locks ----

NvmlReturn nvmlDeviceGetSupportedMemoryClocks(NvmlDevice device, unsigned int* count, unsigned int* clocks) {
    constexpr EntryPoint kName = EntryPoint::nvmlDeviceGetSupportedMemoryClocks;
    return Nvml().DeviceCall(kName, device, {RoomArgument(count)}, {count, clocks}, [&](const BoardModel& board) {
        std::vector<unsigned int> memoryClocks;
        for (const ClockGroup& group : board.Identity().Clocks) memoryClocks.push_back(group.MemoryMHz);
        return ClockListCall(kName, memoryClocks, count, clocks);
    });
}

NvmlReturn nvmlDeviceGetSupportedGraphicsClocks(NvmlDevice device, unsigned int memoryMHz, unsigned int* count,
                                                unsigned int* clocks) {
    constexpr EntryPoint kName = EntryPoint::nvmlDeviceGetSupportedGraphicsClocks;
    return Nvml().DeviceCall(kName, device, {memoryMHz, RoomArgument(count)}, {count, clocks},
                             [&](const BoardModel& board) {
                                 for (const ClockGroup& group : board.Identity().Clocks) {
                                     if (group.MemoryMHz == memoryMHz)
                                         return ClockListCall(kName, group.GraphicsMHz, count, clocks);
                                 }
                                 return kNotFound;
                             });
}

NvmlReturn nvmlDeviceSetGpuLockedClocks(NvmlDevice device, unsigned int lowest, unsigned int highest) {
    return LockCall(EntryPoint::nvmlDeviceSetGpuLockedClocks, device, lowest, highest, &BoardSettings::GraphicsLock);
}

NvmlReturn nvmlDeviceResetGpuLockedClocks(NvmlDevice device) {
    return UnlockCall(EntryPoint::nvmlDeviceResetGpuLockedClocks, device, &BoardSettings::GraphicsLock);
}

NvmlReturn nvmlDeviceSetMemoryLockedClocks(NvmlDevice device, unsigned int lowest, unsigned int highest) {
    return LockCall(EntryPoint::nvmlDeviceSetMemoryLockedClocks, device, lowest, highest, &BoardSettings::MemoryLock);
}

NvmlReturn nvmlDeviceResetMemoryLockedClocks(NvmlDevice device) {
    return UnlockCall(EntryPoint::nvmlDeviceResetMemoryLockedClocks, device, &BoardSettings::MemoryLock);
}

// ---- Processes: the same 24-byte records under every name ----

#define SIMULATED_NVML_PROCESS_QUERY(name, list)                                           \
    NvmlReturn name(NvmlDevice device, unsigned int* count, ProcessRecord* processes) {    \
        return ProcessesCall(EntryPoint::name, device, count, processes, &Readings::list); \
    }
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetComputeRunningProcesses_v3, ComputeProcesses)
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetComputeRunningProcesses_v2, ComputeProcesses)
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetComputeRunningProcesses, ComputeProcesses)
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetGraphicsRunningProcesses_v3, GraphicsProcesses)
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetGraphicsRunningProcesses_v2, GraphicsProcesses)
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetGraphicsRunningProcesses, GraphicsProcesses)
#undef SIMULATED_NVML_PROCESS_QUERY
