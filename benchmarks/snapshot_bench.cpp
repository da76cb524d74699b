// What a copy of full histories costs, and what the same copy costs outside the monitor.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <map>
#include <memory>
#include <vector>

#include "nvml_gpu_monitor.h"
#include "sampler.h"

namespace {

using Histories = std::vector<GpuTelemetryHistory>;

/// What both sides copy.
struct Subject {
    NvmlGpuMonitor Monitor;
    Histories Outside;
};

/// The same histories, brought into memory in the order in which a sampler does: one sample for each GPU at a time.
Histories GrownLike(const Histories& model) {
    Histories grown(model.size());
    for (size_t gpu = 0; gpu < model.size(); ++gpu) grown[gpu].Device = model[gpu].Device;
    for (size_t sample = 0; sample < kFullHistorySamples; ++sample) {
        for (size_t gpu = 0; gpu < model.size(); ++gpu) grown[gpu].Samples.push_back(model[gpu].Samples[sample]);
    }
    return grown;
}

/// Made at the first use and kept, because filling takes seconds.
Subject& SubjectOf(int64_t boards) {
    static std::map<int64_t, std::unique_ptr<Subject>> subjects;
    std::unique_ptr<Subject>& subject = subjects[boards];
    if (subject == nullptr) {
        subject = std::make_unique<Subject>();
        FillHistories(&subject->Monitor, boards);
        subject->Outside = GrownLike(subject->Monitor.Snapshot());
    }
    return *subject;
}

void SnapshotOfMonitor(benchmark::State& state) {
    const NvmlGpuMonitor& monitor = SubjectOf(state.range(0)).Monitor;
    for ([[maybe_unused]] auto _ : state) {
        const Histories copy = monitor.Snapshot();
        benchmark::DoNotOptimize(copy.data());
    }
}
BENCHMARK(SnapshotOfMonitor)->Arg(1)->Arg(8)->Arg(64);

void CopyOutside(benchmark::State& state) {
    const Histories& histories = SubjectOf(state.range(0)).Outside;
    for ([[maybe_unused]] auto _ : state) {
        const Histories copy = histories;
        benchmark::DoNotOptimize(copy.data());
    }
}
BENCHMARK(CopyOutside)->Arg(1)->Arg(8)->Arg(64);

}  // namespace

BENCHMARK_MAIN();
