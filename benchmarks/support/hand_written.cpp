#include "hand_written.h"

#include <dlfcn.h>

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "gpu_profiler.h"
#include "nvml_calls.h"

namespace {

constexpr size_t kMostSamples = 6000;

template <typename Fn>
Fn* Find(void* library, const char* name, Fn* /*type*/) {
    return reinterpret_cast<Fn*>(dlsym(library, name));
}

// What is looked up has the type of what the linker would have bound.
#define FIND(library, name) Find(library, #name, &(name))

template <typename Fn, typename... Arguments>
bool Ok(Fn* query, Arguments... arguments) {
    return query != nullptr && query(arguments...) == 0;
}

double Now() {
    return static_cast<double>(std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count()) /
           1e9;
}

double FrameTime() {
    GPUProfiler::FrameSnapshot frame{};
    if (!GPUProfiler::Get()->GetLatestSnapshot(&frame) || frame.GpuFrameTimeMs <= 0.0) return -1.0;
    return frame.GpuFrameTimeMs;
}

/// One sample, straight on. `query(name, entryPoint)` gives what is called for an entry point: what is looked up by its
/// name, or itself.
template <typename Query>
bool ReadSample(unsigned int index, Query query, GpuTelemetrySample* sample) {
#define QUERY(name) query(#name, &(name))
    *sample = GpuTelemetrySample{};
    NvmlDevice device = nullptr;
    const auto handle = QUERY(nvmlDeviceGetHandleByIndex_v2);
    if (!Ok(handle, index, &device) || device == nullptr) return false;
    sample->TimestampSeconds = Now();
    sample->FrameTimeMs = FrameTime();

    const auto temperature = QUERY(nvmlDeviceGetTemperature);
    const auto utilization = QUERY(nvmlDeviceGetUtilizationRates);
    const auto memory = QUERY(nvmlDeviceGetMemoryInfo);
    const auto power = QUERY(nvmlDeviceGetPowerUsage);
    const auto fan = QUERY(nvmlDeviceGetFanSpeed);
    const auto clock = QUERY(nvmlDeviceGetClockInfo);
    const auto state = QUERY(nvmlDeviceGetPerformanceState);
    const auto encoder = QUERY(nvmlDeviceGetEncoderUtilization);
    const auto decoder = QUERY(nvmlDeviceGetDecoderUtilization);
    const auto bar1 = QUERY(nvmlDeviceGetBAR1MemoryInfo);
    const auto generation = QUERY(nvmlDeviceGetCurrPcieLinkGeneration);
    const auto width = QUERY(nvmlDeviceGetCurrPcieLinkWidth);
    const auto throughput = QUERY(nvmlDeviceGetPcieThroughput);
    const auto reasons = QUERY(nvmlDeviceGetCurrentClocksThrottleReasons);

    unsigned int value = 0;
    unsigned int second = 0;
    UtilizationRecord rates{};
    MemoryRecord bytes{};
    unsigned long long mask = 0;
    if (Ok(temperature, device, 0U, &value)) sample->TemperatureC = static_cast<int>(value);
    if (Ok(utilization, device, &rates)) {
        sample->GpuUtilizationPercent = static_cast<int>(rates.GpuPercent);
        sample->MemoryUtilizationPercent = static_cast<int>(rates.MemoryPercent);
    }
    if (Ok(memory, device, &bytes)) {
        sample->VramUsedBytes = bytes.UsedBytes;
        sample->VramTotalBytes = bytes.TotalBytes;
    }
    if (Ok(power, device, &value)) sample->PowerWatts = value / 1000.0;
    const auto enforced = QUERY(nvmlDeviceGetEnforcedPowerLimit);
    const auto configured = QUERY(nvmlDeviceGetPowerManagementLimit);
    if (Ok(enforced, device, &value) || Ok(configured, device, &value)) sample->PowerLimitWatts = value / 1000.0;
    const auto defaults = QUERY(nvmlDeviceGetPowerManagementDefaultLimit);
    if (Ok(defaults, device, &value)) sample->DefaultPowerLimitWatts = value / 1000.0;
    const auto constraints = QUERY(nvmlDeviceGetPowerManagementLimitConstraints);
    if (Ok(constraints, device, &value, &second)) {
        sample->MinimumPowerLimitWatts = value / 1000.0;
        sample->MaximumPowerLimitWatts = second / 1000.0;
    }
    if (Ok(fan, device, &value)) sample->FanPercent = static_cast<int>(value);
    if (Ok(clock, device, 0U, &value)) sample->GraphicsClockMHz = static_cast<int>(value);
    if (Ok(clock, device, 1U, &value)) sample->SmClockMHz = static_cast<int>(value);
    if (Ok(clock, device, 2U, &value)) sample->MemoryClockMHz = static_cast<int>(value);
    if (Ok(clock, device, 3U, &value)) sample->VideoClockMHz = static_cast<int>(value);
    if (Ok(state, device, &value)) sample->PerformanceState = static_cast<int>(value);
    if (Ok(encoder, device, &value, &second)) sample->EncoderUtilizationPercent = static_cast<int>(value);
    if (Ok(decoder, device, &value, &second)) sample->DecoderUtilizationPercent = static_cast<int>(value);
    if (Ok(bar1, device, &bytes)) {
        sample->Bar1UsedBytes = bytes.UsedBytes;
        sample->Bar1TotalBytes = bytes.TotalBytes;
    }
    if (Ok(generation, device, &value)) sample->PcieGeneration = static_cast<int>(value);
    if (Ok(width, device, &value)) sample->PcieWidth = static_cast<int>(value);
    if (Ok(throughput, device, 1U, &value)) sample->PcieReceiveMiBPerSecond = value / 1024.0;
    if (Ok(throughput, device, 0U, &value)) sample->PcieTransmitMiBPerSecond = value / 1024.0;
    if (Ok(reasons, device, &mask)) sample->PerformanceLimitReasons = mask;
    return sample->PowerWatts >= 0.0 || sample->GraphicsClockMHz >= 0;
#undef QUERY
}

bool ReadSampleByName(void* library, unsigned int index, GpuTelemetrySample* output) {
    const auto byName = [library](const char* name, auto* type) { return Find(library, name, type); };
    return ReadSample(index, byName, output);
}

using ProcessQuery = NvmlReturn(NvmlDevice device, unsigned int* count, ProcessRecord* processes);

void MergeProcesses(ProcessQuery* query, NvmlDevice device, std::unordered_map<int, uint64_t>* bytesOf) {
    if (query == nullptr) return;
    unsigned int count = 0;
    query(device, &count, nullptr);
    const unsigned int room = count == 0 ? 128 : std::min(count, 4096U);
    count = room;
    std::vector<ProcessRecord> records((size_t{room} * 32 + sizeof(ProcessRecord) - 1) / sizeof(ProcessRecord));
    if (query(device, &count, records.data()) != 0) return;
    for (unsigned int i = 0; i < std::min(count, room); ++i) {
        const ProcessRecord& record = records[i];
        if (record.Pid == 0 || record.UsedBytes == 0 || record.UsedBytes == UINT64_MAX) continue;
        uint64_t& bytes = (*bytesOf)[static_cast<int>(record.Pid)];
        bytes = std::max(bytes, record.UsedBytes);
    }
}

template <size_t Size>
std::string Text(const char (&buffer)[Size]) {
    return {buffer, std::find(buffer, buffer + Size, '\0')};
}

using TextQuery = NvmlReturn(NvmlDevice device, char* text, unsigned int size);

std::string DeviceText(TextQuery* query, NvmlDevice device) {
    char text[128] = {};
    return Ok(query, device, text, 128U) ? Text(text) : std::string();
}

void Identify(void* library, NvmlDevice device, GpuDeviceInfo* info) {
    info->Uuid = DeviceText(FIND(library, nvmlDeviceGetUUID), device);
    info->VbiosVersion = DeviceText(FIND(library, nvmlDeviceGetVbiosVersion), device);
    PciRecord pci{};
    if (Ok(FIND(library, nvmlDeviceGetPciInfo_v3), device, &pci)) info->PciBusId = Text(pci.BusId);
    unsigned int architecture = 0;
    if (Ok(FIND(library, nvmlDeviceGetArchitecture), device, &architecture)) info->Architecture = "Ada";
    MemoryRecord bar1{};
    if (Ok(FIND(library, nvmlDeviceGetBAR1MemoryInfo), device, &bar1)) info->Bar1TotalBytes = bar1.TotalBytes;
}

}  // namespace

