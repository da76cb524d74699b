// The sampler: its cycles, what they leave in the histories, and when they run.

#include <malloc.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <thread>
#include <tuple>

#include "monitor_test.h"

namespace {

using simulated_nvml::Process;
using std::chrono::milliseconds;
using namespace testing;

using ProcessBytes = std::map<int, uint64_t>;

/// How long the latest wait is meant to take.
milliseconds WaitDuration() {
    return std::chrono::round<milliseconds>(sampler_clock::LatestWait().Duration);
}

class SamplerTest : public MonitorTest {
protected:
    SamplerTest() { sampler_clock::Hold(); }

    /// Runs `action`, which must make the sampler begin `count` more waits. Result: the histories when it has begun
    /// them, so all cycles before them are over.
    template <typename Action>
    std::vector<GpuTelemetryHistory> AfterWaits(Action action, uint64_t count = 1) {
        const uint64_t waits = sampler_clock::WaitsBegun();
        action();
        EXPECT_TRUE(sampler_clock::AwaitWaits(waits + count));
        return Monitor.Snapshot();
    }

    std::vector<GpuTelemetryHistory> Start() {
        return AfterWaits([this] { EXPECT_TRUE(Monitor.Start()); });
    }

    std::vector<GpuTelemetryHistory> PassWaits(unsigned int count = 1) {
        return AfterWaits([count] { sampler_clock::PassWaits(count); }, count);
    }

    /// What `work` leaves behind must not be more than what threads keep for their next allocations.
    template <typename Work>
    static void ExpectNoGrowth(Work work) {
        const auto entries = [](const char* folder) {
            return std::distance(std::filesystem::directory_iterator(folder), {});
        };
        const auto threads = entries("/proc/self/task");
        const auto descriptors = entries("/proc/self/fd");
        const size_t heap = mallinfo2().uordblks;
        work();
        // A thread that was joined stays there for a moment.
        while (entries("/proc/self/task") > threads) std::this_thread::yield();
        EXPECT_EQ(entries("/proc/self/fd"), descriptors);
        EXPECT_LE(mallinfo2().uordblks, heap + 0x4000);
    }

    uint64_t Readings() const { return Sim.Calls("nvmlDeviceGetTemperature"); }

