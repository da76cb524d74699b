// How much memory a GPU with a full history takes, in the monitor alone and with the feed, as the allocator counts it.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>

#include "boards.h"
#include "followed_monitor.h"
#include "nvml_gpu_monitor.h"
#include "sampler.h"

namespace {

/// Memory in use in all of the allocator's arenas, with its own bookkeeping.
double AllocatedBytes() {
    const struct mallinfo2 heap = mallinfo2();
    return static_cast<double>(heap.uordblks + heap.hblkhd);
}

/// Measures what `fill` makes, which it gives back so that it is kept meanwhile.
template <typename Fill>
void Measure(benchmark::State& state, Fill fill) {
    const auto boards = static_cast<double>(state.range(0));
    double bytesPerGpu = 0.0;
    for ([[maybe_unused]] auto _ : state) {
        // First, so that the simulator's boards are part of both figures.
        UseBoards(state.range(0));
        const double before = AllocatedBytes();
        const auto filled = fill(state.range(0));
        bytesPerGpu = (AllocatedBytes() - before) / boards;
    }
    state.counters["bytes_per_gpu"] = bytesPerGpu;
}

void FullHistory(benchmark::State& state) {
    Measure(state, [](int64_t boards) {
        auto monitor = std::make_unique<NvmlGpuMonitor>();
        FillHistories(monitor.get(), boards);
        return monitor;
    });
    state.counters["bytes_of_samples"] = static_cast<double>(sizeof(GpuTelemetrySample)) * kFullHistorySamples;
}
BENCHMARK(FullHistory)->Arg(8)->Iterations(1);

/// The monitor and the feed together, half a history after both were full.
void FullHistoryAndFeed(benchmark::State& state) {
    Measure(state, [](int64_t boards) {
        return std::make_unique<FollowedMonitor>(boards, kFullHistorySamples + kFullHistorySamples / 2);
    });
}
BENCHMARK(FullHistoryAndFeed)->Arg(8)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
