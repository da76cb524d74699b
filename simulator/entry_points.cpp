// What the library exports: NVML's functions, each answered by the engine.

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "engine.h"

#define NVML_EXPORT extern "C" SIMULATED_NVML_EXPORT

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
    if (Nvml().Wanted.bUnterminatedText) {
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
    std::memset(field, Nvml().Wanted.bUnterminatedText ? 'x' : '\0', Size);
    std::memcpy(field, text.data(), std::min(Size, text.size()));
}

/// A query that tells one of the board's present readings.
NvmlReturn ReadingCall(EntryPoint name, NvmlDevice device, unsigned int* output, unsigned int Readings::*reading) {
    return Nvml().DeviceCall(name, device, {},
                             [&](const BoardModel& board) { return Store(output, board.Now().*reading); });
}

/// A query that tells one fixed fact of the board.
NvmlReturn FactCall(EntryPoint name, NvmlDevice device, unsigned int* output, unsigned int Board::*fact) {
    return Nvml().DeviceCall(name, device, {},
                             [&](const BoardModel& board) { return Store(output, board.Identity().*fact); });
}

NvmlReturn TextCall(EntryPoint name, NvmlDevice device, char* output, unsigned int size, std::string Board::*text) {
    return Nvml().DeviceCall(name, device, {size},
                             [&](const BoardModel& board) { return StoreText(output, size, board.Identity().*text); });
}

