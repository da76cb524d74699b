// The sampler: its cycles, what they leave in the histories, and when they run.

#include <future>
#include <map>
#include <tuple>

#include "monitor_test.h"

namespace {

using simulated_nvml::Process;
using std::chrono::milliseconds;
using namespace testing;

using ProcessBytes = std::map<int, uint64_t>;

constexpr milliseconds kLongestInterval{10000};
/// Far below the longest interval, far above what an action that happens at once takes on a busy machine.
constexpr double kAtOnceSeconds = 9.0;

double Seconds(std::chrono::nanoseconds duration) {
    return std::chrono::duration<double>(duration).count();
}

class SamplerTest : public MonitorTest {
protected:
    /// Waits until `readings` readings have begun, and for the end of the cycle that made the last of them.
    std::vector<GpuTelemetryHistory> SnapshotAfterReadings(uint64_t readings) {
        EXPECT_TRUE(WaitForCalls("nvmlDeviceGetTemperature", readings));
        return Monitor.Snapshot();
    }

    /// Starts a sampler that sleeps for long after its first cycle.
    std::vector<GpuTelemetryHistory> SnapshotAfterFirstCycle() {
        const uint64_t readings = Sim.Calls("nvmlDeviceGetTemperature");
        Monitor.SetSampleInterval(kLongestInterval);
        EXPECT_TRUE(Monitor.Start());
        return SnapshotAfterReadings(readings + 1);
    }

    /// Has a sampler that sleeps for long run one more cycle.
    std::vector<GpuTelemetryHistory> SnapshotAfterNextCycle() {
        const uint64_t handles = Sim.Calls("nvmlDeviceGetHandleByIndex_v2");
        Monitor.SetSampleInterval(kLongestInterval);
        EXPECT_TRUE(WaitForCalls("nvmlDeviceGetHandleByIndex_v2", handles + 1));
        return Monitor.Snapshot();
    }

    double SecondsBetweenFirstTwoCycles() {
        const std::vector<GpuTelemetryHistory> histories = SnapshotAfterReadings(2);
        const std::deque<GpuTelemetrySample>& samples = histories.front().Samples;
        return samples[1].TimestampSeconds - samples[0].TimestampSeconds;
    }

    /// Expects the first wait to last `duration` from a moment after `since` on.
    static void ExpectFirstWait(double since, milliseconds duration) {
        ASSERT_TRUE(sampler_clock::AwaitWaits(1));
        const sampler_clock::TimedWait wait = sampler_clock::LatestWait();
        EXPECT_GE(Seconds(wait.Deadline), since + Seconds(duration));
        EXPECT_LE(wait.Duration, duration);
    }

    /// What one cycle lists for a board on which these processes run.
    ProcessBytes ListedOf(const std::vector<Process>& compute, const std::vector<Process>& graphics = {}) {
        Monitor.Stop();
        simulated_nvml::Readings readings;
        readings.ComputeProcesses = compute;
        readings.GraphicsProcesses = graphics;
        Sim.SetBoards(fixed_boards::FixedBoards(1, readings));
        const GpuTelemetryHistory history = SnapshotAfterFirstCycle().front();
        ProcessBytes listed;
        for (const GpuProcessMemory& process : history.ProcessMemory) {
            EXPECT_TRUE(listed.emplace(process.Pid, process.VramUsedBytes).second) << "listed twice";
        }
        return listed;
    }

