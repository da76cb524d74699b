// Long runs over the simulated NVML that look for what grows: memory, threads, file descriptors. Each phase does some
// of its work, measures, does much more of the same work and measures again; what a single round needs for good is
// there at the first measurement, so whatever is more at the second one was left behind by the work.

#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "nvml_gpu_monitor.h"
#include "simulated_nvml.h"

// g++ tells by macros what clang++ tells by __has_feature.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SOAK_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SOAK_SANITIZED 1
#endif
#endif
#ifdef SOAK_SANITIZED
// Of the sanitizers' own interface, for which g++ brings no header.
extern "C" size_t __sanitizer_get_current_allocated_bytes();  // NOLINT(bugprone-reserved-identifier)
#endif

namespace {

using simulated_nvml::SimulatedNvml;
using Clock = std::chrono::steady_clock;
using Histories = std::vector<GpuTelemetryHistory>;
using Result = GpuClockOperationResult;
using std::chrono::milliseconds;
using std::chrono::seconds;

#ifdef SOAK_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

constexpr const char* kFirstQueryOfASample = "nvmlDeviceGetTemperature";
constexpr const char* kLastQueryOfASample = "nvmlDeviceGetCurrentClocksThrottleReasons";
constexpr milliseconds kShortestInterval{100};
/// Far above what anything here takes on a busy machine, under a sanitizer too.
constexpr seconds kPatience{120};

struct Options {
    int Seconds = 60;
    unsigned int Boards = 64;
    uint64_t Cycles = 10000;
    std::string Only;
};

/// What a run found, one sentence.
class Finding : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

void Require(bool bHolds, const std::string& otherwise) {
    if (!bHolds) throw Finding(otherwise);
}

SimulatedNvml& Sim() {
    return SimulatedNvml::Get();
}

void UseBoards(unsigned int count) {
    std::vector<simulated_nvml::Board> boards;
    for (unsigned int i = 0; i < count; ++i) boards.push_back(simulated_nvml::DesktopBoard(i));
    Sim().Reset();
    Sim().ForbidConcurrentCalls();
    Sim().SetBoards(boards);
}

void RequireNoMisuse() {
    const std::vector<std::string> misuse = Sim().Misuse();
    Require(misuse.empty(), misuse.empty() ? "" : "The simulator saw misuse: " + misuse.front());
}

/// Looks again and again until `condition` holds. False: it took too long.
bool WaitUntil(milliseconds pause, const std::function<bool()>& condition) {
    const Clock::time_point deadline = Clock::now() + kPatience;
    while (!condition()) {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(pause);
    }
    return true;
}

double SecondsSince(Clock::time_point moment) {
    return std::chrono::duration<double>(Clock::now() - moment).count();
}

std::string Decimals(double value, int count) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", count, value);
    return text;
}

// ---- What must not grow ----

struct Footprint {
    /// What the process has in memory; under a sanitizer that is mostly the sanitizer's.
    int64_t ResidentBytes = 0;
    /// What is allocated and not freed.
    int64_t HeapBytes = 0;
    size_t Threads = 0;
    size_t Descriptors = 0;
};

