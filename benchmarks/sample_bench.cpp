// What a reading costs on a simulated NVML that answers at once: the price of the module itself, with the lookups and
// calls that it makes, and how it grows with the number of GPUs.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "nvml_gpu_monitor.h"
#include "simulated_nvml.h"

namespace {

using simulated_nvml::SimulatedNvml;

constexpr const char* kLastQueryOfASample = "nvmlDeviceGetCurrentClocksThrottleReasons";

void UseBoards(int64_t count) {
    std::vector<simulated_nvml::Board> boards;
    for (unsigned int i = 0; i < static_cast<unsigned int>(count); ++i) {
        boards.push_back(simulated_nvml::DesktopBoard(i));
        boards.back().Fixed = simulated_nvml::Readings{};
    }
    SimulatedNvml::Get().Reset();
    SimulatedNvml::Get().SetBoards(boards);
}

void ReadCurrentSample(benchmark::State& state) {
    UseBoards(1);
    NvmlGpuMonitor monitor;
    GpuTelemetrySample sample;
    for ([[maybe_unused]] auto _ : state) {
        monitor.ReadCurrentSample(&sample);
        benchmark::DoNotOptimize(sample);
    }
}
BENCHMARK(ReadCurrentSample);

void StartAndStop(benchmark::State& state) {
    UseBoards(state.range(0));
    NvmlGpuMonitor monitor;
    monitor.SetInitialSampleDelay(std::chrono::seconds(10));
    for ([[maybe_unused]] auto _ : state) {
        monitor.Start();
        monitor.Stop();
    }
}
BENCHMARK(StartAndStop)->Arg(1)->Arg(8)->Arg(64)->UseRealTime();

/// From the wish for a cycle to its end, seen from a host's thread.
void OneCycle(benchmark::State& state) {
    UseBoards(state.range(0));
    NvmlGpuMonitor monitor;
    monitor.SetSampleInterval(std::chrono::seconds(10));
    monitor.Start();
    const auto boards = static_cast<uint64_t>(state.range(0));
    uint64_t samples = boards;
    for ([[maybe_unused]] auto _ : state) {
        SimulatedNvml::Get().WaitForCalls(kLastQueryOfASample, samples, std::chrono::seconds(60));
        samples += boards;
        monitor.SetSampleInterval(std::chrono::seconds(10));
    }
}
BENCHMARK(OneCycle)->Arg(1)->Arg(8)->Arg(64)->UseRealTime();

}  // namespace
