// What one sample costs: the monitor's operation, and the same lookups and calls written by hand.

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "boards.h"
#include "gpu_profiler.h"
#include "nvml_abi.h"
#include "nvml_gpu_monitor.h"
#include "simulated_nvml.h"

namespace {

using simulated_nvml::NvmlDevice;
using simulated_nvml::NvmlReturn;
using simulated_nvml::SimulatedNvml;

// ---- By hand ----

using Handle = NvmlReturn (*)(unsigned int index, NvmlDevice* device);
using Value = NvmlReturn (*)(NvmlDevice device, unsigned int* value);
using Selected = NvmlReturn (*)(NvmlDevice device, unsigned int selector, unsigned int* value);
using Pair = NvmlReturn (*)(NvmlDevice device, unsigned int* first, unsigned int* second);
using Mask = NvmlReturn (*)(NvmlDevice device, unsigned long long* mask);
using Memory = NvmlReturn (*)(NvmlDevice device, simulated_nvml::MemoryRecord* memory);
using Utilization = NvmlReturn (*)(NvmlDevice device, simulated_nvml::UtilizationRecord* utilization);

/// Looks a name up. The result has the type of the variable that takes it.
struct Symbol {
    template <typename Fn>
    operator Fn() const {
        return reinterpret_cast<Fn>(dlsym(Library, Name));
    }

    void* Library;
    const char* Name;
};

/// What a sample looks up.
struct Queries {
    explicit Queries(void* library)
        : GetHandle(Symbol{library, "nvmlDeviceGetHandleByIndex_v2"}),
          Temperature(Symbol{library, "nvmlDeviceGetTemperature"}),
          Rates(Symbol{library, "nvmlDeviceGetUtilizationRates"}),
          VideoMemory(Symbol{library, "nvmlDeviceGetMemoryInfo"}),
          Power(Symbol{library, "nvmlDeviceGetPowerUsage"}),
          Fan(Symbol{library, "nvmlDeviceGetFanSpeed"}),
          Clock(Symbol{library, "nvmlDeviceGetClockInfo"}),
          State(Symbol{library, "nvmlDeviceGetPerformanceState"}),
          Encoder(Symbol{library, "nvmlDeviceGetEncoderUtilization"}),
          Decoder(Symbol{library, "nvmlDeviceGetDecoderUtilization"}),
          Bar1(Symbol{library, "nvmlDeviceGetBAR1MemoryInfo"}),
          Generation(Symbol{library, "nvmlDeviceGetCurrPcieLinkGeneration"}),
          Width(Symbol{library, "nvmlDeviceGetCurrPcieLinkWidth"}),
          Throughput(Symbol{library, "nvmlDeviceGetPcieThroughput"}),
          Reasons(Symbol{library, "nvmlDeviceGetCurrentClocksThrottleReasons"}),
          Enforced(Symbol{library, "nvmlDeviceGetEnforcedPowerLimit"}),
          Configured(Symbol{library, "nvmlDeviceGetPowerManagementLimit"}),
          Default(Symbol{library, "nvmlDeviceGetPowerManagementDefaultLimit"}),
          Range(Symbol{library, "nvmlDeviceGetPowerManagementLimitConstraints"}) {}

