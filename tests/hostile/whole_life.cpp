// One whole life of a monitor. Again and again, each time with another call of NVML that fails, another lookup that
// misses, or another allocation that throws: after each, nothing may be broken, and everything works again. And once
// from several threads.

#include <future>
#include <new>

#include "failing_memory.h"
#include "monitor_test.h"

namespace {

using namespace failing_memory;
using namespace testing;
using Result = GpuClockOperationResult;

constexpr uint64_t kCycles = 3;
constexpr std::chrono::seconds kLongInterval{10};

class WholeLife : public ScriptedTest {
protected:
    WholeLife() { bChecking = true; }
    ~WholeLife() override { bChecking = false; }

    /// The whole life with what `prepare` makes fail.
    template <typename Preparation>
    void LiveWith(const std::string& failing, Preparation prepare) {
        SCOPED_TRACE(failing);
        StartOver();
        UseBytes(1);
        sampler_clock::Reset();
        bAllocationFailed = false;
        bFailing = failing != "nothing";
        prepare();
        NvmlGpuMonitor monitor;
        RunSampler(&monitor);
        QueryAndChange(&monitor);
        monitor.Stop();
        Sim.StopFailing();
        AllocationsUntilFailure = 0;
        ExpectRecovery(&monitor);
    }

    /// Runs an operation of the monitor; nothing but running out of memory may pass out of it. False: it did.
    template <typename Operation>
    static bool Attempt(Operation operation) {
        bChecking = false;
        bool bEnded = true;
        try {
            operation();
        } catch (const std::bad_alloc&) {
            bEnded = false;
        }
        bChecking = true;
        EXPECT_TRUE(bEnded || bAllocationFailed);
        return bEnded;
    }

    /// Runs a change: it has a sentence exactly when it failed.
    template <typename Change>
    void AttemptChange(Change change) const {
        std::string error;
        auto result = Result::Error;
        if (!Attempt([&] { result = change(&error); })) return;
        EXPECT_EQ(result == Result::Success, error.empty()) << error;
        EXPECT_TRUE(bFailing || result == Result::Success) << error;
    }

    /// Three cycles of the sampler, if it can be started.
    void RunSampler(NvmlGpuMonitor* monitor) {
        bool bStarted = false;
        monitor->SetSampleInterval(kLongInterval);
        Attempt([&] { bStarted = monitor->Start(); });
        EXPECT_EQ(Sim.Use().OpenLibraries != 0, monitor->IsAvailable());
        std::vector<GpuTelemetryHistory> before(2);
        for (uint64_t cycle = 1; bStarted && cycle <= kCycles; ++cycle) {
            if (cycle > 1) monitor->SetSampleInterval(kLongInterval);
            EXPECT_TRUE(sampler_clock::AwaitWaits(cycle));
            const std::vector<GpuTelemetryHistory> after = monitor->Snapshot();
            for (size_t i = 0; bAllocationFailed && i < 2; ++i) ExpectAllOrNothing(before[i], after[i]);
            before = after;
            UseBytes(cycle + 1);
        }
    }

    /// From now on, one process runs on each GPU and uses so many bytes.
    void UseBytes(uint64_t bytes) {
        simulated_nvml::Readings readings;
        readings.ComputeProcesses = {{10, bytes}};
        Sim.SetBoards(fixed_boards::FixedBoards(2, readings));
    }

    /// A cycle that ran out of memory has stored a sample and the processes of a GPU, or neither.
    static void ExpectAllOrNothing(const GpuTelemetryHistory& before, const GpuTelemetryHistory& after) {
        const auto bytes = [](const GpuTelemetryHistory& history) {
            return history.ProcessMemory.empty() ? 0 : history.ProcessMemory[0].VramUsedBytes;
        };
        EXPECT_EQ(before.Samples.size() != after.Samples.size(), bytes(before) != bytes(after));
    }