NvmlReturn MemoryCall(EntryPoint name, NvmlDevice device, MemoryRecord* output, uint64_t Board::*total,
                      uint64_t Readings::*used) {
    return Nvml().DeviceCall(name, device, {}, [&](const BoardModel& board) {
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
    return Nvml().DeviceCall(name, device, {}, [&](const BoardModel& board) {
        return StorePair(percent, board.Now().*reading, periodMicroseconds, kSamplingPeriodMicroseconds);
    });
}

/// The limit that was set is also the one in force: no simulated board enforces a lower one by itself.
NvmlReturn PowerLimitCall(EntryPoint name, NvmlDevice device, Milliwatts* limit) {
    return Nvml().DeviceCall(name, device, {},
                             [&](const BoardModel& board) { return Store(limit, board.PowerLimitMilliwatts()); });
}

// ---- Answers that are lists ----

/// How many entries a list has for a caller that offers this room. The script can change it after a size query.
size_t ListedEntries(EntryPoint name, size_t entries, bool bSizeQuery) {
    const bool bSizeAsked = std::exchange(Nvml().Seen.SizeAsked[IndexOf(name)], bSizeQuery);
    if (bSizeQuery || !bSizeAsked) return entries;
    const int64_t changed = static_cast<int64_t>(entries) + Nvml().Wanted.ListChanges[IndexOf(name)];
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
    return Nvml().DeviceCall(name, device, {RoomArgument(count)}, [&](const BoardModel& board) {
        const size_t recordBytes = Nvml().Wanted.ProcessRecordBytes;
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
    return Nvml().DeviceCall(name, device, arguments, [&](BoardModel& board) { return Nvml().Change(&board, edit); });
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
    return Nvml().SystemCall(name, {}, [&] { return Store(count, Nvml().BoardCount()); });
}

NvmlReturn HandleCall(EntryPoint name, unsigned int index, NvmlDevice* device) {
    return Nvml().IndexCall(name, index, [&](NvmlDevice handle) {
        if (device == nullptr) return kInvalidArgument;
        *device = handle;
        return kSuccess;
    });
}

}  // namespace

// ---- The library ----

NVML_EXPORT NvmlReturn nvmlInit_v2() {
    return Nvml().Initialize(EntryPoint::nvmlInit_v2);
}

NVML_EXPORT NvmlReturn nvmlInit() {
    return Nvml().Initialize(EntryPoint::nvmlInit);
}

NVML_EXPORT NvmlReturn nvmlShutdown() {
    return Nvml().Shutdown();
}

NVML_EXPORT const char* nvmlErrorString(NvmlReturn result) {
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

NVML_EXPORT NvmlReturn nvmlSystemGetDriverVersion(char* version, unsigned int size) {
    return Nvml().SystemCall(EntryPoint::nvmlSystemGetDriverVersion, {size},
                             [&] { return StoreText(version, size, "550.120"); });
}

NVML_EXPORT NvmlReturn nvmlDeviceGetCount_v2(unsigned int* count) {
    return CountCall(EntryPoint::nvmlDeviceGetCount_v2, count);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetCount(unsigned int* count) {
    return CountCall(EntryPoint::nvmlDeviceGetCount, count);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetHandleByIndex_v2(unsigned int index, NvmlDevice* device) {
    return HandleCall(EntryPoint::nvmlDeviceGetHandleByIndex_v2, index, device);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetHandleByIndex(unsigned int index, NvmlDevice* device) {
    return HandleCall(EntryPoint::nvmlDeviceGetHandleByIndex, index, device);
}

// ---- Identity ----

NVML_EXPORT NvmlReturn nvmlDeviceGetName(NvmlDevice device, char* name, unsigned int size) {
    return TextCall(EntryPoint::nvmlDeviceGetName, device, name, size, &Board::Name);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetUUID(NvmlDevice device, char* uuid, unsigned int size) {
    return TextCall(EntryPoint::nvmlDeviceGetUUID, device, uuid, size, &Board::Uuid);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetVbiosVersion(NvmlDevice device, char* version, unsigned int size) {
    return TextCall(EntryPoint::nvmlDeviceGetVbiosVersion, device, version, size, &Board::VbiosVersion);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetPciInfo_v3(NvmlDevice device, PciRecord* pci) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetPciInfo_v3, device, {}, [&](const BoardModel& model) {
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

NVML_EXPORT NvmlReturn nvmlDeviceGetArchitecture(NvmlDevice device, unsigned int* architecture) {
    return FactCall(EntryPoint::nvmlDeviceGetArchitecture, device, architecture, &Board::Architecture);
}

// ---- Readings ----

NVML_EXPORT NvmlReturn nvmlDeviceGetBAR1MemoryInfo(NvmlDevice device, MemoryRecord* memory) {
    return MemoryCall(EntryPoint::nvmlDeviceGetBAR1MemoryInfo, device, memory, &Board::Bar1TotalBytes,
                      &Readings::Bar1UsedBytes);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetMemoryInfo(NvmlDevice device, MemoryRecord* memory) {
    return MemoryCall(EntryPoint::nvmlDeviceGetMemoryInfo, device, memory, &Board::VramTotalBytes,
                      &Readings::VramUsedBytes);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetTemperature(NvmlDevice device, unsigned int sensor, unsigned int* celsius) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetTemperature, device, {sensor}, [&](const BoardModel& board) {
        return sensor == kSensorGpu ? Store(celsius, board.Now().TemperatureC) : kInvalidArgument;
    });
}

NVML_EXPORT NvmlReturn nvmlDeviceGetTemperatureThreshold(NvmlDevice device, unsigned int threshold,
                                                         unsigned int* celsius) {
    constexpr EntryPoint kName = EntryPoint::nvmlDeviceGetTemperatureThreshold;
    return Nvml().DeviceCall(kName, device, {threshold}, [&](const BoardModel& board) {
        switch (threshold) {
            case kThresholdShutdown: return Store(celsius, board.Identity().ShutdownTemperatureC);
            case kThresholdSlowdown: return Store(celsius, board.Identity().SlowdownTemperatureC);
            default: return kInvalidArgument;
        }
    });
}

NVML_EXPORT NvmlReturn nvmlDeviceGetUtilizationRates(NvmlDevice device, UtilizationRecord* utilization) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetUtilizationRates, device, {}, [&](const BoardModel& board) {
        if (utilization == nullptr) return kInvalidArgument;
        *utilization = {board.Now().GpuPercent, board.Now().MemoryPercent};
        return kSuccess;
    });
}

NVML_EXPORT NvmlReturn nvmlDeviceGetEncoderUtilization(NvmlDevice device, unsigned int* percent, unsigned int* period) {
    return CoderCall(EntryPoint::nvmlDeviceGetEncoderUtilization, device, percent, period, &Readings::EncoderPercent);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetDecoderUtilization(NvmlDevice device, unsigned int* percent, unsigned int* period) {
    return CoderCall(EntryPoint::nvmlDeviceGetDecoderUtilization, device, percent, period, &Readings::DecoderPercent);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetFanSpeed(NvmlDevice device, unsigned int* percent) {
    return ReadingCall(EntryPoint::nvmlDeviceGetFanSpeed, device, percent, &Readings::FanPercent);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetClockInfo(NvmlDevice device, unsigned int type, unsigned int* megahertz) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetClockInfo, device, {type}, [&](const BoardModel& board) {
        const Readings& now = board.Now();
        return StoreClock(megahertz, ClockOf(type, now.GraphicsMHz, now.SmMHz, now.MemoryMHz, now.VideoMHz));
    });
}

NVML_EXPORT NvmlReturn nvmlDeviceGetMaxClockInfo(NvmlDevice device, unsigned int type, unsigned int* megahertz) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetMaxClockInfo, device, {type}, [&](const BoardModel& board) {
        if (board.Identity().Clocks.empty()) return kNotSupported;
        const ClockGroup& fastest = board.Identity().Clocks.front();
        const unsigned int graphics = fastest.GraphicsMHz.front();
        return StoreClock(megahertz,
                          ClockOf(type, graphics, graphics, fastest.MemoryMHz, BoardModel::VideoClockMHz(graphics)));
    });
}

NVML_EXPORT NvmlReturn nvmlDeviceGetPerformanceState(NvmlDevice device, unsigned int* state) {
    return ReadingCall(EntryPoint::nvmlDeviceGetPerformanceState, device, state, &Readings::PerformanceState);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetPowerState(NvmlDevice device, unsigned int* state) {
    return ReadingCall(EntryPoint::nvmlDeviceGetPowerState, device, state, &Readings::PerformanceState);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetCurrPcieLinkGeneration(NvmlDevice device, unsigned int* generation) {
    return ReadingCall(EntryPoint::nvmlDeviceGetCurrPcieLinkGeneration, device, generation, &Readings::PcieGeneration);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetCurrPcieLinkWidth(NvmlDevice device, unsigned int* width) {
    return ReadingCall(EntryPoint::nvmlDeviceGetCurrPcieLinkWidth, device, width, &Readings::PcieWidth);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetMaxPcieLinkGeneration(NvmlDevice device, unsigned int* generation) {
    return FactCall(EntryPoint::nvmlDeviceGetMaxPcieLinkGeneration, device, generation, &Board::MaxPcieGeneration);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetMaxPcieLinkWidth(NvmlDevice device, unsigned int* width) {
    return FactCall(EntryPoint::nvmlDeviceGetMaxPcieLinkWidth, device, width, &Board::MaxPcieWidth);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetPcieThroughput(NvmlDevice device, unsigned int counter,
                                                   unsigned int* kibPerSecond) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetPcieThroughput, device, {counter}, [&](const BoardModel& board) {
        if (counter == kPcieTransmit) return Store(kibPerSecond, board.Now().PcieTransmitKiBPerSecond);
        if (counter == kPcieReceive) return Store(kibPerSecond, board.Now().PcieReceiveKiBPerSecond);
        return kInvalidArgument;
    });
}

NVML_EXPORT NvmlReturn nvmlDeviceGetCurrentClocksThrottleReasons(NvmlDevice device, unsigned long long* reasons) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetCurrentClocksThrottleReasons, device, {},
                             [&](const BoardModel& board) {
                                 if (reasons == nullptr) return kInvalidArgument;
                                 *reasons = board.Now().LimitReasons;
                                 return kSuccess;
                             });
}

// ---- Power ----

NVML_EXPORT NvmlReturn nvmlDeviceGetPowerUsage(NvmlDevice device, Milliwatts* usage) {
    return ReadingCall(EntryPoint::nvmlDeviceGetPowerUsage, device, usage, &Readings::PowerMilliwatts);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetEnforcedPowerLimit(NvmlDevice device, Milliwatts* limit) {
    return PowerLimitCall(EntryPoint::nvmlDeviceGetEnforcedPowerLimit, device, limit);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetPowerManagementLimit(NvmlDevice device, Milliwatts* limit) {
    return PowerLimitCall(EntryPoint::nvmlDeviceGetPowerManagementLimit, device, limit);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetPowerManagementDefaultLimit(NvmlDevice device, Milliwatts* limit) {
    return FactCall(EntryPoint::nvmlDeviceGetPowerManagementDefaultLimit, device, limit,
                    &Board::DefaultPowerLimitMilliwatts);
}

NVML_EXPORT NvmlReturn nvmlDeviceGetPowerManagementLimitConstraints(NvmlDevice device, Milliwatts* minimum,
                                                                    Milliwatts* maximum) {
    return Nvml().DeviceCall(EntryPoint::nvmlDeviceGetPowerManagementLimitConstraints, device, {},
                             [&](const BoardModel& board) {
                                 return StorePair(minimum, board.Identity().MinimumPowerLimitMilliwatts, maximum,
                                                  board.Identity().MaximumPowerLimitMilliwatts);
                             });
}

NVML_EXPORT NvmlReturn nvmlDeviceSetPowerManagementLimit(NvmlDevice device, Milliwatts limit) {
    constexpr EntryPoint kName = EntryPoint::nvmlDeviceSetPowerManagementLimit;
    return ChangeCall(kName, device, {limit}, [&](const Board& board, BoardSettings* settings) {
        if (!AllowsPowerLimit(board, limit)) return kInvalidArgument;
        settings->PowerLimitMilliwatts = limit;
        return kSuccess;
    });
}

// ---- Clock lists and locks ----

NVML_EXPORT NvmlReturn nvmlDeviceGetSupportedMemoryClocks(NvmlDevice device, unsigned int* count,
                                                          unsigned int* clocks) {
    constexpr EntryPoint kName = EntryPoint::nvmlDeviceGetSupportedMemoryClocks;
    return Nvml().DeviceCall(kName, device, {RoomArgument(count)}, [&](const BoardModel& board) {
        std::vector<unsigned int> memoryClocks;
        for (const ClockGroup& group : board.Identity().Clocks) memoryClocks.push_back(group.MemoryMHz);
        return ClockListCall(kName, memoryClocks, count, clocks);
    });
}

NVML_EXPORT NvmlReturn nvmlDeviceGetSupportedGraphicsClocks(NvmlDevice device, unsigned int memoryMHz,
                                                            unsigned int* count, unsigned int* clocks) {
    constexpr EntryPoint kName = EntryPoint::nvmlDeviceGetSupportedGraphicsClocks;
    return Nvml().DeviceCall(kName, device, {memoryMHz, RoomArgument(count)}, [&](const BoardModel& board) {
        for (const ClockGroup& group : board.Identity().Clocks) {
            if (group.MemoryMHz == memoryMHz) return ClockListCall(kName, group.GraphicsMHz, count, clocks);
        }
        return kNotFound;
    });
}

NVML_EXPORT NvmlReturn nvmlDeviceSetGpuLockedClocks(NvmlDevice device, unsigned int lowest, unsigned int highest) {
    return LockCall(EntryPoint::nvmlDeviceSetGpuLockedClocks, device, lowest, highest, &BoardSettings::GraphicsLock);
}

NVML_EXPORT NvmlReturn nvmlDeviceResetGpuLockedClocks(NvmlDevice device) {
    return UnlockCall(EntryPoint::nvmlDeviceResetGpuLockedClocks, device, &BoardSettings::GraphicsLock);
}

NVML_EXPORT NvmlReturn nvmlDeviceSetMemoryLockedClocks(NvmlDevice device, unsigned int lowest, unsigned int highest) {
    return LockCall(EntryPoint::nvmlDeviceSetMemoryLockedClocks, device, lowest, highest, &BoardSettings::MemoryLock);
}

NVML_EXPORT NvmlReturn nvmlDeviceResetMemoryLockedClocks(NvmlDevice device) {
    return UnlockCall(EntryPoint::nvmlDeviceResetMemoryLockedClocks, device, &BoardSettings::MemoryLock);
}

// ---- Processes: the same 24-byte records under every name ----

#define SIMULATED_NVML_PROCESS_QUERY(name, list)                                                    \
    NVML_EXPORT NvmlReturn name(NvmlDevice device, unsigned int* count, ProcessRecord* processes) { \
        return ProcessesCall(EntryPoint::name, device, count, processes, &Readings::list);          \
    }
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetComputeRunningProcesses_v3, ComputeProcesses)
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetComputeRunningProcesses_v2, ComputeProcesses)
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetComputeRunningProcesses, ComputeProcesses)
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetGraphicsRunningProcesses_v3, GraphicsProcesses)
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetGraphicsRunningProcesses_v2, GraphicsProcesses)
SIMULATED_NVML_PROCESS_QUERY(nvmlDeviceGetGraphicsRunningProcesses, GraphicsProcesses)
#undef SIMULATED_NVML_PROCESS_QUERY