size_t CountEntries(const char* folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

size_t CountThreads() {
    return CountEntries("/proc/self/task");
}

int64_t ResidentBytes() {
    std::ifstream statm("/proc/self/statm");
    int64_t size = 0;
    int64_t resident = 0;
    statm >> size >> resident;
    Require(resident > 0, "/proc/self/statm cannot be read.");
    return resident * sysconf(_SC_PAGESIZE);
}

int64_t HeapBytes() {
#ifdef SOAK_SANITIZED
    return static_cast<int64_t>(__sanitizer_get_current_allocated_bytes());
#else
    const struct mallinfo2 heap = mallinfo2();
    return static_cast<int64_t>(heap.uordblks + heap.hblkhd);
#endif
}

/// Measures when `threads` threads are left: one that was joined stands in /proc for a moment longer.
Footprint Measure(size_t threads) {
    const Clock::time_point deadline = Clock::now() + seconds(5);
    while (CountThreads() != threads && Clock::now() < deadline) std::this_thread::sleep_for(milliseconds(1));
    malloc_trim(0);
    Footprint footprint;
    footprint.Threads = CountThreads();
    footprint.Descriptors = CountEntries("/proc/self/fd");
    footprint.HeapBytes = HeapBytes();
    footprint.ResidentBytes = ResidentBytes();
    return footprint;
}

/// What memory may grow by while the work is done `rounds` times: half of the smallest block that malloc gives for
/// each, but never less than what the heap counts as in use because a thread keeps it for its next allocation, or than
/// the pages that stacks and heaps of other threads than before come to touch.
struct GrowthBounds {
    explicit GrowthBounds(uint64_t rounds)
        : HeapBytes(std::max<int64_t>(static_cast<int64_t>(rounds) * 16, int64_t{16} * 1024)),
          ResidentBytes(std::max<int64_t>(static_cast<int64_t>(rounds) * 16, int64_t{1024} * 1024)) {}

    int64_t HeapBytes;
    int64_t ResidentBytes;
};

std::string KiB(int64_t bytes) {
    return Decimals(static_cast<double>(bytes) / 1024.0, 1) + " KiB";
}

std::string Change(int64_t before, int64_t after, int64_t bound) {
    return KiB(before) + (after < before ? " " : " +") + KiB(after - before) + " (bound " + KiB(bound) + ")";
}

/// Ends a phase: prints its line of figures, then judges. `rounds` is how often the work was done in between.
void Conclude(const std::string& phase, const std::string& figures, const Footprint& before, const Footprint& after,
              uint64_t rounds) {
    const GrowthBounds bounds(rounds);
    const std::string resident =
        kSanitized ? "" : ", RSS " + Change(before.ResidentBytes, after.ResidentBytes, bounds.ResidentBytes);
    std::printf("%s: %s; heap %s%s, threads %zu to %zu, descriptors %zu to %zu\n", phase.c_str(), figures.c_str(),
                Change(before.HeapBytes, after.HeapBytes, bounds.HeapBytes).c_str(), resident.c_str(), before.Threads,
                after.Threads, before.Descriptors, after.Descriptors);
    std::fflush(stdout);
    Require(after.Threads == before.Threads, phase + ": the number of threads changed.");
    Require(after.Descriptors == before.Descriptors, phase + ": the number of file descriptors changed.");
    Require(after.HeapBytes - before.HeapBytes < bounds.HeapBytes, phase + ": the heap grew beyond its bound.");
    Require(kSanitized || after.ResidentBytes - before.ResidentBytes < bounds.ResidentBytes,
            phase + ": the memory of the process grew beyond its bound.");
    RequireNoMisuse();
}

// ---- Histories: full ones at the shortest interval ----

constexpr size_t kHistoryBound = 6000;
constexpr uint64_t kCyclesBeyondBound = 500;
constexpr uint64_t kCyclesBetweenMeasurements = 2000;

/// Has the sampler run `count` cycles without waiting for its interval.
void WakeForCycles(uint64_t count, unsigned int boards, NvmlGpuMonitor* monitor) {
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t target = Sim().Calls(kLastQueryOfASample) + boards;
        monitor->SetSampleInterval(kShortestInterval);
        // Not the simulator's own wait, which a call of any name wakes: a cycle makes thousands.
        const auto isDone = [target] { return Sim().Calls(kLastQueryOfASample) >= target; };
        while (!isDone()) std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

bool SameReading(const GpuTelemetrySample& a, const GpuTelemetrySample& b) {
    return a.TimestampSeconds == b.TimestampSeconds;
}

/// Requires that a full history goes on where `earlier` ended: its oldest samples are gone, and none in between is.
void RequireSuccession(const std::deque<GpuTelemetrySample>& earlier, const std::deque<GpuTelemetrySample>& later) {
    Require(earlier.size() == kHistoryBound && later.size() == kHistoryBound, "A full history is not at its bound.");
    const auto isOldest = [&](const GpuTelemetrySample& sample) { return SameReading(sample, later.front()); };
    const auto kept = std::find_if(earlier.begin(), earlier.end(), isOldest);
    Require(kept != earlier.begin() && kept != earlier.end(), "A full history did not drop its oldest samples.");
    Require(std::equal(kept, earlier.end(), later.begin(), SameReading),
            "A full history lost a sample that was not its oldest.");
}

/// Requires that the histories of `monitor` are full, and drop their oldest samples for new ones.
void RequireFullHistories(unsigned int boards, NvmlGpuMonitor* monitor) {
    const Histories earlier = monitor->Snapshot();
    WakeForCycles(kCyclesBeyondBound, boards, monitor);
    const Histories later = monitor->Snapshot();
    Require(earlier.size() == boards && later.size() == boards, "A board has no history.");
    for (size_t i = 0; i < boards; ++i) RequireSuccession(earlier[i].Samples, later[i].Samples);
}

/// Lets the sampler run by itself until `end`. Result: how many cycles it made.
uint64_t RunAtTrueInterval(Clock::time_point end, unsigned int boards) {
    const uint64_t before = Sim().Calls(kFirstQueryOfASample);
    std::this_thread::sleep_until(std::max(end, Clock::now() + seconds(2)));
    return (Sim().Calls(kFirstQueryOfASample) - before) / boards;
}

void SoakHistories(const Options& options) {
    const Clock::time_point begin = Clock::now();
    const size_t threads = CountThreads() + 1;
    UseBoards(options.Boards);
    NvmlGpuMonitor monitor;
    monitor.SetSampleInterval(kShortestInterval);
    Require(monitor.Start(), "The sampler did not start.");
    WakeForCycles(kHistoryBound + kCyclesBeyondBound, options.Boards, &monitor);
    const double secondsToFill = SecondsSince(begin);
    RequireFullHistories(options.Boards, &monitor);
    const Footprint before = Measure(threads);
    WakeForCycles(kCyclesBetweenMeasurements, options.Boards, &monitor);
    const Clock::time_point ownRhythm = Clock::now();
    const uint64_t cycles = RunAtTrueInterval(begin + seconds(options.Seconds), options.Boards);
    const double millisecondsOfOwnRhythm = SecondsSince(ownRhythm) * 1000.0;
    Require(cycles > 0, "The sampler made no cycle by itself.");
    const Footprint after = Measure(threads);
    RequireFullHistories(options.Boards, &monitor);
    Conclude("histories",
             std::to_string(options.Boards) + " boards, beyond " + std::to_string(kHistoryBound) +
                 " samples each after " + Decimals(secondsToFill, 1) + " s, then " +
                 std::to_string(kCyclesBetweenMeasurements) + " cycles by wake-ups and " + std::to_string(cycles) +
                 " by itself, one per " + Decimals(millisecondsOfOwnRhythm / static_cast<double>(cycles), 1) + " ms",
             before, after, (kCyclesBetweenMeasurements + cycles) * options.Boards);
}

// ---- Lifecycle: starts and stops ----

constexpr uint64_t kWarmUpCycles = 200;

/// Starts and stops in one of the ways in which hosts do.
void StartAndStop(uint64_t way, unsigned int boards, NvmlGpuMonitor* monitor) {
    const uint64_t handles = Sim().Calls("nvmlDeviceGetHandleByIndex_v2");
    Require(monitor->Start() && monitor->IsAvailable(), "A start failed: " + monitor->Status());
    if (way == 1) {
        // Beyond the calls of discovery.
        Require(
            WaitUntil(milliseconds(0), [&] { return Sim().Calls("nvmlDeviceGetHandleByIndex_v2") > handles + boards; }),
            "A started sampler made no cycle.");
    }
    if (way == 2) {
        monitor->PauseSampling();
        Require(monitor->ResumeSampling(), "A resume failed: " + monitor->Status());
    }
    monitor->Stop();
    Require(!monitor->IsAvailable(), "NVML is up after a stop.");
}

void StartAndStopRepeatedly(uint64_t count, unsigned int boards) {
    NvmlGpuMonitor monitor;
    for (uint64_t i = 0; i < count; ++i) {
        if (i % 4 < 3) {
            StartAndStop(i % 4, boards, &monitor);
        } else {
            NvmlGpuMonitor stoppedByItsDestructor;
            Require(stoppedByItsDestructor.Start(), "A start failed: " + stoppedByItsDestructor.Status());
        }
    }
}

void SoakLifecycle(const Options& options) {
    const size_t threads = CountThreads();
    UseBoards(options.Boards);
    StartAndStopRepeatedly(kWarmUpCycles, options.Boards);
    const Footprint before = Measure(threads);
    const Clock::time_point begin = Clock::now();
    StartAndStopRepeatedly(options.Cycles, options.Boards);
    const double elapsed = SecondsSince(begin);
    const Footprint after = Measure(threads);
    const uint64_t inits = Sim().Calls("nvmlInit_v2");
    Require(inits == kWarmUpCycles + options.Cycles && inits == Sim().Calls("nvmlShutdown"),
            "NVML was not initialized and shut down once per start and stop.");
    Conclude("lifecycle",
             std::to_string(options.Cycles) + " starts and stops with " + std::to_string(options.Boards) +
                 " boards in " + Decimals(elapsed, 1) + " s",
             before, after, options.Cycles);
}

// ---- Hosts: every operation from eight threads ----

constexpr unsigned int kHosts = 8;
/// Not the first: the operations without an index are about that one.
constexpr unsigned int kLostBoard = 1;
/// Histories are copied by every host, so more boards only make copies longer.
constexpr unsigned int kMostHostedBoards = 8;

/// One host's calls. A board that is not lost must obey every one of them.
class Host {
public:
    Host(NvmlGpuMonitor* monitor, unsigned int boards, unsigned int number)
        : Monitor(*monitor), Boards(boards), Number(number) {}

    /// Makes rounds until `bEnd`. Result: how many.
    uint64_t Run(const std::atomic<bool>& bEnd) {
        uint64_t rounds = 0;
        while (!bEnd) {
            Round(rounds++);
            // A real host has other work too; without a pause the sampler would never get the mutex.
            std::this_thread::sleep_for(milliseconds(1));
        }
        return rounds;
    }

private:
    void Round(uint64_t round) {
        const auto board = static_cast<unsigned int>((Number + round) % Boards);
        Look(round);
        Read(board);
        if (board == kLostBoard) {
            // It may be lost at any moment, so any answer will do, as long as it comes.
            TuneWhateverComesOfIt(board);
        } else {
            TuneClocks(board);
            TunePower(board);
        }
        TunePrimary();
    }

    void Look(uint64_t round) {
        Monitor.IsAvailable();
        Require(!Monitor.Status().empty(), "The status is empty.");
        Monitor.SetInitialSampleDelay(milliseconds(round % 2));
        Monitor.SetSampleInterval(kShortestInterval);
        if (round % 8 != 0) return;
        for (const GpuTelemetryHistory& gpu : Monitor.Snapshot()) {
            Require(gpu.Samples.size() <= kHistoryBound, "A history is beyond its bound.");
        }
    }

    void Read(unsigned int board) {
        GpuTelemetrySample sample;
        Require(Monitor.ReadCurrentSample(&sample), "The first board could not be read.");
        Require(Monitor.ReadCurrentSample(board, &sample) || board == kLostBoard, "A board could not be read.");
    }

    void TuneClocks(unsigned int board) {
        GpuClockCapabilities clocks;
        Require(Monitor.GetClockCapabilities(board, &clocks) && clocks.CanControl, "Clocks: " + clocks.Status);
        std::string error;
        const GpuClockPair& pair = clocks.SupportedPairs[Number % clocks.SupportedPairs.size()];
        Require(Monitor.SetLockedClock(board, pair, &error) == Result::Success, "A lock failed: " + error);
        Require(Monitor.RestoreDefaultClocks(board, &error) == Result::Success, "A reset failed: " + error);
    }

    void TunePower(unsigned int board) {
        GpuPowerCapabilities power;
        Require(Monitor.GetPowerCapabilities(board, &power) && power.State == GpuCapabilityState::Supported,
                "Power: " + power.Status);
        std::string error;
        const double watts = std::min(power.MinimumWatts + Number, power.MaximumWatts);
        Require(Monitor.SetPowerLimit(board, watts, &error) == Result::Success, "A limit failed: " + error);
        Require(Monitor.RestoreDefaultPowerLimit(board, &error) == Result::Success, "A limit failed: " + error);
    }

    void TunePrimary() {
        GpuClockCapabilities clocks;
        GpuClockState state;
        Require(Monitor.GetClockCapabilities(&clocks) && clocks.CanControl, "Clocks: " + clocks.Status);
        Require(Monitor.CaptureClockState(&state), "The clocks of the first board could not be captured.");
        std::string error;
        Require(Monitor.SetLockedClock(clocks.SupportedPairs.front(), &error) == Result::Success,
                "A lock failed: " + error);
        Require(Monitor.RestoreClockState(state, &error) == Result::Success, "A reset failed: " + error);
        Require(Monitor.RestoreDefaultClocks(&error) == Result::Success, "A reset failed: " + error);
    }

    void TuneWhateverComesOfIt(unsigned int board) {
        GpuClockCapabilities clocks;
        GpuPowerCapabilities power;
        std::string error;
        Monitor.GetClockCapabilities(board, &clocks);
        Monitor.GetPowerCapabilities(board, &power);
        const GpuClockPair pair = clocks.SupportedPairs.empty() ? GpuClockPair{} : clocks.SupportedPairs.back();
        Monitor.SetLockedClock(board, pair, &error);
        Monitor.RestoreDefaultClocks(board, &error);
        Monitor.SetPowerLimit(board, power.MinimumWatts, &error);
        Monitor.RestoreDefaultPowerLimit(board, &error);
    }

    NvmlGpuMonitor& Monitor;
    const unsigned int Boards;
    const unsigned int Number;
};

/// The threads of all hosts; they end with it, also when the controlling thread has found something.
class HostThreads {
public:
    HostThreads(NvmlGpuMonitor* monitor, unsigned int boards) {
        for (unsigned int i = 0; i < kHosts; ++i) {
            Running.push_back(std::async(std::launch::async,
                                         [this, monitor, boards, i] { return Host(monitor, boards, i).Run(bEnd); }));
        }
    }
    ~HostThreads() { bEnd = true; }
    HostThreads(const HostThreads&) = delete;
    HostThreads& operator=(const HostThreads&) = delete;

    /// How many rounds they made together. Throws what a host found.
    uint64_t Finish() {
        bEnd = true;
        uint64_t rounds = 0;
        for (std::future<uint64_t>& host : Running) rounds += host.get();
        return rounds;
    }

private:
    std::atomic<bool> bEnd{false};
    // Last, so that it is gone before the flag: a future of std::async waits for its thread.
    std::vector<std::future<uint64_t>> Running;
};

/// The controlling thread's part: it takes the sampler through its lifecycle while the hosts call.
class Controller {
public:
    Controller(NvmlGpuMonitor* monitor, unsigned int boards) : Monitor(*monitor), Boards(boards) {}

    /// Starts, pauses, resumes and stops until `end`; leaves the sampler running.
    void GoThroughLifecycle(Clock::time_point end) {
        for (int i = 1; Clock::now() < end; ++i) {
            PauseAndResume();
            if (i % 8 == 0) Monitor.Stop();
            Require(Monitor.Start(), "A start failed: " + Monitor.Status());
        }
    }

    /// Loses a board and goes on until `end`, without a stop, so that the histories tell what became of every board.
    void GoOnWithoutOneBoard(Clock::time_point end) {
        // A start may just have emptied the histories, and the lost board's is to have an end.
        AfterThreeMoreCycles();
        // A few calls later, so that a reading is cut in the middle.
        Sim().LoseBoard(kLostBoard, 5);
        const Histories atLoss = AfterThreeMoreCycles();
        const Histories afterwards = AfterThreeMoreCycles();
        while (Clock::now() < end) PauseAndResume();
        RequireOnlyTheLostStopped(atLoss, AfterThreeMoreCycles());
        RequireOnlyTheLostStopped(atLoss, afterwards);
    }

    void RequireTheLostIsNotListed() {
        Monitor.Stop();
        Require(Monitor.Start(), "A start after the loss failed: " + Monitor.Status());
        const Histories gpus = Monitor.Snapshot();
        Require(gpus.size() + 1 == Boards, "A start after the loss did not list the boards that are left.");
    }

private:
    void PauseAndResume() {
        std::this_thread::sleep_for(milliseconds(20));
        Monitor.PauseSampling();
        Require(Monitor.ResumeSampling(), "A resume failed: " + Monitor.Status());
    }

    Histories AfterThreeMoreCycles() {
        const double since = std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
        Histories gpus;
        const auto isNew = [since](const GpuTelemetrySample& sample) { return sample.TimestampSeconds > since; };
        Require(WaitUntil(milliseconds(20),
                          [&] {
                              gpus = Monitor.Snapshot();
                              const std::deque<GpuTelemetrySample>& samples = gpus.front().Samples;
                              return std::count_if(samples.begin(), samples.end(), isNew) >= 3;
                          }),
                "The sampler made no more cycles.");
        return gpus;
    }

    static void RequireOnlyTheLostStopped(const Histories& atLoss, const Histories& now) {
        for (size_t i = 0; i < now.size(); ++i) {
            const bool bGoesOn = now[i].Samples.back().TimestampSeconds > atLoss[i].Samples.back().TimestampSeconds;
            if (now[i].Device.Index == kLostBoard) {
                Require(!bGoesOn && now[i].Samples.size() == atLoss[i].Samples.size(),
                        "The history of the lost board goes on.");
            } else {
                Require(bGoesOn, "The history of a board that is not lost does not go on.");
            }
        }
    }

    NvmlGpuMonitor& Monitor;
    const unsigned int Boards;
};

/// Result: how many rounds the hosts made.
uint64_t CallFromEveryHost(unsigned int boards, milliseconds duration) {
    UseBoards(boards);
    NvmlGpuMonitor monitor;
    Controller controller(&monitor, boards);
    const Clock::time_point begin = Clock::now();
    Require(monitor.Start(), "The sampler did not start.");
    HostThreads hosts(&monitor, boards);
    controller.GoThroughLifecycle(begin + duration / 2);
    controller.GoOnWithoutOneBoard(begin + duration);
    controller.RequireTheLostIsNotListed();
    const uint64_t rounds = hosts.Finish();
    RequireNoMisuse();
    return rounds;
}

void SoakHosts(const Options& options) {
    const size_t threads = CountThreads();
    const unsigned int boards = std::min(options.Boards, kMostHostedBoards);
    const milliseconds duration = seconds(options.Seconds);
    CallFromEveryHost(boards, std::min<milliseconds>(duration, seconds(10)));
    const Footprint before = Measure(threads);
    const uint64_t rounds = CallFromEveryHost(boards, duration);
    const Footprint after = Measure(threads);
    Conclude("hosts",
             std::to_string(rounds) + " rounds of every operation by " + std::to_string(kHosts) + " threads with " +
                 std::to_string(boards) + " boards, one lost half-way",
             before, after, rounds);
}

// ---- The program ----

struct Phase {
    const char* Name;
    void (*Run)(const Options& options);
};

constexpr Phase kPhases[] = {{"histories", SoakHistories}, {"lifecycle", SoakLifecycle}, {"hosts", SoakHosts}};

int Run(int argc, char** argv) {
    Options options;
    CLI::App app(
        "Runs the monitor for long over the simulated NVML and fails when memory, threads or file descriptors "
        "grow.",
        "soak");
    app.add_option("--seconds", options.Seconds, "How long histories and hosts run, at least; default 60")
        ->check(CLI::Range(1, 86400));
    app.add_option("--boards", options.Boards, "How many boards, 2 to 64; hosts use 8 at most; default 64")
        ->check(CLI::Range(2, 64));
    app.add_option("--cycles", options.Cycles, "How many starts and stops; default 10000")
        ->check(CLI::Range(1, 1000000000));
    app.add_option("--only", options.Only, "One phase alone")
        ->check(CLI::IsMember({"histories", "lifecycle", "hosts"}));
    CLI11_PARSE(app, argc, argv);
    if (kSanitized) {
        std::puts(
            "RSS is not judged here, where most of it is the sanitizer's: its own count of the heap decides, and "
            "LeakSanitizer at the end where it is at work.");
    }
    // The thread sanitizer starts a thread of its own with the first one of the program.
    std::thread([] {}).join();
    for (const Phase& phase : kPhases) {
        if (options.Only.empty() || options.Only == phase.Name) phase.Run(options);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& finding) {
        std::fprintf(stderr, "soak: %s\n", finding.what());
        return 1;
    }
}