    void QueryAndChange(NvmlGpuMonitor* monitor) const {
        GpuTelemetrySample sample;
        GpuClockCapabilities clocks;
        GpuPowerCapabilities power;
        GpuClockState state;
        std::vector<GpuTelemetryHistory> histories;
        Attempt([&] { monitor->ReadCurrentSample(&sample); });
        Attempt([&] { monitor->ReadCurrentSample(1, &sample); });
        Attempt([&] { monitor->GetClockCapabilities(&clocks); });
        Attempt([&] { monitor->GetClockCapabilities(1, &clocks); });
        Attempt([&] { monitor->GetPowerCapabilities(1, &power); });
        Attempt([&] { monitor->CaptureClockState(&state); });
        EXPECT_EQ(clocks.CanControl, !clocks.SupportedPairs.empty());
        AttemptChange([&](std::string* error) { return monitor->SetLockedClock({1500, 810}, error); });
        AttemptChange([&](std::string* error) { return monitor->SetLockedClock(1, {1500, 810}, error); });
        AttemptChange([&](std::string* error) { return monitor->SetPowerLimit(1, 200.0, error); });
        AttemptChange([&](std::string* error) { return monitor->RestoreDefaultPowerLimit(1, error); });
        AttemptChange([&](std::string* error) { return monitor->RestoreDefaultClocks(error); });
        AttemptChange([&](std::string* error) { return monitor->RestoreDefaultClocks(1, error); });
        AttemptChange([&](std::string* error) { return monitor->RestoreClockState(state, error); });
        Attempt([&] { histories = monitor->Snapshot(); });
        Attempt([&] { histories = monitor->SnapshotSince(SteadySeconds() - 0.2); });
    }

    /// What works when nothing fails must work again.
    static void ExpectRecovery(NvmlGpuMonitor* monitor) {
        EXPECT_FALSE(monitor->IsAvailable());
        EXPECT_TRUE(monitor->Start() && monitor->IsAvailable());
        EXPECT_EQ(monitor->Status(), "NVML active: 2 NVIDIA GPU(s).");
        GpuTelemetrySample sample;
        EXPECT_TRUE(monitor->ReadCurrentSample(1, &sample) && sample.TemperatureC >= 0);
        EXPECT_EQ(monitor->SetLockedClock(1, {1500, 810}), Result::Success);
        EXPECT_THAT(monitor->Snapshot(), SizeIs(2));
        monitor->Stop();
    }

    bool bFailing = false;
};

TEST_F(WholeLife, SurvivesEveryFailureOfACallOrALookup) {
    LiveWith("nothing", [] {});
    size_t calls = 0;
    size_t lookups = 0;
    for (const std::string& entry : Sim.Log()) {
        // What comes after the first shutdown is the recovery, in which nothing is to fail.
        if (entry == "dlclose") break;
        if (entry.rfind("dlsym ", 0) == 0) {
            LiveWith("missing " + entry, [&] { Sim.MissNthLookup(++lookups); });
        } else if (entry.rfind("nvml", 0) == 0) {
            ++calls;
            for (const unsigned int code : {1U, 3U, 4U, 7U, 15U, 999U}) {
                LiveWith(entry + " failing", [&] { Sim.FailNthCall(calls, code); });
            }
        }
    }
    EXPECT_GT(std::min(calls, lookups), 200U);
}

TEST_F(WholeLife, SurvivesEveryFailureOfAnAllocation) {
    uint64_t allocation = 0;
    do {
        LiveWith("allocation " + std::to_string(++allocation), [&] { AllocationsUntilFailure = allocation; });
    } while (bAllocationFailed);
    EXPECT_GT(allocation, 100U);
}

TEST_F(WholeLife, IsSharedByThreads) {
    NvmlGpuMonitor monitor;
    UseBytes(1);
    EXPECT_TRUE(monitor.Start());
    const auto useMonitor = [&] {
        for (int i = 0; i < 50; ++i) {
            monitor.SetSampleInterval(std::chrono::milliseconds(100 + i));
            monitor.SetInitialSampleDelay(std::chrono::milliseconds(i));
            QueryAndChange(&monitor);
            monitor.IsAvailable();
            EXPECT_EQ(monitor.Status(), "NVML active: 2 NVIDIA GPU(s).");
        }
    };
    std::future<void> users[4];
    for (std::future<void>& user : users) user = std::async(std::launch::async, useMonitor);
    for (int i = 0; i < 20; ++i) {
        monitor.Stop();
        EXPECT_TRUE(monitor.Start());
    }
}

}  // namespace
