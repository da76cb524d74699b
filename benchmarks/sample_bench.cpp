// What one sample costs at once: the monitor's operation, the same lookups and calls written by hand, and calls that
// the linker bound.

#include <benchmark/benchmark.h>

#include <chrono>

#include "boards.h"
#include "hand_written.h"
#include "nvml_calls.h"
#include "nvml_gpu_monitor.h"
#include "work.h"

namespace {

/// Starts a monitor whose sampler stays asleep.
template <typename Monitor>
void StartQuietly(Monitor* monitor) {
    UseBoards(1);
    monitor->SetInitialSampleDelay(std::chrono::seconds(10));
    monitor->Start();
}

template <typename Monitor>
void Sample(benchmark::State& state) {
    Monitor monitor;
    StartQuietly(&monitor);
    GpuTelemetrySample sample;
    for ([[maybe_unused]] auto _ : state) {
        monitor.ReadCurrentSample(0, &sample);
        benchmark::DoNotOptimize(sample);
    }
}
BENCHMARK_TEMPLATE(Sample, NvmlGpuMonitor)->Name("SampleOfMonitor");
BENCHMARK_TEMPLATE(Sample, HandWrittenMonitor)->Name("SampleByHand");

void SampleDirectly(benchmark::State& state) {
    UseBoards(1);
    nvmlInit_v2();
    GpuTelemetrySample sample;
    for ([[maybe_unused]] auto _ : state) {
        ReadSampleDirectly(&sample);
        benchmark::DoNotOptimize(sample);
    }
    nvmlShutdown();
}
BENCHMARK(SampleDirectly);

template <typename Monitor>
Work WorkOfSample() {
    Monitor monitor;
    StartQuietly(&monitor);
    GpuTelemetrySample sample;
    return WorkOf([&] { monitor.ReadCurrentSample(0, &sample); });
}

Work WorkOfDirectSample() {
    UseBoards(1);
    nvmlInit_v2();
    GpuTelemetrySample sample;
    Work work = WorkOf([&] { ReadSampleDirectly(&sample); });
    nvmlShutdown();
    return work;
}

}  // namespace

int main(int argc, char** argv) {
    const Work sample = WorkOfSample<NvmlGpuMonitor>();
    RequireSameWork("A sample", sample, WorkOfSample<HandWrittenMonitor>());
    RequireSameWork("A sample", WithoutLookups(sample), WorkOfDirectSample());
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
