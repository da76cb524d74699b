// What a look of the feed costs: from the monitor's data to published data, without the drawing.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <ctime>
#include <memory>

#include "boards.h"
#include "followed_monitor.h"

namespace {

constexpr int64_t kBoards = 8;

double ThreadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Each look finds one new sample per GPU. A history that has grown tenfold begins again: not earlier, because the
/// looks at a new monitor take longer.
void LookWith(benchmark::State& state) {
    const int64_t samples = state.range(0);
    UseBoards(kBoards);
    std::unique_ptr<FollowedMonitor> monitor;
    for ([[maybe_unused]] auto _ : state) {
        if (monitor == nullptr || monitor->Kept() > static_cast<size_t>(samples * 10)) {
            monitor = nullptr;
            monitor = std::make_unique<FollowedMonitor>(kBoards, samples);
        }
        monitor->Cycle();
        const double before = ThreadSeconds();
        monitor->Look();
        state.SetIterationTime(ThreadSeconds() - before);
    }
}
BENCHMARK(LookWith)->Arg(60)->Arg(kFullHistorySamples)->Iterations(3000)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
