// The simulated NVML as its clients see it: protocols, boards that live, and what it reports as misuse.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <thread>

#include "fixed_boards.h"
#include "nvml_abi.h"
#include "simulated_nvml.h"

namespace {

using namespace simulated_nvml;
using namespace testing;

class SimulatorTest : public testing::Test {
protected:
    SimulatorTest() {
        Sim.Reset();
        Sim.SetBoards({DesktopBoard(0), LaptopBoard(1), DataCenterBoard(2), OldBoard(3)});
        EXPECT_EQ(nvmlInit_v2(), kSuccess);
    }

    ~SimulatorTest() override { unlink(Path.c_str()); }

    static void* Handle(unsigned int index) {
        void* device = nullptr;
        EXPECT_EQ(nvmlDeviceGetHandleByIndex_v2(index, &device), kSuccess);
        return device;
    }

    /// What a query answers that must succeed.
    template <typename... Parameters, typename... Selector>
    static unsigned int Value(NvmlReturn (*query)(NvmlDevice, Parameters...), void* device, Selector... selector) {
        unsigned int value = 0;
        EXPECT_EQ(query(device, selector..., &value), kSuccess);
        return value;
    }

    /// What limits the clocks of board 0 a while later.
    unsigned long long ReasonsAfter(double seconds) {
        unsigned long long reasons = 0;
        Sim.HoldTimeAt(Seconds += seconds);
        EXPECT_EQ(nvmlDeviceGetCurrentClocksThrottleReasons(Handle(0), &reasons), kSuccess);
        return reasons;
    }

    std::vector<Board> Recorded(const std::string& text) const {
        std::ofstream(Path) << text;
        return RecordedBoards(Path);
    }