bool ReadSampleDirectly(GpuTelemetrySample* output) {
    return ReadSample(
        0, [](const char* /*name*/, auto* entryPoint) { return entryPoint; }, output);
}

bool HandWrittenMonitor::Start() {
    const std::lock_guard<std::mutex> lock(Mutex);
    if (bRunning) return bInitialized;
    if (!bInitialized && !Open()) return false;
    Thread = std::thread(&HandWrittenMonitor::Loop, this);
    bRunning = true;
    return true;
}

void HandWrittenMonitor::Stop() {
    {
        const std::lock_guard<std::mutex> lock(Mutex);
        bRunning = false;
        ++WakeGeneration;
    }
    WakeCv.notify_all();
    if (Thread.joinable()) Thread.join();
    const std::lock_guard<std::mutex> lock(Mutex);
    if (Library == nullptr) return;
    Ok(FIND(Library, nvmlShutdown));
    dlclose(Library);
    Library = nullptr;
    bInitialized = false;
}

bool HandWrittenMonitor::Open() {
    Library = dlopen("libnvidia-ml.so.1", RTLD_LAZY);
    if (Library == nullptr) return false;
    const auto init = FIND(Library, nvmlInit_v2);
    const auto count = FIND(Library, nvmlDeviceGetCount_v2);
    const auto handle = FIND(Library, nvmlDeviceGetHandleByIndex_v2);
    const auto name = FIND(Library, nvmlDeviceGetName);
    unsigned int devices = 0;
    if (!Ok(init) || !Ok(count, &devices)) return false;
    Histories.clear();
    char version[96] = {};
    Ok(FIND(Library, nvmlSystemGetDriverVersion), version, 96U);
    const std::string driver = Text(version);
    std::vector<GpuTelemetryHistory> histories;
    for (unsigned int i = 0; i < devices; ++i) {
        NvmlDevice device = nullptr;
        char text[96] = {};
        if (!Ok(handle, i, &device) || !Ok(name, device, text, 96U)) continue;
        GpuTelemetryHistory history;
        history.Device.Name = Text(text);
        history.Device.Index = i;
        history.Device.DriverVersion = driver;
        Identify(Library, device, &history.Device);
        histories.push_back(std::move(history));
    }
    std::string status = "NVML active: " + std::to_string(histories.size()) + " NVIDIA GPU(s).";
    Histories = std::move(histories);
    StatusText = std::move(status);
    bInitialized = true;
    return true;
}

