// The simulated NVML as its clients see it: protocols, boards that live, and what it says of a caller's mistakes.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "entry_point_list.h"
#include "nvml_abi.h"
#include "simulated_nvml.h"

namespace {

using namespace simulated_nvml;
using namespace testing;

template <typename T>
uintptr_t Register(T argument) {
    return (uintptr_t)argument;  // a pointer or a number
}

/// Calls an export as a client does that knows only its name: each argument travels in a register of its own.
template <typename... Arguments>
unsigned int Call(const char* name, Arguments... arguments) {
    using EntryPointFn = unsigned int (*)(decltype(Register(arguments))...);
    return reinterpret_cast<EntryPointFn>(dlsym(RTLD_DEFAULT, name))(Register(arguments)...);
}

class SimulatorTest : public testing::Test {
protected:
    SimulatorTest() {
        Sim.Reset();
        Sim.SetBoards({DesktopBoard(0), LaptopBoard(1), DataCenterBoard(2), OldBoard(3)});
        EXPECT_EQ(Call("nvmlInit_v2"), kSuccess);
    }

    static void* Handle(unsigned int index) {
        void* device = nullptr;
        EXPECT_EQ(Call("nvmlDeviceGetHandleByIndex_v2", index, &device), kSuccess);
        return device;
    }

    /// What a query that must succeed tells.
    template <typename... Selector>
    static unsigned int Value(const char* query, void* device, Selector... selector) {
        unsigned int value = 0;
        EXPECT_EQ(Call(query, device, selector..., &value), kSuccess) << query;
        return value;
    }

    /// What limits the clocks of board 0 a while later.
    unsigned long long ReasonsAfter(double seconds) {
        unsigned long long reasons = 0;
        Sim.HoldTimeAt(Seconds += seconds);
        EXPECT_EQ(Call("nvmlDeviceGetCurrentClocksThrottleReasons", Handle(0), &reasons), kSuccess);
        return reasons;
    }