    const std::string Path = TempDir() + "simulator_test_" + std::to_string(getpid());
    SimulatedNvml& Sim = SimulatedNvml::Get();
    double Seconds = 0.0;
    unsigned int Output = 0;
};

TEST_F(SimulatorTest, InitializationIsCountedAndCallsOutsideItAreMisuse) {
    nvmlInitWithFlags(1);
    EXPECT_EQ(nvmlShutdown(), kSuccess);
    void* const device = Handle(0);
    EXPECT_EQ(nvmlShutdown(), kSuccess);

    EXPECT_EQ(nvmlDeviceGetCount_v2(&Output), kUninitialized);
    EXPECT_EQ(nvmlShutdown(), kUninitialized);
    nvmlInit_v2();
    EXPECT_EQ(nvmlDeviceGetPowerUsage(device, &Output), kInvalidArgument) << "a handle of the time before";
    EXPECT_THAT(Sim.Misuse(), ElementsAre("nvmlDeviceGetCount_v2() while NVML was not initialized.",
                                          "nvmlShutdown() while NVML was not initialized.",
                                          "nvmlDeviceGetPowerUsage() with a handle that is null, stale or unknown."));
}

TEST_F(SimulatorTest, WrongArgumentsAreRefused) {
    void* device = Handle(0);
    const auto listClocks = nvmlDeviceGetSupportedMemoryClocks;
    const std::vector<unsigned int> results = {
        nvmlDeviceGetHandleByIndex_v2(0, nullptr), nvmlDeviceGetPowerUsage(device, nullptr),
        nvmlDeviceGetUtilizationRates(device, nullptr), nvmlDeviceGetEncoderUtilization(device, &Output, nullptr),
        listClocks(device, nullptr, &Output), listClocks(device, &(Output = 4), nullptr),
        nvmlDeviceGetTemperature(device, 1, &Output), nvmlDeviceGetTemperatureThreshold(device, 2, &Output),
        nvmlDeviceGetPcieThroughput(device, 2, &Output), nvmlDeviceGetClockInfo(device, 4, &Output),
        nvmlDeviceGetClock(device, 4, kClockNow, &Output), nvmlDeviceGetHandleByUUID(nullptr, &device),
        nvmlDeviceGetMigMode(nullptr),
        // A board may refuse these, so they are no misuse.
        nvmlDeviceSetGpuLockedClocks(device, 900, 800), nvmlDeviceSetPowerManagementLimit(device, 149999),
        nvmlDeviceSetPowerManagementLimit(device, 352001), nvmlDeviceGetFanSpeed_v2(device, 2, &Output)};
    EXPECT_THAT(results, Each(kInvalidArgument));
    EXPECT_THAT(Sim.Misuse(), SizeIs(results.size() - 4));
    EXPECT_THROW(Sim.FailFrom("nvmlDeviceGetFanSped", kUnknown), std::invalid_argument);
}

TEST_F(SimulatorTest, WhatABoardLacksIsNotSupported) {
    char serial[96];
    // A board that lacks a query lacks it under each of its names.
    const std::vector<unsigned int> results = {
        nvmlDeviceGetClock(Handle(0), kClockGraphics, 1, &Output), nvmlDeviceGetSerial(Handle(0), serial, 96),
        nvmlUnitGetFanSpeedInfo(nullptr), nvmlDeviceGetProcessUtilization(Handle(3), nullptr, &Output, 0)};
    EXPECT_THAT(results, Each(kNotSupported));
    EXPECT_THAT(Sim.Misuse(), IsEmpty());
}

TEST_F(SimulatorTest, BoardsAreFoundByBusIdInAnyFormAndByUuid) {
    void* device = nullptr;
    for (const char* busId : {"00000000:03:00.0", "0000:03:00.0", "0:3:0", "03:00.0"}) {
        EXPECT_EQ(nvmlDeviceGetHandleByPciBusId_v2(busId, &device), kSuccess) << busId;
        EXPECT_EQ(device, Handle(2)) << busId;
    }
    for (const char* busId : {"1:03:00.0", "03:00.1", "03:01.0", "103:00.0", "03", "03:00.0 ", "", "0:3:", "0:0:3:0"}) {
        EXPECT_EQ(nvmlDeviceGetHandleByPciBusId_v2(busId, &device), kNotFound) << busId;
    }
    EXPECT_EQ(nvmlDeviceGetHandleByUUID(LaptopBoard(1).Uuid.c_str(), &device), kSuccess);
    EXPECT_EQ(Value(nvmlDeviceGetIndex, device), 1);
}

TEST_F(SimulatorTest, ProcessesShareWhatTheirBoardDoes) {
    Readings now = fixed_boards::DistinctReadings();
    now.ComputeProcesses = {{7, 0, 31}};
    now.GraphicsProcesses = {{7, 0, 31}, {5, 0, 62}};
    Sim.SetBoards(fixed_boards::FixedBoards(1, now));
    ProcessUtilizationRecord records[2] = {};
    EXPECT_EQ(nvmlDeviceGetProcessUtilization(Handle(0), nullptr, &(Output = 9), 0), kInsufficientSize);
    EXPECT_EQ(nvmlDeviceGetProcessUtilization(Handle(0), records, &Output, 0), kSuccess);
    EXPECT_THAT(records, ElementsAre(FieldsAre(5, _, 62, 63, 64, 65), FieldsAre(7, _, 31, 31, 32, 32)));
    EXPECT_EQ(nvmlDeviceGetProcessUtilization(Handle(0), records, &Output, UINT64_MAX), kNotFound);
}

TEST_F(SimulatorTest, ProcessesAreOfThisSystemUnlessScripted) {
    ProcessRecord records[5] = {};
    EXPECT_EQ(nvmlDeviceGetComputeRunningProcesses_v3(Handle(2), &(Output = 5), records), kSuccess);
    EXPECT_EQ(getpid(), static_cast<pid_t>(records[0].Pid));
    for (unsigned int i = 0; i < Output; ++i) EXPECT_NE(getpgid(static_cast<pid_t>(records[i].Pid)), -1);
    Board board = DataCenterBoard(2);
    board.ProcessIds = {7};
    Sim.SetBoards({board});
    EXPECT_EQ(nvmlDeviceGetComputeRunningProcesses_v3(Handle(0), &(Output = 5), records), kSuccess);
    EXPECT_THAT(std::pair(Output, records[0].Pid), Pair(1, 7));
}

TEST_F(SimulatorTest, BoardsOfASeedLiveTheSameLifeHoweverOftenTheyAreAsked) {
    const auto readings = [](void* device) {
        MemoryRecord memory = {};
        EXPECT_EQ(nvmlDeviceGetMemoryInfo(device, &memory), kSuccess);
        return std::tuple(Value(nvmlDeviceGetPowerUsage, device), Value(nvmlDeviceGetTemperature, device, kSensorGpu),
                          Value(nvmlDeviceGetClockInfo, device, kClockMemory), memory.UsedBytes >> 16U);
    };
    unsigned long long used[2] = {};
    EXPECT_EQ(nvmlDeviceGetTotalEnergyConsumption(Handle(0), &used[0]), kSuccess);
    for (int seconds = 1; seconds <= 100; ++seconds) {
        ReasonsAfter(1.0);
        used[0] += Value(nvmlDeviceGetPowerUsage, Handle(0));
    }
    EXPECT_EQ(nvmlDeviceGetTotalEnergyConsumption(Handle(0), &used[1]), kSuccess);
    EXPECT_THAT(used[1], AllOf(Gt(used[0] / 1000 * 997), Lt(used[0] / 1000 * 1003)));
    EXPECT_EQ(readings(Handle(0)), std::tuple(302849, 75, 11201, 163036));
    EXPECT_EQ(readings(Handle(1)), std::tuple(48767, 55, 7001, 21601));
    EXPECT_EQ(readings(Handle(2)), std::tuple(345770, 72, 1593, 654522));
    Sim.SetSeed(8);
    EXPECT_NE(readings(Handle(2)), std::tuple(345770, 72, 1593, 654522));
}

TEST_F(SimulatorTest, LimitsActOnTheBoardAndTheReasonsSaySo) {
    // Training is near full load nearly all the time.
    Board board = DesktopBoard(0);
    board.Load = Workload::Training;
    Sim.SetBoards({board});
    void* const device = Handle(0);
    // Until the board runs against its own limit, within a time in which any training does.
    while (ReasonsAfter(1.0) != kReasonSoftwarePowerCap) ASSERT_LT(Seconds, 600.0);
    const unsigned int clock = Value(nvmlDeviceGetClockInfo, device, kClockGraphics);

    EXPECT_EQ(nvmlDeviceSetPowerManagementLimit(device, 180000), kSuccess);
    EXPECT_EQ(ReasonsAfter(3.0), kReasonSoftwarePowerCap);
    EXPECT_LE(Value(nvmlDeviceGetPowerUsage, device), 181000);
    EXPECT_LT(Value(nvmlDeviceGetClockInfo, device, kClockGraphics), clock);

    EXPECT_EQ(nvmlDeviceSetGpuLockedClocks(device, 900, 900), kSuccess);
    EXPECT_EQ(ReasonsAfter(60.0), kReasonApplicationClocks) << "without a memory lock";
    EXPECT_EQ(Value(nvmlDeviceGetClockInfo, device, kClockMemory), 11201);
    EXPECT_EQ(Value(nvmlDeviceGetClockInfo, device, kClockGraphics), 900);
    EXPECT_EQ(nvmlDeviceSetMemoryLockedClocks(device, 6000, 6000), kSuccess);
    ReasonsAfter(60.0);
    EXPECT_EQ(Value(nvmlDeviceGetClockInfo, device, kClockMemory), 5001) << "the nearest clock of the list";
    EXPECT_EQ(nvmlDeviceResetGpuLockedClocks(device), kSuccess);
    EXPECT_EQ(nvmlDeviceResetMemoryLockedClocks(device), kSuccess);
    ReasonsAfter(60.0);
    EXPECT_GT(Value(nvmlDeviceGetClockInfo, device, kClockGraphics), 900);
}

TEST_F(SimulatorTest, TwoThreadsInsideAreMisuseOnlyWhereForbidden) {
    void* const device = Handle(0);
    for (uint64_t calls = 1; calls <= 2; ++calls) {
        if (calls == 2) Sim.ForbidConcurrentCalls();
        Sim.Block("nvmlDeviceGetFanSpeed");
        std::thread other([&] { Value(nvmlDeviceGetFanSpeed, device); });
        EXPECT_TRUE(Sim.WaitForCalls("nvmlDeviceGetFanSpeed", calls, std::chrono::seconds(60)));
        Value(nvmlDeviceGetPowerUsage, device);
        Sim.Unblock();
        other.join();
    }
    EXPECT_THAT(Sim.Misuse(), ElementsAre(HasSubstr("while another thread was inside")));
}

TEST_F(SimulatorTest, RecordedBoardsPlayRowsGapsAndMissingFieldsAndBeginAgain) {
    // One GPU is not recorded after two seconds, the other one for 100 seconds. One row comes late.
    std::string text = "time,uuid,index,name,power_watts,sm_clock_mhz\n";
    for (const char* row : {R"(8:00.000Z,"b, ""x""",3,,,300)", "8:00.004Z,GPU-a,2,,100.5,", "8:01.000Z,GPU-a,2,,,",
                            "8:03.000Z,GPU-a,2,,103,", R"(8:01.000Z,"b, ""x""",3,,,301)", "8:02.000Z,GPU-a,2,,102,",
                            "9:43.000Z,GPU-a,2,,143.0004,"}) {
        text += std::string("2026-02-28T23:5") + row + "\r\n";
    }
    void* b = nullptr;
    Sim.SetBoards(Recorded("time,uuid,index\n2026-01-31T12:00:00.000Z,,0\n"));
    EXPECT_EQ(nvmlDeviceGetHandleByUUID("", &b), kNotFound) << "a board without a UUID";
    Sim.SetBoards(Recorded(text));
    void* const a = Handle(0);
    EXPECT_EQ(nvmlDeviceGetPowerUsage(Handle(1), &Output), kNotSupported) << "in no row of this GPU";
    EXPECT_EQ(nvmlDeviceGetHandleByPciBusId_v2("02:00.0", &b), kSuccess) << "a place that was not recorded";
    unsigned long long energy = 0;
    EXPECT_EQ(nvmlDeviceGetTotalEnergyConsumption(a, &energy), kNotSupported) << "power is recorded, energy is not";
    const auto answer = [this](NvmlReturn code) { return code == kSuccess ? Output : code; };
    // Seconds, and what the two GPUs answer then: a value, or why there is none.
    // clang-format off
    const std::tuple<double, unsigned int, unsigned int> moments[] = {
        {0.0, 100500, 300}, {1.0, kUnknown, 301}, {2.1, 102000, kGpuIsLost}, {4.1, kGpuIsLost, kGpuIsLost},
        {33.9, kGpuIsLost, kGpuIsLost}, {34.0, 143000, kGpuIsLost}, {35.0, 100500, 300}, {71.1, kUnknown, 301}};
    // clang-format on
    for (const auto& [seconds, power, clock] : moments) {
        Sim.HoldTimeAt(seconds);
        EXPECT_EQ(nvmlDeviceGetHandleByUUID(R"(b, "x")", &b), clock == kGpuIsLost ? kGpuIsLost : kSuccess) << seconds;
        EXPECT_EQ(answer(nvmlDeviceGetPowerUsage(a, &Output)), power) << seconds;
        EXPECT_EQ(answer(nvmlDeviceGetClockInfo(b, kClockSm, &Output)), clock) << seconds;
        EXPECT_EQ(answer(nvmlDeviceGetClock(b, kClockSm, kClockNow, &Output)), clock) << seconds;
    }
}

