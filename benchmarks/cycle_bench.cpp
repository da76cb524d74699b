// What one cycle costs the sampler thread, by GPUs, by processes on each and by what the histories hold; and what a
// start and a stop cost.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>

#include "boards.h"
#include "nvml_gpu_monitor.h"
#include "sampler.h"

namespace {

void Cycle(benchmark::State& state) {
    UseBoards(state.range(0), state.range(1));
    NvmlGpuMonitor monitor;
    SamplerDriver sampler(&monitor, state.range(0));
    for ([[maybe_unused]] auto _ : state) state.SetIterationTime(sampler.Cycle());
}
BENCHMARK(Cycle)->ArgsProduct({{1, 8, 64}, {0, 16, 1024, 4096}})->UseManualTime();

/// Cycles of 8 GPUs that follow others, as many as given.
void CycleAfter(benchmark::State& state) {
    UseBoards(8);
    NvmlGpuMonitor monitor;
    SamplerDriver sampler(&monitor, 8);
    for (int64_t i = 0; i < state.range(0); ++i) sampler.Cycle();
    for ([[maybe_unused]] auto _ : state) state.SetIterationTime(sampler.Cycle());
}
// The iterations are given, so that growing histories stay below the bound while they are measured.
BENCHMARK(CycleAfter)->Arg(1000)->Arg(kFullHistorySamples)->Iterations(2000)->UseManualTime();

void StartAndStop(benchmark::State& state) {
    UseBoards(state.range(0));
    NvmlGpuMonitor monitor;
    // So that no cycle is measured.
    monitor.SetInitialSampleDelay(std::chrono::seconds(10));
    for ([[maybe_unused]] auto _ : state) {
        monitor.Start();
        monitor.Stop();
    }
}
BENCHMARK(StartAndStop)->Arg(1)->Arg(8)->Arg(64)->MeasureProcessCPUTime();

}  // namespace

BENCHMARK_MAIN();
