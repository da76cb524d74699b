// One whole life of a monitor, again and again: each time another call of NVML fails, another lookup misses, or another
// allocation throws, until each has been tried. After each, nothing may be broken, and everything works again.
//
// Prints how many failures were tried. Exit status: 0, or 1 with a sentence about each failure that broke something.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "failing_memory.h"
#include "fixed_boards.h"
#include "nvml_gpu_monitor.h"
#include "sampler_clock.h"
#include "simulated_nvml.h"

namespace {

using namespace failing_memory;
using simulated_nvml::SimulatedNvml;

constexpr uint64_t kCycles = 3;
constexpr std::chrono::seconds kLongInterval{10};

/// The faults that were found, one sentence each.
std::vector<std::string> Faults;
/// What is made to fail at present.
std::string Present;

void Expect(bool bHolds, const std::string& sentence) {
    if (!bHolds) Faults.push_back(Present + ": " + sentence);
}

/// Runs an operation of the monitor; nothing but running out of memory may pass out of it. False: it did.
template <typename Operation>
bool Attempt(Operation operation) {
    bChecking = false;
    bool bEnded = true;
    try {
        operation();
    } catch (const std::bad_alloc&) {
        bEnded = false;
    }
    bChecking = true;
    Expect(bEnded || bAllocationFailed, "out of memory without a reason");
    return bEnded;
}

/// Runs a change: it has a sentence exactly when it failed.
template <typename Change>
void AttemptChange(const char* name, Change change) {
    std::string error;
    auto result = GpuClockOperationResult::Error;
    if (!Attempt([&] { result = change(&error); })) return;
    const bool bDone = result == GpuClockOperationResult::Success;
    Expect(bDone == error.empty(), std::string(name) + (bDone ? " succeeded and complained" : " failed silently"));
}

void ExpectWholeHistories(const std::vector<GpuTelemetryHistory>& histories) {
    for (const GpuTelemetryHistory& history : histories) {
        Expect(!history.Device.Name.empty(), "a GPU without a name");
        Expect(history.Samples.size() <= kCycles, "more samples than cycles");
        std::set<int> pids;
        for (const GpuProcessMemory& process : history.ProcessMemory) {
            Expect(pids.insert(process.Pid).second && process.VramUsedBytes > 0, "a process list that makes no sense");
        }
        // Where NVML does not fail, each cycle lists both processes; one that ran out of memory stored all or nothing.
        const size_t listed = history.Samples.empty() ? 0 : 2;
        if (bAllocationFailed) Expect(history.ProcessMemory.size() == listed, "a process list that is not whole");
    }
}

/// Three cycles of the sampler, if it can be started.
void RunSampler(NvmlGpuMonitor* monitor) {
    bool bStarted = false;
    monitor->SetSampleInterval(kLongInterval);
    Attempt([&] { bStarted = monitor->Start(); });
    const bool bOpen = SimulatedNvml::Get().Use().OpenLibraries != 0;
    Expect(bOpen == monitor->IsAvailable(), "the library is open without need, or closed too soon");
    for (uint64_t cycle = 1; bStarted && cycle <= kCycles; ++cycle) {
        Expect(sampler_clock::AwaitWaits(cycle), "a cycle did not come to its end");
        if (cycle < kCycles) monitor->SetSampleInterval(kLongInterval);
    }
}

void QueryAndChange(NvmlGpuMonitor* monitor) {
    GpuTelemetrySample sample;
    GpuClockCapabilities clocks;
    GpuPowerCapabilities power;
    GpuClockState state;
    Attempt([&] { monitor->ReadCurrentSample(&sample); });
    Attempt([&] { monitor->GetClockCapabilities(1, &clocks); });
    Attempt([&] { monitor->GetPowerCapabilities(1, &power); });
    Attempt([&] { monitor->CaptureClockState(&state); });
    Expect(clocks.CanControl == !clocks.SupportedPairs.empty(), "lockable clocks and their list disagree");
    using Error = std::string*;
    AttemptChange("a lock", [&](Error error) { return monitor->SetLockedClock(1, {1500, 810}, error); });
    AttemptChange("a limit", [&](Error error) { return monitor->SetPowerLimit(1, 200.0, error); });
    AttemptChange("the default limit", [&](Error error) { return monitor->RestoreDefaultPowerLimit(1, error); });
    AttemptChange("a reset", [&](Error error) { return monitor->RestoreDefaultClocks(1, error); });
    AttemptChange("a restored state", [&](Error error) { return monitor->RestoreClockState(state, error); });
    std::vector<GpuTelemetryHistory> histories;
    Attempt([&] { histories = monitor->Snapshot(); });
    ExpectWholeHistories(histories);
}

/// What works when nothing fails must work again.
void ExpectRecovery(NvmlGpuMonitor* monitor) {
    Expect(!monitor->IsAvailable(), "NVML is up after a stop");
    Expect(monitor->Start() && monitor->IsAvailable(), "no start afterwards");
    Expect(monitor->Status() == "NVML active: 2 NVIDIA GPU(s).", "the status afterwards is " + monitor->Status());
    GpuTelemetrySample sample;
    Expect(monitor->ReadCurrentSample(1, &sample) && sample.TemperatureC >= 0, "no sample afterwards");
    Expect(monitor->SetLockedClock(1, {1500, 810}) == GpuClockOperationResult::Success, "no lock afterwards");
    Expect(monitor->Snapshot().size() == 2, "no histories afterwards");
    monitor->Stop();
}

/// The whole life with what `prepare` makes fail.
template <typename Preparation>
void LiveWith(const std::string& failing, Preparation prepare) {
    Present = failing;
    SimulatedNvml& nvml = SimulatedNvml::Get();
    nvml.Reset();
    nvml.SetBoards(fixed_boards::FixedBoards(2));
    nvml.RecordLog();
    nvml.ForbidConcurrentCalls();
    sampler_clock::Reset();
    prepare();
    {
        NvmlGpuMonitor monitor;
        RunSampler(&monitor);
        QueryAndChange(&monitor);
        monitor.Stop();
        nvml.StopFailing();
        AllocationsUntilFailure = 0;
        ExpectRecovery(&monitor);
    }
    for (const std::string& sentence : nvml.Misuse()) Expect(false, sentence);
}

/// The k-th call fails, with each of six codes.
void FailCall(size_t k, const std::string& call) {
    for (const unsigned int code : {1U, 3U, 4U, 7U, 15U, 999U}) {
        LiveWith("call " + std::to_string(k) + ", " + call + ", failing with " + std::to_string(code),
                 [&] { SimulatedNvml::Get().FailNthCall(k, code); });
    }
}

/// The k-th allocation throws, for every k up to the first that is not made any more.
size_t FailEveryAllocation() {
    uint64_t k = 0;
    do {
        ++k;
        LiveWith("allocation " + std::to_string(k) + " failing", [k] {
            bAllocationFailed = false;
            AllocationsUntilFailure = k;
        });
    } while (bAllocationFailed);
    return k - 1;
}

}  // namespace

int main() {
    bChecking = true;
    LiveWith("nothing failing", [] {});
    size_t calls = 0;
    size_t lookups = 0;
    for (const std::string& entry : SimulatedNvml::Get().Log()) {
        // What comes after the first shutdown is the recovery, in which nothing is to fail.
        if (entry == "dlclose") break;
        if (entry.rfind("nvml", 0) == 0) FailCall(++calls, entry);
        if (entry.rfind("dlsym ", 0) == 0) {
            ++lookups;
            LiveWith("lookup " + std::to_string(lookups) + ", " + entry + ", missing",
                     [&] { SimulatedNvml::Get().MissNthLookup(lookups); });
        }
    }
    const size_t allocations = FailEveryAllocation();
    std::printf("%zu calls with 6 codes each; %zu lookups; %zu allocations; %zu faults\n", calls, lookups, allocations,
                Faults.size());
    for (const std::string& fault : Faults) std::printf("%s\n", fault.c_str());
    return Faults.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}