bool HandWrittenMonitor::ReadCurrentSample(unsigned int index, GpuTelemetrySample* output) {
    const std::lock_guard<std::mutex> lock(Mutex);
    if (!bInitialized) return false;
    return ReadSampleByName(Library, index, output);
}

void HandWrittenMonitor::SetInitialSampleDelay(std::chrono::milliseconds delay) {
    const std::lock_guard<std::mutex> lock(Mutex);
    InitialDelay = delay;
}

void HandWrittenMonitor::SetSampleInterval(std::chrono::milliseconds interval) {
    {
        const std::lock_guard<std::mutex> lock(Mutex);
        Interval = interval;
        ++WakeGeneration;
    }
    WakeCv.notify_all();
}

void HandWrittenMonitor::Loop() {
    {
        std::unique_lock<std::mutex> lock(Mutex);
        if (InitialDelay.count() > 0) WaitForWake(lock, InitialDelay, WakeGeneration);
    }
    for (;;) {
        std::chrono::milliseconds interval{};
        uint64_t generation = 0;
        {
            const std::lock_guard<std::mutex> lock(Mutex);
            if (!bRunning) return;
            interval = Interval;
            generation = WakeGeneration;
            Cycle();
        }
        std::unique_lock<std::mutex> lock(Mutex);
        WaitForWake(lock, interval, generation);
    }
}

void HandWrittenMonitor::WaitForWake(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds duration,
                                     uint64_t generation) {
    const auto deadline = std::chrono::steady_clock::now() + duration;
    WakeCv.wait_until(lock, deadline, [&] { return !bRunning || WakeGeneration != generation; });
}

void HandWrittenMonitor::Cycle() {
    const auto handle = FIND(Library, nvmlDeviceGetHandleByIndex_v2);
    const auto compute = FIND(Library, nvmlDeviceGetComputeRunningProcesses_v3);
    const auto graphics = FIND(Library, nvmlDeviceGetGraphicsRunningProcesses_v3);
    for (GpuTelemetryHistory& history : Histories) {
        NvmlDevice device = nullptr;
        if (!Ok(handle, history.Device.Index, &device)) continue;
        GpuTelemetrySample sample;
        ReadSampleByName(Library, history.Device.Index, &sample);
        std::unordered_map<int, uint64_t> bytesOf;
        MergeProcesses(compute, device, &bytesOf);
        MergeProcesses(graphics, device, &bytesOf);
        std::vector<GpuProcessMemory> processes;
        processes.reserve(bytesOf.size());
        for (const auto& [pid, bytes] : bytesOf) processes.push_back({pid, bytes});
        history.Samples.push_back(sample);
        if (history.Samples.size() > kMostSamples) history.Samples.pop_front();
        history.ProcessMemory = std::move(processes);
    }
}