    SimulatedNvml& Sim = SimulatedNvml::Get();
    double Seconds = 0.0;
    unsigned int Output = 0;
};

TEST_F(SimulatorTest, ExportsEveryNameOfItsList) {
    for (const char* name : kEntryPointNames) EXPECT_NE(dlsym(RTLD_DEFAULT, name), nullptr) << name;
}

TEST_F(SimulatorTest, InitializationIsCountedAndCallsOutsideItAreMisuse) {
    Call("nvmlInit_v2");
    EXPECT_EQ(Call("nvmlShutdown"), kSuccess);
    void* const device = Handle(0);
    EXPECT_EQ(Call("nvmlShutdown"), kSuccess);
    EXPECT_THAT(Sim.Misuse(), IsEmpty());

    EXPECT_EQ(Call("nvmlDeviceGetCount_v2", &Output), kUninitialized);
    EXPECT_EQ(Call("nvmlShutdown"), kUninitialized);
    Call("nvmlInit_v2");
    EXPECT_EQ(Call("nvmlDeviceGetPowerUsage", device, &Output), kInvalidArgument) << "a handle of the time before";
    EXPECT_THAT(Sim.Misuse(), ElementsAre("nvmlDeviceGetCount_v2() while NVML was not initialized.",
                                          "nvmlShutdown() while NVML was not initialized.",
                                          "nvmlDeviceGetPowerUsage() with a handle that is null, stale or unknown."));
}

TEST_F(SimulatorTest, WrongArgumentsAreRefused) {
    void* const device = Handle(0);
    const std::vector<unsigned int> results = {Call("nvmlDeviceGetHandleByIndex_v2", 4U, nullptr),
                                               Call("nvmlDeviceGetHandleByIndex_v2", 0U, nullptr),
                                               Call("nvmlDeviceGetPowerUsage", device, nullptr),
                                               Call("nvmlDeviceGetTemperature", device, 1U, &Output),
                                               Call("nvmlDeviceGetClockInfo", device, 4U, &Output),
                                               Call("nvmlDeviceSetGpuLockedClocks", device, 900U, 800U),
                                               Call("nvmlDeviceSetPowerManagementLimit", device, 149999U),
                                               Call("nvmlDeviceSetPowerManagementLimit", device, 352001U)};
    EXPECT_THAT(results, Each(kInvalidArgument));
    EXPECT_THROW(Sim.FailFrom("nvmlDeviceGetFanSped", kUnknown), std::invalid_argument);
}

TEST_F(SimulatorTest, ListQueriesTellTheSizeTheyNeed) {
    const char* const query = "nvmlDeviceGetSupportedMemoryClocks";
    void* const device = Handle(0);
    EXPECT_EQ(Call(query, device, &Output, nullptr), kInsufficientSize);
    ASSERT_EQ(Output, 5U);
    std::vector<unsigned int> clocks(5);
    EXPECT_EQ(Call(query, device, &Output, nullptr), kInvalidArgument);
    EXPECT_EQ(Call(query, device, &(Output = 4), clocks.data()), kInsufficientSize);
    EXPECT_EQ(Call(query, device, &Output, clocks.data()), kSuccess) << "with the room it asked for";
    EXPECT_THAT(clocks, ElementsAre(11201, 10802, 5001, 810, 405));
    EXPECT_EQ(Call("nvmlDeviceGetSupportedGraphicsClocks", device, 406U, &Output, nullptr), kNotFound);
    EXPECT_EQ(Call("nvmlDeviceGetGraphicsRunningProcesses", Handle(2), &(Output = 0), nullptr), kSuccess) << "none";
}

TEST_F(SimulatorTest, BoardsAndRightsDecideWhatCanBeDone) {
    const std::vector<unsigned int> results = {Call("nvmlDeviceGetFanSpeed", Handle(1), &Output),
                                               Call("nvmlDeviceGetFanSpeed", Handle(2), &Output),
                                               Call("nvmlDeviceSetPowerManagementLimit", Handle(1), 90000U),
                                               Call("nvmlDeviceSetGpuLockedClocks", Handle(3), 900U, 900U)};
    EXPECT_THAT(results, Each(kNotSupported));
    EXPECT_EQ(Value("nvmlDeviceGetTemperatureThreshold", Handle(0), kThresholdSlowdown), 97U);
    EXPECT_EQ(Value("nvmlDeviceGetMaxClockInfo", Handle(0), kClockMemory), 11201U);
    EXPECT_EQ(Value("nvmlDeviceGetMaxPcieLinkGeneration", Handle(2)), 5U);
    EXPECT_EQ(Call("nvmlDeviceSetPowerManagementLimit", Handle(0), 200000U), kSuccess);
    Sim.SetAdministratorRights(false);
    EXPECT_EQ(Call("nvmlDeviceSetPowerManagementLimit", Handle(0), 200000U), kNoPermission);
    EXPECT_EQ(Call("nvmlDeviceResetGpuLockedClocks", Handle(0)), kNoPermission);
}

TEST_F(SimulatorTest, SameSeedLivesTheSameLifeHoweverOftenItIsAsked) {
    const auto powerOverTime = [this](uint64_t seed, int stepSeconds) {
        Sim.Reset();
        Sim.SetSeed(seed);
        Call("nvmlInit_v2");
        std::vector<unsigned int> everyMinute;
        for (int seconds = 0; seconds < 300; seconds += stepSeconds) {
            Sim.HoldTimeAt(seconds);
            const unsigned int power = Value("nvmlDeviceGetPowerUsage", Handle(0));
            if (seconds % 60 == 0) everyMinute.push_back(power);
        }
        return everyMinute;
    };
    const std::vector<unsigned int> power = powerOverTime(7, 60);
    EXPECT_EQ(powerOverTime(7, 1), power);
    EXPECT_NE(powerOverTime(8, 60), power);
}

TEST_F(SimulatorTest, LimitsActOnTheBoardAndTheReasonsSaySo) {
    Board board = DesktopBoard(0);
    board.Load = Workload::Training;  // near full load nearly all the time
    Sim.SetBoards({board});
    void* const device = Handle(0);
    // Until the board runs against its own limit, within a time in which any training does.
    while (ReasonsAfter(1.0) != kReasonSoftwarePowerCap) ASSERT_LT(Seconds, 600.0);
    const unsigned int clock = Value("nvmlDeviceGetClockInfo", device, kClockGraphics);

    EXPECT_EQ(Call("nvmlDeviceSetPowerManagementLimit", device, 180000U), kSuccess);
    EXPECT_EQ(ReasonsAfter(3.0), kReasonSoftwarePowerCap);
    EXPECT_LE(Value("nvmlDeviceGetPowerUsage", device), 181000U);
    EXPECT_LT(Value("nvmlDeviceGetClockInfo", device, kClockGraphics), clock);
    const unsigned int hot = Value("nvmlDeviceGetTemperature", device, kSensorGpu);

    EXPECT_EQ(Call("nvmlDeviceSetGpuLockedClocks", device, 900U, 900U), kSuccess);
    EXPECT_EQ(Call("nvmlDeviceSetMemoryLockedClocks", device, 6000U, 6000U), kSuccess);
    EXPECT_EQ(ReasonsAfter(60.0), kReasonApplicationClocks);
    EXPECT_EQ(Value("nvmlDeviceGetClockInfo", device, kClockGraphics), 900U);
    EXPECT_EQ(Value("nvmlDeviceGetClockInfo", device, kClockMemory), 5001U) << "the nearest clock of the list";
    EXPECT_LT(Value("nvmlDeviceGetTemperature", device, kSensorGpu), hot);
    EXPECT_EQ(Call("nvmlDeviceResetGpuLockedClocks", device), kSuccess);
    ReasonsAfter(1.0);
    EXPECT_GT(Value("nvmlDeviceGetClockInfo", device, kClockGraphics), 900U);
}

TEST_F(SimulatorTest, ClocksLockedOnAnIdleBoardHoldAtTheNextTick) {
    Board board = DesktopBoard(0);
    board.Load = Workload::Office;
    Sim.SetBoards({board});
    void* const device = Handle(0);
    constexpr double kTick = 0.051;
    while (ReasonsAfter(kTick) != kReasonIdle) ASSERT_LT(Seconds, 600.0);
    // Graphics lock, memory lock, then memory clock and reasons. A lock at 0 is refused, and the memory runs as slowly
    // as the graphics lock allows.
    const unsigned int cases[][4] = {
        {900, 0, 810, 0}, {420, 405, 405, 0}, {210, 405, 405, kReasonIdle}, {3105, 11201, 11201, 0}};
    for (const auto& [graphics, memory, memoryClock, reasons] : cases) {
        Call("nvmlDeviceSetGpuLockedClocks", device, graphics, graphics);
        Call("nvmlDeviceSetMemoryLockedClocks", device, memory, memory);
        EXPECT_EQ(ReasonsAfter(kTick), reasons) << graphics;
        EXPECT_EQ(Value("nvmlDeviceGetClockInfo", device, kClockGraphics), graphics);
        EXPECT_EQ(Value("nvmlDeviceGetClockInfo", device, kClockMemory), memoryClock);
    }
    Call("nvmlDeviceResetGpuLockedClocks", device);
    Call("nvmlDeviceResetMemoryLockedClocks", device);
    EXPECT_EQ(ReasonsAfter(kTick), kReasonIdle);
}

TEST_F(SimulatorTest, LostBoardStaysLostAndTheOthersDoNot) {
    Sim.LoseBoard(1, 2);
    void* const lost = Handle(1);
    EXPECT_EQ(Call("nvmlDeviceGetPowerUsage", lost, &Output), kSuccess);
    EXPECT_EQ(Call("nvmlDeviceGetPowerUsage", lost, &Output), kGpuIsLost);
    Call("nvmlShutdown");
    Call("nvmlInit_v2");
    EXPECT_EQ(Call("nvmlDeviceGetHandleByIndex_v2", 1U, nullptr), kGpuIsLost);
    Value("nvmlDeviceGetPowerUsage", Handle(0));
}

TEST_F(SimulatorTest, TwoThreadsInsideAreMisuseOnlyWhereForbidden) {
    void* const device = Handle(0);
    for (uint64_t calls = 1; calls <= 2; ++calls) {
        EXPECT_THAT(Sim.Misuse(), IsEmpty());
        if (calls == 2) Sim.ForbidConcurrentCalls();
        Sim.Block("nvmlDeviceGetFanSpeed");
        std::thread other([&] { Value("nvmlDeviceGetFanSpeed", device); });
        EXPECT_TRUE(Sim.WaitForCalls("nvmlDeviceGetFanSpeed", calls, std::chrono::seconds(60)));
        Value("nvmlDeviceGetPowerUsage", device);
        Sim.Unblock();
        other.join();
    }
    EXPECT_THAT(Sim.Misuse(), ElementsAre(HasSubstr("while another thread was inside")));
}

}  // namespace