    Handle GetHandle;
    Selected Temperature;
    Utilization Rates;
    Memory VideoMemory;
    Value Power;
    Value Fan;
    Selected Clock;
    Value State;
    Pair Encoder;
    Pair Decoder;
    Memory Bar1;
    Value Generation;
    Value Width;
    Selected Throughput;
    Mask Reasons;
    Value Enforced;
    Value Configured;
    Value Default;
    Pair Range;
};

template <typename Fn, typename... Arguments>
bool Ok(Fn query, Arguments... arguments) {
    return query != nullptr && query(arguments...) == 0;
}

/// Makes the calls of one sample, one after the other.
void ReadByHand(const Queries& nvml, GpuTelemetrySample* sample) {
    *sample = GpuTelemetrySample{};
    NvmlDevice device = nullptr;
    if (!Ok(nvml.GetHandle, 0U, &device)) return;
    const std::chrono::nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
    sample->TimestampSeconds = static_cast<double>(now.count()) / 1e9;
    GPUProfiler::FrameSnapshot frame;
    if (GPUProfiler::Get()->GetLatestSnapshot(&frame)) sample->FrameTimeMs = frame.GpuFrameTimeMs;

    unsigned int value = 0;
    unsigned int second = 0;
    const auto toInt = [&](int* field) { *field = static_cast<int>(value); };
    const auto toWatts = [](unsigned int milliwatts, double* field) { *field = milliwatts / 1000.0; };
    simulated_nvml::UtilizationRecord rates{};
    simulated_nvml::MemoryRecord bytes{};
    unsigned long long mask = 0;
    if (Ok(nvml.Temperature, device, 0U, &value)) toInt(&sample->TemperatureC);
    if (Ok(nvml.Rates, device, &rates)) {
        sample->GpuUtilizationPercent = static_cast<int>(rates.GpuPercent);
        sample->MemoryUtilizationPercent = static_cast<int>(rates.MemoryPercent);
    }
    if (Ok(nvml.VideoMemory, device, &bytes)) {
        sample->VramUsedBytes = bytes.UsedBytes;
        sample->VramTotalBytes = bytes.TotalBytes;
    }
    if (Ok(nvml.Power, device, &value)) toWatts(value, &sample->PowerWatts);
    if (Ok(nvml.Enforced, device, &value) || Ok(nvml.Configured, device, &value)) {
        toWatts(value, &sample->PowerLimitWatts);
    }
    if (Ok(nvml.Default, device, &value)) toWatts(value, &sample->DefaultPowerLimitWatts);
    if (Ok(nvml.Range, device, &value, &second)) {
        toWatts(value, &sample->MinimumPowerLimitWatts);
        toWatts(second, &sample->MaximumPowerLimitWatts);
    }
    if (Ok(nvml.Fan, device, &value)) toInt(&sample->FanPercent);
    int* const clocks[] = {&sample->GraphicsClockMHz, &sample->SmClockMHz, &sample->MemoryClockMHz,
                           &sample->VideoClockMHz};
    for (unsigned int type = 0; type < 4; ++type) {
        if (Ok(nvml.Clock, device, type, &value)) toInt(clocks[type]);
    }
    if (Ok(nvml.State, device, &value)) toInt(&sample->PerformanceState);
    if (Ok(nvml.Encoder, device, &value, &second)) toInt(&sample->EncoderUtilizationPercent);
    if (Ok(nvml.Decoder, device, &value, &second)) toInt(&sample->DecoderUtilizationPercent);
    if (Ok(nvml.Bar1, device, &bytes)) {
        sample->Bar1UsedBytes = bytes.UsedBytes;
        sample->Bar1TotalBytes = bytes.TotalBytes;
    }
    if (Ok(nvml.Generation, device, &value)) toInt(&sample->PcieGeneration);
    if (Ok(nvml.Width, device, &value)) toInt(&sample->PcieWidth);
    if (Ok(nvml.Throughput, device, 1U, &value)) sample->PcieReceiveMiBPerSecond = value / 1024.0;
    if (Ok(nvml.Throughput, device, 0U, &value)) sample->PcieTransmitMiBPerSecond = value / 1024.0;
    if (Ok(nvml.Reasons, device, &mask)) sample->PerformanceLimitReasons = mask;
}

// ---- Measuring ----

/// A monitor that is up, with a sampler that stays asleep, and the library that it has opened.
struct Nvml {
    Nvml() {
        UseBoards(1);
        Monitor.SetInitialSampleDelay(std::chrono::seconds(10));
        Monitor.Start();
    }
    ~Nvml() { dlclose(Library); }
    Nvml(const Nvml&) = delete;
    Nvml& operator=(const Nvml&) = delete;

    NvmlGpuMonitor Monitor;
    void* Library = dlopen("libnvidia-ml.so.1", RTLD_LAZY);
};

template <typename Read>
void Measure(benchmark::State& state, Read read) {
    GpuTelemetrySample sample;
    for ([[maybe_unused]] auto _ : state) {
        read(&sample);
        benchmark::DoNotOptimize(sample);
    }
}

void SampleOfMonitor(benchmark::State& state) {
    Nvml nvml;
    Measure(state, [&](GpuTelemetrySample* sample) { nvml.Monitor.ReadCurrentSample(0, sample); });
}
BENCHMARK(SampleOfMonitor);

void SampleByHand(benchmark::State& state) {
    const Nvml nvml;
    Measure(state, [&](GpuTelemetrySample* sample) { ReadByHand(Queries(nvml.Library), sample); });
}
BENCHMARK(SampleByHand);

void SampleLookedUpOnce(benchmark::State& state) {
    const Nvml nvml;
    const Queries queries(nvml.Library);
    Measure(state, [&](GpuTelemetrySample* sample) { ReadByHand(queries, sample); });
}
BENCHMARK(SampleLookedUpOnce);

/// The calls of NVML that `read` makes, in order.
template <typename Read>
std::vector<std::string> CallsOf(Read read) {
    GpuTelemetrySample sample;
    SimulatedNvml::Get().RecordLog();
    const size_t before = SimulatedNvml::Get().Log().size();
    read(&sample);
    const std::vector<std::string> log = SimulatedNvml::Get().Log();
    return {log.begin() + static_cast<std::ptrdiff_t>(before), log.end()};
}

/// A comparison of times says nothing where the two do not make the same calls.
bool MakeTheSameCalls() {
    Nvml nvml;
    const auto ofMonitor = CallsOf([&](GpuTelemetrySample* s) { nvml.Monitor.ReadCurrentSample(0, s); });
    return ofMonitor == CallsOf([&](GpuTelemetrySample* s) { ReadByHand(Queries(nvml.Library), s); });
}

}  // namespace

int main(int argc, char** argv) {
    if (!MakeTheSameCalls()) {
        std::fputs("A sample does not make the calls that are written by hand.\n", stderr);
        return EXIT_FAILURE;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