    static std::vector<Process> ManyProcesses(unsigned int count) {
        std::vector<Process> processes;
        for (unsigned int pid = 1; pid <= count; ++pid) processes.push_back({pid, 1000});
        return processes;
    }
};

// ---- What a cycle does ----

TEST_F(SamplerTest, CycleLooksUpThreeNamesThenReadsEachBoardCompletely) {
    Sim.SetBoards(fixed_boards::FixedBoards(3, {}));
    Sim.FailFrom("nvmlDeviceGetName", simulated_nvml::kUnknown, 1, 0);
    GpuTelemetrySample sample;
    Monitor.ReadCurrentSample(&sample);
    const size_t beforeCycle = Sim.Log().size();
    SnapshotAfterFirstCycle();
    EXPECT_EQ(Log(beforeCycle, {"Handle", "Processes", "Temperature("}),
              "?HandleByIndex_v2 ?ComputeRunningProcesses_v3 ?GraphicsRunningProcesses_v3 "
              "HandleByIndex_v2(1) ?HandleByIndex_v2 HandleByIndex_v2(1) Temperature(1, 0) "
              "ComputeRunningProcesses_v3(1, 0) ComputeRunningProcesses_v3(1, 128) "
              "GraphicsRunningProcesses_v3(1, 0) GraphicsRunningProcesses_v3(1, 128) "
              "HandleByIndex_v2(2) ?HandleByIndex_v2 HandleByIndex_v2(2) Temperature(2, 0) "
              "ComputeRunningProcesses_v3(2, 0) ComputeRunningProcesses_v3(2, 128) "
              "GraphicsRunningProcesses_v3(2, 0) GraphicsRunningProcesses_v3(2, 128) ");
}

TEST_F(SamplerTest, ProcessesAreMergedByTheirLargestValue) {
    EXPECT_EQ(ListedOf({{10, 300}, {11, 0}, {0, 5}, {12, UINT64_MAX}, {13, 700}, {13, 100}, {UINT32_MAX, UINT32_MAX}},
                       {{10, 500}, {14, 1}}),
              (ProcessBytes{{10, 500}, {13, 700}, {14, 1}, {-1, UINT32_MAX}}));
}

TEST_F(SamplerTest, ProcessListIsAskedForOnceWithinItsBounds) {
    const std::tuple<unsigned int, int, const char*, size_t> cases[] = {{0, 0, "128", 0},        {1, 0, "1", 1},
                                                                        {4096, 0, "4096", 4096}, {5000, 0, "4096", 0},
                                                                        {3, +1, "3", 0},         {3, -2, "3", 1}};
    for (const auto& [processes, change, room, listed] : cases) {
        Sim.ChangeListAfterSizeQuery("nvmlDeviceGetComputeRunningProcesses_v3", change);
        EXPECT_THAT(ListedOf(ManyProcesses(processes)), SizeIs(listed)) << processes;
        EXPECT_THAT(Log(),
                    EndsWith("ComputeRunningProcesses_v3(0, 0) ComputeRunningProcesses_v3(0, " + std::string(room) +
                             ") GraphicsRunningProcesses_v3(0, 0) GraphicsRunningProcesses_v3(0, 128) "));
    }
    Sim.FailFrom("nvmlDeviceGetComputeRunningProcesses_v3", simulated_nvml::kUnknown);
    EXPECT_THAT(ListedOf(ManyProcesses(3)), IsEmpty());
    EXPECT_THAT(Log(), HasSubstr("ComputeRunningProcesses_v3(0, 0) ComputeRunningProcesses_v3(0, 3) "));
}

TEST_F(SamplerTest, DriverThatWritesLongerRecordsStaysWithinTheBuffer) {
    Sim.SetProcessRecordBytes(32);
    for (const unsigned int processes : {1U, 2U, 3U, 4096U}) {
        EXPECT_EQ(ListedOf(ManyProcesses(processes))[1], 1000U) << "the first record lies where it always does";
    }
}

TEST_F(SamplerTest, OlderProcessQueriesServeWhenNewerOnesAreMissing) {
    for (const std::string version : {"_v3", "_v2", ""}) {
        EXPECT_EQ(ListedOf({{10, 300}}, {{11, 400}}), (ProcessBytes{{10, 300}, {11, 400}})) << version;
        EXPECT_EQ(Sim.Calls("nvmlDeviceGetComputeRunningProcesses" + version), 2) << version;
        EXPECT_EQ(Sim.Calls("nvmlDeviceGetGraphicsRunningProcesses" + version), 2) << version;
        Sim.HideEntryPoint("nvmlDeviceGetComputeRunningProcesses" + version);
        Sim.HideEntryPoint("nvmlDeviceGetGraphicsRunningProcesses" + version);
    }
    EXPECT_THAT(ListedOf({{10, 300}}), IsEmpty());
}

TEST_F(SamplerTest, BoardWithoutAHandleIsSkippedAndPartialSamplesAreKept) {
    simulated_nvml::Readings readings;
    readings.ComputeProcesses = {{10, 300}};
    Sim.SetBoards(fixed_boards::FixedBoards(2, readings));
    SnapshotAfterFirstCycle();
    Sim.FailFrom("nvmlDeviceGetHandleByIndex_v2", simulated_nvml::kGpuIsLost, 1, 0);
    Sim.FailFrom("nvmlDeviceGetPowerUsage", simulated_nvml::kNotSupported);
    Sim.FailFrom("nvmlDeviceGetClockInfo", simulated_nvml::kNotSupported);
    Sim.FailFrom("nvmlDeviceGetComputeRunningProcesses_v3", simulated_nvml::kUnknown);
    const std::vector<GpuTelemetryHistory> histories = SnapshotAfterNextCycle();
    EXPECT_THAT(histories[0].Samples, SizeIs(1));
    EXPECT_THAT(histories[0].ProcessMemory, SizeIs(1));
    ASSERT_THAT(histories[1].Samples, SizeIs(2));
    EXPECT_THAT(histories[1].ProcessMemory, IsEmpty()) << "replaced, also by nothing";
    EXPECT_EQ(histories[1].Samples.back().PowerWatts, -1.0);
    EXPECT_GE(histories[1].Samples.back().TemperatureC, 0);
    Sim.StopFailing();
    const GpuTelemetryHistory resumed = SnapshotAfterNextCycle()[0];
    EXPECT_THAT(resumed.Samples, SizeIs(2));
    EXPECT_THAT(resumed.ProcessMemory, SizeIs(1)) << "replaced, not added to";
}

TEST_F(SamplerTest, HistoryKeepsTheNewest6000Samples) {
    constexpr uint64_t kBound = 6000;
    Sim.Reset();
    Sim.SetBoards(fixed_boards::FixedBoards(1, {}));
    Monitor.Start();
    for (uint64_t cycle = 1; cycle < kBound; ++cycle) {
        ASSERT_TRUE(WaitForCalls("nvmlDeviceGetTemperature", cycle));
        Monitor.SetSampleInterval(kLongestInterval);
    }
    const GpuTelemetryHistory full = SnapshotAfterReadings(kBound).front();
    ASSERT_THAT(full.Samples, SizeIs(kBound));
    const GpuTelemetryHistory stillFull = SnapshotAfterNextCycle().front();
    EXPECT_THAT(stillFull.Samples, SizeIs(kBound));
    EXPECT_EQ(stillFull.Samples.front().TimestampSeconds, full.Samples[1].TimestampSeconds);
}

// ---- When cycles run ----

TEST_F(SamplerTest, DefaultIsACycleAtOnceAndThenOneSecond) {
    Monitor.Start();
    ExpectFirstWait(SnapshotAfterReadings(1).front().Samples.front().TimestampSeconds, milliseconds(1000));
}

TEST_F(SamplerTest, IntervalAndInitialDelayAreKeptWithinTheirBounds) {
    const int cases[][3] = {{-5, 100, 0},    {0, 100, 0},           {50, 100, 50},
                            {250, 250, 250}, {10000, 10000, 10000}, {20000, 10000, 10000}};
    for (const auto& [asked, interval, delay] : cases) {
        SCOPED_TRACE(asked);
        NvmlGpuMonitor monitor;
        monitor.SetSampleInterval(milliseconds(asked));
        const double started = SteadySeconds();
        monitor.Start();
        ExpectFirstWait(started, milliseconds(interval));
        monitor.PauseSampling();

        sampler_clock::Reset();
        monitor.SetInitialSampleDelay(milliseconds(asked));
        const uint64_t readings = Sim.Calls("nvmlDeviceGetTemperature");
        const double resumed = SteadySeconds();
        monitor.ResumeSampling();
        ExpectFirstWait(resumed, milliseconds(delay == 0 ? interval : delay));
        EXPECT_TRUE(delay > 0 || Sim.Calls("nvmlDeviceGetTemperature") > readings) << "no wait before the first cycle";
        monitor.PauseSampling();
        sampler_clock::Reset();
    }
}

TEST_F(SamplerTest, SettingTheIntervalDuringACycleIsNotLost) {
    Sim.Block("nvmlDeviceGetFanSpeed");
    Monitor.SetSampleInterval(kLongestInterval);
    Monitor.Start();
    ASSERT_TRUE(WaitForCalls("nvmlDeviceGetFanSpeed", 1));
    const auto set = std::async(std::launch::async, [this] { Monitor.SetSampleInterval(kLongestInterval); });
    Sim.Unblock();
    EXPECT_LT(SecondsBetweenFirstTwoCycles(), kAtOnceSeconds);
}

TEST_F(SamplerTest, OnlySettingTheIntervalEndsAWait) {
    Monitor.SetSampleInterval(milliseconds(200));
    Monitor.Start();
    ASSERT_TRUE(sampler_clock::AwaitWaits(1));
    Monitor.SetInitialSampleDelay(milliseconds(0));
    EXPECT_GE(SecondsBetweenFirstTwoCycles(), 0.2);
    Monitor.Stop();

    sampler_clock::Reset();
    SnapshotAfterFirstCycle();
    ASSERT_TRUE(sampler_clock::AwaitWaits(1));
    const std::deque<GpuTelemetrySample> samples = SnapshotAfterNextCycle().front().Samples;
    ASSERT_THAT(samples, SizeIs(2));
    EXPECT_LT(samples[1].TimestampSeconds - samples[0].TimestampSeconds, kAtOnceSeconds);
}

TEST_F(SamplerTest, SettingTheIntervalStartsARunningInitialDelayOver) {
    Monitor.SetInitialSampleDelay(kLongestInterval);
    const double started = SteadySeconds();
    Monitor.Start();
    ASSERT_TRUE(sampler_clock::AwaitWaits(1));
    Monitor.SetInitialSampleDelay(milliseconds(200));
    const double set = SteadySeconds();
    Monitor.SetSampleInterval(kLongestInterval);
    const double sampled = SnapshotAfterReadings(1).front().Samples.front().TimestampSeconds;
    EXPECT_GE(sampled, set + 0.2) << "the whole delay";
    EXPECT_LT(sampled, started + kAtOnceSeconds) << "the delay read again";
}

TEST_F(SamplerTest, SpuriousWakeUpsLeaveTheDeadlineWhereItIs) {
    sampler_clock::Hold();
    Monitor.SetSampleInterval(milliseconds(150));
    Monitor.Start();
    ASSERT_TRUE(sampler_clock::AwaitWaits(1));
    const std::chrono::nanoseconds deadline = sampler_clock::LatestWait().Deadline;
    for (uint64_t waits = 2; waits < 4; ++waits) {
        sampler_clock::WakeSpuriously();
        ASSERT_TRUE(sampler_clock::AwaitWaits(waits));
        EXPECT_EQ(sampler_clock::LatestWait().Deadline, deadline);
    }
    EXPECT_EQ(Sim.Calls("nvmlDeviceGetTemperature"), 1);
    sampler_clock::PassWaits();
    EXPECT_GE(SecondsBetweenFirstTwoCycles(), 0.15);
}

// ---- Lifecycle ----

TEST_F(SamplerTest, StopAndPauseEndWaitsAtOnce) {
    const double started = SteadySeconds();
    SnapshotAfterFirstCycle();
    ASSERT_TRUE(sampler_clock::AwaitWaits(1));
    Monitor.PauseSampling();
    Monitor.SetInitialSampleDelay(kLongestInterval);
    Monitor.ResumeSampling();
    ASSERT_TRUE(sampler_clock::AwaitWaits(2));
    Monitor.Stop();
    EXPECT_LT(SteadySeconds() - started, kAtOnceSeconds);
    EXPECT_EQ(Sim.Calls("nvmlDeviceGetTemperature"), 1);
}

TEST_F(SamplerTest, PauseKeepsNvmlAndHistoriesAndASecondStartChangesNothing) {
    Monitor.PauseSampling();
    SnapshotAfterFirstCycle();
    Monitor.PauseSampling();
    GpuTelemetrySample sample;
    EXPECT_TRUE(Monitor.ReadCurrentSample(&sample)) << "everything else works while paused";
    EXPECT_TRUE(Monitor.ResumeSampling());
    EXPECT_THAT(SnapshotAfterReadings(3).front().Samples, SizeIs(2));
    EXPECT_EQ(Sim.Calls("nvmlInit_v2"), 1);
    sampler_clock::RefuseThreads(2);
    EXPECT_TRUE(Monitor.Start()) << "no second thread";
    EXPECT_TRUE(Monitor.ResumeSampling()) << "no second thread";
}

TEST_F(SamplerTest, StopKeepsTheDataUntilTheNextStart) {
    SnapshotAfterFirstCycle();
    Monitor.Stop();
    EXPECT_FALSE(Monitor.IsAvailable());
    EXPECT_EQ(Monitor.Status(), "NVML active: 1 NVIDIA GPU(s).");
    EXPECT_THAT(Monitor.Snapshot().front().Samples, SizeIs(1));
    EXPECT_THAT(Monitor.Snapshot().front().ProcessMemory, testing::Not(IsEmpty()));
    Monitor.SetInitialSampleDelay(kLongestInterval);
    EXPECT_TRUE(Monitor.ResumeSampling());
    EXPECT_THAT(Monitor.Snapshot().front().Samples, IsEmpty());
    EXPECT_EQ(Sim.Calls("nvmlInit_v2"), 2);
}

TEST_F(SamplerTest, StopDuringASlowCycleLetsTheCycleFinish) {
    Sim.SetBoards(fixed_boards::FixedBoards(1, {}));
    Sim.Block("nvmlDeviceGetFanSpeed");
    Monitor.Start();
    ASSERT_TRUE(WaitForCalls("nvmlDeviceGetFanSpeed", 1));
    auto stopped = std::async(std::launch::async, [this] { Monitor.Stop(); });
    EXPECT_EQ(Sim.Calls("nvmlShutdown"), 0);
    Sim.Unblock();
    stopped.get();
    EXPECT_THAT(Monitor.Snapshot().front().Samples, SizeIs(1));
    EXPECT_EQ(Sim.Calls("nvmlDeviceGetTemperature"), 1);
    EXPECT_THAT(Log(), EndsWith("GraphicsRunningProcesses_v3(0, 128) ?Shutdown Shutdown() dlclose "));
}

TEST_F(SamplerTest, ManyThreadsMayUseARunningMonitor) {
    Sim.SetBoards(fixed_boards::FixedBoards(2, {}, {{11201, {2100}}}));
    Monitor.SetInitialSampleDelay(milliseconds(10));
    Monitor.Start();
    const auto beAHost = [this](unsigned int host) {
        for (int i = 0; i < 50; ++i) {
            Monitor.SetSampleInterval(milliseconds(100 + i));
            Monitor.SetInitialSampleDelay(milliseconds(i));
            EXPECT_THAT(Monitor.Snapshot(), SizeIs(2));
            GpuTelemetrySample sample;
            EXPECT_TRUE(host == 0 ? Monitor.ReadCurrentSample(&sample) : Monitor.ReadCurrentSample(1, &sample));
            GpuClockCapabilities clocks;
            EXPECT_TRUE(Monitor.GetClockCapabilities(&clocks) && Monitor.GetClockCapabilities(1, &clocks));
            GpuPowerCapabilities power;
            GpuClockState state;
            EXPECT_TRUE(Monitor.GetPowerCapabilities(1, &power) && Monitor.CaptureClockState(&state));
            const std::vector<GpuClockOperationResult> changes = {
                Monitor.SetLockedClock({2100, 11201}), Monitor.SetLockedClock(1, {2100, 11201}),
                Monitor.RestoreClockState(state),      Monitor.RestoreDefaultClocks(),
                Monitor.RestoreDefaultClocks(1),       Monitor.SetPowerLimit(1, 200.0 + i),
                Monitor.RestoreDefaultPowerLimit(1)};
            EXPECT_THAT(changes, Each(GpuClockOperationResult::Success));
            Monitor.IsAvailable();
            EXPECT_EQ(Monitor.Status(), "NVML active: 2 NVIDIA GPU(s).");
        }
    };
    std::vector<std::future<void>> hosts;
    for (unsigned int host = 0; host < 4; ++host) hosts.push_back(std::async(std::launch::async, beAHost, host));
    for (int i = 0; i < 20; ++i) {
        Monitor.Stop();
        EXPECT_TRUE(Monitor.Start());
    }
}

}  // namespace
