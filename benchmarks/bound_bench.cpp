// What a cycle costs while histories grow, and when they are full and drop a sample for each that they take.

#include <benchmark/benchmark.h>

#include <cstdint>

#include "boards.h"
#include "nvml_gpu_monitor.h"
#include "sampler.h"

namespace {

constexpr int kBoundSamples = 6000;
constexpr int kMeasuredCycles = 2000;

/// A cycle that follows `cyclesBefore` others.
void CycleAfter(benchmark::State& state, int cyclesBefore) {
    UseBoards(state.range(0));
    NvmlGpuMonitor monitor;
    SamplerDriver<NvmlGpuMonitor> sampler(&monitor, static_cast<uint64_t>(state.range(0)));
    for (int i = 0; i < cyclesBefore; ++i) sampler.Cycle();
    for ([[maybe_unused]] auto _ : state) state.SetIterationTime(sampler.Cycle());
}
// The iterations are given, because without an end histories would reach the bound while it is measured.
BENCHMARK_CAPTURE(CycleAfter, BelowBound, 1000)->Arg(8)->Iterations(kMeasuredCycles)->UseManualTime();
BENCHMARK_CAPTURE(CycleAfter, AtBound, kBoundSamples)->Arg(8)->Iterations(kMeasuredCycles)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
