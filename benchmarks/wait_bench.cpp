// How long a host waits in Snapshot when it calls at any moment: full histories, a sampler that runs, and an NVML that
// takes its time as on hardware.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "boards.h"
#include "nvml_gpu_monitor.h"
#include "quantile.h"
#include "sampler.h"
#include "simulated_nvml.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

/// Calls of Snapshot at moments that do not depend on the sampler: each moment is as likely as any other.
class RandomCalls {
public:
    /// How long the call at the next moment waits, in milliseconds.
    double Next(const NvmlGpuMonitor& monitor) {
        Moment += std::chrono::duration_cast<Clock::duration>(Milliseconds(Gap(Random)));
        // At some moments the call before still waits. A call made then would have waited for the same cycle and copied
        // as long, at the same time and not afterwards, so its wait ends with the other's.
        if (Moment >= LatestEnd) Call(monitor);
        return Milliseconds(LatestEnd - Moment).count();
    }

private:
    void Call(const NvmlGpuMonitor& monitor) {
        std::this_thread::sleep_until(Moment);
        // A sleep ends late; that time is not spent waiting for the monitor.
        Moment = Clock::now();
        const std::vector<GpuTelemetryHistory> copy = monitor.Snapshot();
        LatestEnd = Clock::now();
        benchmark::DoNotOptimize(copy.data());
    }

    // The same moments in each run.
    std::mt19937 Random{1};  // NOLINT(cert-msc51-cpp)
    std::exponential_distribution<double> Gap{1.0 / 10.0};
    Clock::time_point Moment = Clock::now();
    Clock::time_point LatestEnd = Moment;
};

/// A sampler with this interval whose histories are full already.
void StartFull(NvmlGpuMonitor* monitor, int64_t boards, std::chrono::milliseconds interval) {
    UseBoards(boards);
    const uint64_t wanted = ReadingsSoFar() + static_cast<uint64_t>(boards) * kFullHistorySamples;
    monitor->Start();
    while (ReadingsSoFar() < wanted) monitor->SetSampleInterval(interval);
    simulated_nvml::SimulatedNvml::Get().UseRealisticDelays();
}

void SnapshotWait(benchmark::State& state) {
    NvmlGpuMonitor monitor;
    StartFull(&monitor, state.range(0), std::chrono::milliseconds(state.range(1)));
    std::vector<double> waits;
    RandomCalls calls;
    for ([[maybe_unused]] auto _ : state) waits.push_back(calls.Next(monitor));
    state.counters["median_ms"] = Quantile(&waits, 0.5);
    state.counters["p99_ms"] = Quantile(&waits, 0.99);
}
BENCHMARK(SnapshotWait)->ArgsProduct({{1, 4}, {1000, 100}})->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
