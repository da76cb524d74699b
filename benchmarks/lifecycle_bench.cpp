// What a start and a stop cost: opening NVML, discovering the GPUs, a thread, and all of it back; and the same written
// by hand.

#include <benchmark/benchmark.h>

#include <chrono>

#include "boards.h"
#include "hand_written.h"
#include "nvml_gpu_monitor.h"
#include "work.h"

namespace {

template <typename Monitor>
void StartAndStop(benchmark::State& state) {
    UseBoards(state.range(0));
    Monitor monitor;
    // So that no cycle is measured.
    monitor.SetInitialSampleDelay(std::chrono::seconds(10));
    for ([[maybe_unused]] auto _ : state) {
        monitor.Start();
        monitor.Stop();
    }
}
BENCHMARK_TEMPLATE(StartAndStop, NvmlGpuMonitor)
    ->Name("StartAndStopOfMonitor")
    ->Arg(1)
    ->Arg(8)
    ->Arg(64)
    ->MeasureProcessCPUTime();
BENCHMARK_TEMPLATE(StartAndStop, HandWrittenMonitor)
    ->Name("StartAndStopByHand")
    ->Arg(1)
    ->Arg(8)
    ->Arg(64)
    ->MeasureProcessCPUTime();

template <typename Monitor>
Work WorkOfStartAndStop() {
    UseBoards(2);
    Monitor monitor;
    monitor.SetInitialSampleDelay(std::chrono::seconds(10));
    return WorkOf([&] {
        monitor.Start();
        monitor.Stop();
    });
}

}  // namespace

int main(int argc, char** argv) {
    RequireSameWork("A start and a stop", WorkOfStartAndStop<NvmlGpuMonitor>(),
                    WorkOfStartAndStop<HandWrittenMonitor>());
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
