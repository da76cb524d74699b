// Long runs over the simulated NVML that look for what grows: memory, threads, file descriptors. Each phase does some
// of its work, measures, does much more of the same work and measures again. What a single round needs for good is
// there at the first measurement, so whatever is more at the second one was left behind by the work.

#include <malloc.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "fixed_boards.h"
#include "nvml_gpu_monitor.h"
#include "sampler_clock.h"
#include "simulated_nvml.h"

// Of the sanitizers' own interface; null where the program is built without one.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using simulated_nvml::SimulatedNvml;
using std::chrono::milliseconds;

void Require(bool bHolds, const std::string& otherwise) {
    if (!bHolds) throw std::runtime_error(otherwise);
}

// ---- What must not grow ----

int64_t CountEntries(const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

int64_t CountThreads() {
    return CountEntries("/proc/self/task");
}

/// What is allocated and not freed.
int64_t HeapBytes() {
    if (__sanitizer_get_current_allocated_bytes != nullptr) {
        return static_cast<int64_t>(__sanitizer_get_current_allocated_bytes());
    }
    const struct mallinfo2 heap = mallinfo2();
    return static_cast<int64_t>(heap.uordblks + heap.hblkhd);
}

struct Quantity {
    const char* Name;
    int64_t (*Read)();
    /// What it may grow by for each round of work, and at least. For memory that is half of malloc's smallest block,
    /// and what threads keep for their next allocations.
    int64_t PerRound;
    int64_t AtLeast;
};

constexpr Quantity kQuantities[] = {{"bytes of heap", HeapBytes, 16, int64_t{16} << 10},
                                    {"threads", CountThreads, 0, 0},
                                    {"descriptors", [] { return CountEntries("/proc/self/fd"); }, 0, 0}};
using Footprint = std::array<int64_t, std::size(kQuantities)>;

/// Measures when `threads` threads are left: a thread that was joined stays in /proc for a moment.
Footprint Measure(int64_t threads) {
    for (int i = 0; i < 5000 && CountThreads() != threads; ++i) std::this_thread::sleep_for(milliseconds(1));
    malloc_trim(0);
    Footprint footprint{};
    for (size_t i = 0; i < footprint.size(); ++i) footprint[i] = kQuantities[i].Read();
    return footprint;
}

/// Does the `rounds` rounds of `work` and judges what they left behind, with the monitor's `threads` at both moments.
template <typename Work>
void RequireNoGrowth(const std::string& phase, uint64_t rounds, int64_t threads, Work work) {
    const Footprint before = Measure(threads);
    work();
    const Footprint after = Measure(threads);
    for (size_t i = 0; i < before.size(); ++i) {
        const Quantity& quantity = kQuantities[i];
        const int64_t bound = std::max(static_cast<int64_t>(rounds) * quantity.PerRound, quantity.AtLeast);
        const std::string figures = phase + ": " + std::to_string(before[i]) + " to " + std::to_string(after[i]) + " " +
                                    quantity.Name + ", bound +" + std::to_string(bound);
        std::puts(figures.c_str());
        Require(after[i] - before[i] <= bound, "Too much growth: " + figures);
    }
    const std::vector<std::string> misuse = SimulatedNvml::Get().Misuse();
    Require(misuse.empty(), misuse.empty() ? "" : "The simulator saw misuse: " + misuse.front());
}

// ---- Phases ----

/// Has the sampler make `count` cycles.
void MakeCycles(unsigned int count) {
    const uint64_t waits = sampler_clock::WaitsBegun();
    // In parts, because a part must not take longer than a wait's patience.
    constexpr unsigned int kPart = 100;
    for (unsigned int made = 0; made < count; made += kPart) {
        sampler_clock::PassWaits(kPart);
        Require(sampler_clock::AwaitWaits(waits + made + kPart), "The sampler does not go on.");
    }
}

/// Full histories, which drop a sample for each new one.
void FillHistories(unsigned int boards) {
    constexpr size_t kHistoryBound = 6000;
    constexpr unsigned int kCyclesBeyondBound = 500;
    constexpr unsigned int kMeasuredCycles = 2000;
    const int64_t threads = CountThreads() + 1;
    NvmlGpuMonitor monitor;
    Require(monitor.Start() && sampler_clock::AwaitWaits(1), "The sampler did not start.");
    MakeCycles(kHistoryBound + kCyclesBeyondBound);
    RequireNoGrowth("histories of " + std::to_string(boards) + " boards", uint64_t{kMeasuredCycles} * boards, threads,
                    [] { MakeCycles(kMeasuredCycles); });
    const std::vector<GpuTelemetryHistory> histories = monitor.Snapshot();
    const auto isFull = [](const GpuTelemetryHistory& history) { return history.Samples.size() == kHistoryBound; };
    Require(histories.size() == boards && std::all_of(histories.begin(), histories.end(), isFull),
            "A history is not at its bound.");
}

/// Starts and stops in turn in each of the ways in which hosts do.
void StartAndStop(uint64_t count, NvmlGpuMonitor* longLived) {
    for (uint64_t i = 0; i < count; ++i) {
        NvmlGpuMonitor stoppedByItsDestructor;
        NvmlGpuMonitor* const monitor = i % 4 == 3 ? &stoppedByItsDestructor : longLived;
        const uint64_t waits = sampler_clock::WaitsBegun();
        Require(monitor->Start(), "A start failed: " + monitor->Status());
        if (i % 4 == 1) Require(sampler_clock::AwaitWaits(waits + 1), "A started sampler made no cycle.");
        if (i % 4 == 2) {
            monitor->PauseSampling();
            Require(monitor->ResumeSampling(), "A resume failed: " + monitor->Status());
        }
        if (i % 4 != 3) monitor->Stop();
    }
}

void StartOften(uint64_t cycles) {
    constexpr uint64_t kWarmUpCycles = 200;
    const int64_t threads = CountThreads();
    NvmlGpuMonitor monitor;
    StartAndStop(kWarmUpCycles, &monitor);
    RequireNoGrowth(std::to_string(cycles) + " starts and stops", cycles, threads,
                    [&] { StartAndStop(cycles, &monitor); });
    const uint64_t inits = SimulatedNvml::Get().Calls("nvmlInit_v2");
    // The histories took one start more.
    Require(inits == 1 + kWarmUpCycles + cycles && inits == SimulatedNvml::Get().Calls("nvmlShutdown"),
            "NVML was not initialized and shut down once per start and stop.");
}

}  // namespace

int main(int argc, char** argv) try {
    unsigned int boards = 64;
    uint64_t cycles = 10000;
    CLI::App app("Fails when memory, threads or file descriptors grow in a long run over the simulated NVML.", "soak");
    app.add_option("--boards", boards, "How many boards, 1 to 64; default 64")->check(CLI::Range(1, 64));
    app.add_option("--cycles", cycles, "How many starts and stops; default 10000")->check(CLI::Range(1, 1000000000));
    CLI11_PARSE(app, argc, argv);
    // The thread sanitizer starts a thread of its own with the first one of the program.
    std::thread([] {}).join();
    SimulatedNvml::Get().ForbidConcurrentCalls();
    SimulatedNvml::Get().SetBoards(fixed_boards::FixedBoards(boards));
    sampler_clock::Hold();
    FillHistories(boards);
    StartOften(cycles);
    return 0;
} catch (const std::exception& finding) {
    std::fprintf(stderr, "soak: %s\n", finding.what());
    return 1;
}