    /// What one cycle lists for a board on which these processes run.
    ProcessBytes ListedOf(const std::vector<Process>& compute, const std::vector<Process>& graphics = {}) {
        Monitor.Stop();
        simulated_nvml::Readings readings;
        readings.ComputeProcesses = compute;
        readings.GraphicsProcesses = graphics;
        Sim.SetBoards(fixed_boards::FixedBoards(1, readings));
        const GpuTelemetryHistory history = Start().front();
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
    EXPECT_EQ(Sim.Calls("nvmlDeviceGetUUID"), 2) << "a skipped device is asked nothing more";
    const size_t beforeCycle = Sim.Log().size();
    Start();
    EXPECT_EQ(Monitor.Status(), "NVML active: 2 NVIDIA GPU(s).");
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

TEST_F(SamplerTest, ProcessListThatOverstatesItsLengthIsReadAsFarAsItWasWritten) {
    // Offered room for three records, the driver writes one and reports a million.
    Sim.Answers().Append(simulated_nvml::EntryPoint::nvmlDeviceGetComputeRunningProcesses_v3,
                         {simulated_nvml::kSuccess, true, 4, 3, 1'000'000});
    EXPECT_EQ(ListedOf({}), (ProcessBytes{{3, 3U << 20U}}));
}

TEST_F(SamplerTest, DriverThatWritesLongerRecordsStaysWithinTheBuffer) {
    Sim.SetProcessRecordBytes("nvmlDeviceGetComputeRunningProcesses_v3", 32);
    for (const unsigned int processes : {1U, 2U, 3U, 4096U}) {
        EXPECT_EQ(ListedOf(ManyProcesses(processes))[1], 1000U) << "the first record is at the same place";
    }
    EXPECT_EQ(ListedOf({{10, 300}, {11, 301}, {12, 302}, {13, 303}, {14, 304}}), (ProcessBytes{{10, 300}, {13, 303}}));
}

TEST_F(SamplerTest, OlderProcessQueriesAreUsedWhenNewerOnesAreMissing) {
    const std::vector<Process> compute = {{10, 300}, {11, 301}, {12, 302}, {13, 303}, {14, 304}};
    ProcessBytes expected = {{10, 300}, {11, 301}, {12, 302}, {13, 303}, {14, 304}, {15, 400}};
    for (const std::string version : {"_v3", "_v2", ""}) {
        // Of 16-byte records each third one is where it is looked for. Between them, one's size is taken for an id and
        // the next one's id for a size.
        if (version.empty()) expected = {{10, 300}, {301, 12}, {13, 303}, {15, 400}};
        EXPECT_EQ(ListedOf(compute, {{15, 400}}), expected) << version;
        EXPECT_EQ(Sim.Calls("nvmlDeviceGetComputeRunningProcesses" + version), 2) << version;
        EXPECT_EQ(Sim.Calls("nvmlDeviceGetGraphicsRunningProcesses" + version), 2) << version;
        Sim.HideEntryPoint("nvmlDeviceGetComputeRunningProcesses" + version);
        Sim.HideEntryPoint("nvmlDeviceGetGraphicsRunningProcesses" + version);
    }
    EXPECT_THAT(ListedOf({{10, 300}}), IsEmpty());
}

TEST_F(SamplerTest, BoardWithoutAHandleIsSkippedAndPartialSamplesAreKept) {
    Sim.SetBoards(fixed_boards::FixedBoards(2));
    Start();
    Sim.FailFrom("nvmlDeviceGetHandleByIndex_v2", simulated_nvml::kGpuIsLost, 1, 0);
    for (const char* query : {"PowerUsage", "ClockInfo", "ComputeRunningProcesses_v3", "GraphicsRunningProcesses_v3"}) {
        Sim.FailFrom(std::string("nvmlDeviceGet") + query, simulated_nvml::kNotSupported);
    }
    const std::vector<GpuTelemetryHistory> histories = PassWaits();
    EXPECT_THAT(histories[0].Samples, SizeIs(1));
    EXPECT_THAT(histories[0].ProcessMemory, SizeIs(2));
    ASSERT_THAT(histories[1].Samples, SizeIs(2));
    EXPECT_THAT(histories[1].ProcessMemory, IsEmpty()) << "an empty list replaces the old one";
    EXPECT_EQ(histories[1].Samples.back().PowerWatts, -1.0);
    EXPECT_EQ(histories[1].Samples.back().TemperatureC, 61);
    Sim.StopFailing();
    const GpuTelemetryHistory resumed = PassWaits()[0];
    EXPECT_THAT(resumed.Samples, SizeIs(2));
    EXPECT_THAT(resumed.ProcessMemory, SizeIs(2)) << "a list replaces the old one";
}

TEST_F(SamplerTest, HistoryKeepsTheNewest6000Samples) {
    Sim.Reset();
    Sim.SetBoards(fixed_boards::FixedBoards(1, {}));
    Start();
    const GpuTelemetryHistory full = PassWaits(5999).front();
    ASSERT_THAT(full.Samples, SizeIs(6000));
    const GpuTelemetryHistory stillFull = PassWaits().front();
    EXPECT_THAT(stillFull.Samples, SizeIs(6000));
    EXPECT_EQ(stillFull.Samples.front().TimestampSeconds, full.Samples[1].TimestampSeconds);
    const std::pair<double, size_t> newer[] = {
        {-1.0, 6000}, {NAN, 0}, {stillFull.Samples[5998].TimestampSeconds, 1}, {HUGE_VAL, 0}};
    for (const auto& [moment, count] : newer) {
        EXPECT_THAT(Monitor.SnapshotSince(moment)[0].Samples, SizeIs(count)) << moment;
    }
    ExpectNoGrowth([this] { PassWaits(2000); });
}

TEST_F(SamplerTest, StartsAndStopsLeaveNothingBehind) {
    Sim.Reset();
    const auto startAndStop = [this](int count) {
        for (int i = 0; i < count; ++i) {
            EXPECT_TRUE(NvmlGpuMonitor().Start());
            EXPECT_TRUE(Monitor.Start());
            Monitor.PauseSampling();
            EXPECT_TRUE(Monitor.ResumeSampling());
            Monitor.Stop();
        }
    };
    startAndStop(100);
    ExpectNoGrowth([&] { startAndStop(2000); });
}

// ---- When cycles run ----

TEST_F(SamplerTest, IntervalAndInitialDelayHaveDefaultsAndBounds) {
    Start();
    EXPECT_EQ(Readings(), 1) << "a cycle at once";
    EXPECT_EQ(WaitDuration(), milliseconds(1000));
    const int cases[][3] = {{-5, 100, 0},    {0, 100, 0},           {50, 100, 50},
                            {250, 250, 250}, {10000, 10000, 10000}, {20000, 10000, 10000}};
    for (const auto& [asked, interval, delay] : cases) {
        SCOPED_TRACE(asked);
        Monitor.PauseSampling();
        Monitor.SetSampleInterval(milliseconds(asked));
        Monitor.SetInitialSampleDelay(milliseconds(asked));
        const uint64_t readings = Readings();
        AfterWaits([this] { Monitor.ResumeSampling(); });
        EXPECT_EQ(Readings() - readings, delay == 0 ? 1 : 0);
        EXPECT_EQ(WaitDuration(), milliseconds(delay == 0 ? interval : delay));
        PassWaits();
        EXPECT_EQ(WaitDuration(), milliseconds(interval));
    }
}

TEST_F(SamplerTest, SettingTheIntervalDuringACycleIsNotLost) {
    Sim.Reset();
    EXPECT_TRUE(Monitor.Start());
    // Each call waits for the end of a cycle. Of so many, some come before the sampler begins its wait.
    for (uint64_t cycle = 1; cycle <= 3000; ++cycle) {
        ASSERT_TRUE(WaitForCalls("nvmlDeviceGetTemperature", cycle)) << "a cycle for each call, as no wait passes";
        Monitor.SetSampleInterval(milliseconds(200));
    }
}

TEST_F(SamplerTest, SettingTheIntervalStartsARunningInitialDelayOver) {
    Monitor.SetInitialSampleDelay(milliseconds(10000));
    Start();
    EXPECT_EQ(WaitDuration(), milliseconds(10000));
    Monitor.SetInitialSampleDelay(milliseconds(200));
    AfterWaits([this] { Monitor.SetSampleInterval(milliseconds(5000)); });
    EXPECT_EQ(WaitDuration(), milliseconds(200)) << "the delay is read again";
    EXPECT_EQ(Readings(), 0);
    PassWaits();
    EXPECT_EQ(Readings(), 1);
}

// ---- Lifecycle ----

TEST_F(SamplerTest, PauseAndStopKeepHistoriesAndASecondStartChangesNothing) {
    Monitor.PauseSampling();
    Start();
    Monitor.PauseSampling();
    GpuTelemetrySample sample;
    EXPECT_TRUE(Monitor.ReadCurrentSample(&sample)) << "a pause stops only the sampler";
    const auto resume = [this] { EXPECT_TRUE(Monitor.ResumeSampling()); };
    EXPECT_THAT(AfterWaits(resume).front().Samples, SizeIs(2));
    EXPECT_EQ(Sim.Calls("nvmlInit_v2"), 1);
    sampler_clock::RefuseThreads(1);
    EXPECT_TRUE(Monitor.Start() && Monitor.ResumeSampling()) << "no second thread";
    sampler_clock::RefuseThreads(0);
    Monitor.Stop();
    EXPECT_THAT(Monitor.Snapshot().front().Samples, SizeIs(2)) << "kept until the next start";
    EXPECT_THAT(Start().front().Samples, SizeIs(1));
}

}  // namespace