TEST_F(SimulatorTest, RecordingThatCannotBePlayedIsSaidInASentence) {
    const std::string row = "time,uuid,index,fan_percent,power_watts\n2026-01-31T12:00:00.000Z,";
    // clang-format off
    const std::pair<std::string, const char*> files[] = {
        {"", "it is empty."}, {row.substr(0, 40), "it has no readings."}, {"fun\n", "columns than a recording has."},
        {row + ",0,30\n", "line 2 is cut off or damaged."}, {row + ",0,30,", "2 is cut off or damaged."},
        {row + "\",0,30,\n", "cut off or damaged."}, {row + std::string(5000, 'u') + ",0,30,\n", "cut off or damaged."},
        {row + std::string(96, 'u') + ",0,30,\n", "line 2 has too long a uuid."},
        {row + ",0,,nan\n", "line 2 has no sensible value of power_watts."},
        {"time,uuid,index\n2026-02-30T12:00:00.000Z,,0\n", "line 2 has no sensible value of time."},
        {row + ",0,1e99,\n", "line 2 has no sensible value of fan_percent."}};
    // clang-format on
    for (const auto& [text, end] : files) {
        EXPECT_THAT(([this, &text = text] { Recorded(text); }), ThrowsMessage<std::invalid_argument>(EndsWith(end)));
    }
}

}  // namespace
