// How much memory a GPU with a full history takes, as the allocator counts it.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>

#include "boards.h"
#include "nvml_gpu_monitor.h"
#include "sampler.h"

namespace {

/// Memory in use in all of the allocator's arenas, with its own bookkeeping.
double AllocatedBytes() {
    const struct mallinfo2 heap = mallinfo2();
    return static_cast<double>(heap.uordblks + heap.hblkhd);
}

void FullHistory(benchmark::State& state) {
    const auto boards = static_cast<double>(state.range(0));
    double bytesPerGpu = 0.0;
    for ([[maybe_unused]] auto _ : state) {
        // First, so that the simulator's boards are part of both figures.
        UseBoards(state.range(0));
        const double before = AllocatedBytes();
        const auto monitor = std::make_unique<NvmlGpuMonitor>();
        FillHistories(monitor.get(), state.range(0));
        bytesPerGpu = (AllocatedBytes() - before) / boards;
    }
    state.counters["bytes_per_gpu"] = bytesPerGpu;
    state.counters["bytes_of_samples"] = static_cast<double>(sizeof(GpuTelemetrySample)) * kFullHistorySamples;
}
BENCHMARK(FullHistory)->Arg(8)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
