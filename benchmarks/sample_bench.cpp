// What one sample costs: the monitor's operation, and the same lookups and calls without the monitor.

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "boards.h"
#include "entry_point_list.h"
#include "nvml_abi.h"
#include "nvml_gpu_monitor.h"
#include "simulated_nvml.h"

namespace {

using simulated_nvml::NvmlDevice;
using simulated_nvml::NvmlReturn;
using simulated_nvml::SimulatedNvml;

// ---- By hand ----

namespace shapes = simulated_nvml::shapes;
using simulated_nvml::Shape;

/// One of the calls that a sample makes.
struct Query {
    std::string Name;
    Shape Form;
    unsigned int Selector;
};

Shape ShapeOf(const std::string& name) {
    const auto* const found =
        std::find(std::begin(simulated_nvml::kEntryPointNames), std::end(simulated_nvml::kEntryPointNames), name);
    return simulated_nvml::kEntryPointShapes[found - std::begin(simulated_nvml::kEntryPointNames)];
}

/// From a line of the simulator's log: "NAME(BOARD)" or "NAME(BOARD, SELECTOR)".
Query QueryOf(const std::string& line) {
    const std::string name = line.substr(0, line.find('('));
    const size_t comma = line.find(", ");
    const bool bSelects = comma != std::string::npos;
    return {name, ShapeOf(name), bSelects ? static_cast<unsigned int>(std::stoul(line.substr(comma + 2))) : 0U};
}

/// What the answers to a sample's calls are written to.
struct Answers {
    NvmlDevice Device = nullptr;
    unsigned int First = 0;
    unsigned int Second = 0;
    unsigned long long Mask = 0;
    simulated_nvml::MemoryRecord Memory{};
    simulated_nvml::UtilizationRecord Utilization{};
};

template <typename Shaped>
Shaped* As(void* entryPoint) {
    return reinterpret_cast<Shaped*>(entryPoint);
}

NvmlReturn Ask(const Query& query, void* entryPoint, Answers* to) {
    switch (query.Form) {
        case Shape::Handle: return As<shapes::Handle>(entryPoint)(0, &to->Device);
        case Shape::Value: return As<shapes::Value>(entryPoint)(to->Device, &to->First);
        case Shape::Selected: return As<shapes::Selected>(entryPoint)(to->Device, query.Selector, &to->First);
        case Shape::Pair: return As<shapes::Pair>(entryPoint)(to->Device, &to->First, &to->Second);
        case Shape::LongValue: return As<shapes::LongValue>(entryPoint)(to->Device, &to->Mask);
        case Shape::Memory: return As<shapes::Memory>(entryPoint)(to->Device, &to->Memory);
        case Shape::Utilization: return As<shapes::Utilization>(entryPoint)(to->Device, &to->Utilization);
        default: return simulated_nvml::kUnknown;
    }
}

/// The calls of a sample without the monitor. Which ones those are, the monitor itself has shown.
class HandMadeSample {
public:
    HandMadeSample(void* library, const std::vector<Query>& queries) : Library(library), ToAsk(queries) {}

    /// Looks each name up at its first call, as the monitor does.
    void LookUp() {
        EntryPoints.clear();
        for (size_t i = 0; i < ToAsk.size(); ++i) {
            const bool bAgain = i > 0 && ToAsk[i].Name == ToAsk[i - 1].Name;
            EntryPoints.push_back(bAgain ? EntryPoints.back() : dlsym(Library, ToAsk[i].Name.c_str()));
        }
    }

    void Call() {
        Answers answers;
        const auto now = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(now);
        for (size_t i = 0; i < ToAsk.size(); ++i) Ask(ToAsk[i], EntryPoints[i], &answers);
        benchmark::DoNotOptimize(answers);
    }

private:
    void* const Library;
    const std::vector<Query>& ToAsk;
    std::vector<void*> EntryPoints;
};

// ---- Measuring ----

/// A monitor that is up, with a sampler that stays asleep, and the library that it has opened.
struct Nvml {
    Nvml() {
        UseBoards(1);
        Monitor.SetInitialSampleDelay(std::chrono::seconds(10));
        Monitor.Start();
    }
    ~Nvml() { dlclose(Handle); }
    Nvml(const Nvml&) = delete;
    Nvml& operator=(const Nvml&) = delete;

    NvmlGpuMonitor Monitor;
    void* Handle = dlopen("libnvidia-ml.so.1", RTLD_LAZY);
};

/// The calls of NVML that `read` makes, in order.
template <typename Read>
std::vector<std::string> CallsOf(Read read) {
    SimulatedNvml::Get().RecordLog();
    const size_t before = SimulatedNvml::Get().Log().size();
    read();
    const std::vector<std::string> log = SimulatedNvml::Get().Log();
    return {log.begin() + static_cast<std::ptrdiff_t>(before), log.end()};
}

std::vector<std::string> CallsOfMonitor() {
    Nvml started;
    GpuTelemetrySample sample;
    return CallsOf([&] { started.Monitor.ReadCurrentSample(0, &sample); });
}

/// The calls of a sample. They are recorded at the first use, before which nothing else may use the simulator.
const std::vector<Query>& Queries() {
    static const std::vector<Query> kQueries = [] {
        std::vector<Query> queries;
        for (const std::string& line : CallsOfMonitor()) queries.push_back(QueryOf(line));
        return queries;
    }();
    return kQueries;
}

void SampleOfMonitor(benchmark::State& state) {
    Nvml started;
    GpuTelemetrySample sample;
    for ([[maybe_unused]] auto _ : state) {
        started.Monitor.ReadCurrentSample(0, &sample);
        benchmark::DoNotOptimize(sample);
    }
}
BENCHMARK(SampleOfMonitor);

void SampleByHand(benchmark::State& state) {
    const Nvml started;
    HandMadeSample reader(started.Handle, Queries());
    for ([[maybe_unused]] auto _ : state) {
        reader.LookUp();
        reader.Call();
    }
}
BENCHMARK(SampleByHand);

void SampleLookedUpOnce(benchmark::State& state) {
    const Nvml started;
    HandMadeSample reader(started.Handle, Queries());
    reader.LookUp();
    for ([[maybe_unused]] auto _ : state) reader.Call();
}
BENCHMARK(SampleLookedUpOnce);

/// A comparison of times says nothing where the two do not make the same calls.
bool MakeTheSameCalls() {
    const std::vector<std::string> ofMonitor = CallsOfMonitor();
    const std::vector<Query>& queries = Queries();
    const Nvml started;
    HandMadeSample reader(started.Handle, queries);
    reader.LookUp();
    return !ofMonitor.empty() && CallsOf([&] { reader.Call(); }) == ofMonitor;
}

}  // namespace

int main(int argc, char** argv) {
    if (!MakeTheSameCalls()) {
        std::fputs("A sample does not make the calls that are made by hand.\n", stderr);
        return EXIT_FAILURE;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
