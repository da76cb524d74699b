// What one cycle costs the sampler thread, by boards and by processes on each: the monitor's, and the same lookups,
// calls and allocations written by hand, on a thread that is woken in the same way.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>

#include "boards.h"
#include "hand_written.h"
#include "nvml_gpu_monitor.h"
#include "sampler.h"
#include "work.h"

namespace {

template <typename Monitor>
void Cycle(benchmark::State& state) {
    UseBoards(state.range(0), state.range(1));
    Monitor monitor;
    SamplerDriver<Monitor> sampler(&monitor, static_cast<uint64_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) state.SetIterationTime(sampler.Cycle());
}

void BoardsAndProcesses(benchmark::internal::Benchmark* cycle) {
    for (const int64_t boards : {1, 8, 64}) {
        for (const int64_t processes : {0, 16, 1024, 4096}) cycle->Args({boards, processes});
    }
    cycle->UseManualTime();
}
BENCHMARK_TEMPLATE(Cycle, NvmlGpuMonitor)->Name("CycleOfMonitor")->Apply(BoardsAndProcesses);
BENCHMARK_TEMPLATE(Cycle, HandWrittenMonitor)->Name("CycleByHand")->Apply(BoardsAndProcesses);

template <typename Monitor>
Work WorkOfCycle() {
    UseBoards(3, 5);
    Monitor monitor;
    SamplerDriver<Monitor> sampler(&monitor, 3);
    // What takes the lock waits for the end of a cycle, also of one whose thread was interrupted and seems asleep.
    const auto waitForEnd = [&] { monitor.SetInitialSampleDelay(std::chrono::milliseconds(0)); };
    waitForEnd();
    return WorkOf([&] {
        sampler.Cycle();
        waitForEnd();
    });
}

}  // namespace

int main(int argc, char** argv) {
    RequireSameWork("A cycle", WorkOfCycle<NvmlGpuMonitor>(), WorkOfCycle<HandWrittenMonitor>());
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
