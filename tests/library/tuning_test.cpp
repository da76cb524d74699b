// What can be changed on a GPU, changing it, and taking the change back: clocks first, then the power limit.

#include <cmath>
#include <set>
#include <tuple>

#include "monitor_test.h"

namespace {

using namespace simulated_nvml;
using namespace testing;
using Pair = GpuClockPair;
using Groups = std::vector<ClockGroup>;
using State = GpuCapabilityState;

static_assert(sizeof(GpuClockOperationResult) == 1 && sizeof(State) == 1 && static_cast<int>(State::Unavailable) == 4);

const char* const kHandle = "nvmlDeviceGetHandleByIndex_v2";

/// A name that NVML lacks (`Code` 0) or that fails with `Code`, from its n-th lookup or call on.
struct Fault {
    const char* Name;
    unsigned int Code = 0;
    uint64_t Nth = 1;
};

/// For operations that change a setting of a GPU and answer with a result and a sentence.
class TuningTest : public MonitorTest {
protected:
    /// Failures last until the next ones; a name that is lacking comes back with `StartOver`.
    void Break(const std::vector<Fault>& faults) {
        Sim.StopFailing();
        for (const Fault& fault : faults) {
            fault.Code == 0 ? Sim.HideEntryPoint(fault.Name, fault.Nth)
                            : Sim.FailFrom(fault.Name, fault.Code, fault.Nth);
        }
    }

    /// What `change` answers and asks of NVML: "Result: Sentence. Calls ", without a sentence when the string that is
    /// to receive it is untouched.
    template <typename Change>
    std::string Outcome(Change change) {
        const std::string before(200, 'x');
        std::string error = before;
        const size_t from = Sim.Log().size();
        const GpuClockOperationResult result = change(&error);
        constexpr const char* kResults[] = {"Success", "NoPermission", "Unsupported", "Error"};
        const std::string sentence = error == before ? " " : ": " + error + ' ';
        return kResults[static_cast<int>(result)] + sentence + Log(from, {"LockedClocks(", "SetPowerManagementLimit("});
    }

    /// Codes of NVML that are no success, and what becomes of a change that they answer.
    static std::vector<std::pair<unsigned int, std::string>> Refusals(const std::string& change) {
        return {{4, "NoPermission: NVML denied " + change + " for this user. "},
                {3, "Unsupported: The NVIDIA driver does not support " + change + ". "},
                {7, "Error: NVML " + change + " failed. "},
                {999, "Error: NVML " + change + " failed. "}};
    }
};

// ---- Clocks ----

const char* const kMemoryList = "nvmlDeviceGetSupportedMemoryClocks";
const char* const kGraphicsList = "nvmlDeviceGetSupportedGraphicsClocks";
const char* const kLockGraphics = "nvmlDeviceSetGpuLockedClocks";
const char* const kLockMemory = "nvmlDeviceSetMemoryLockedClocks";
const char* const kResetGraphics = "nvmlDeviceResetGpuLockedClocks";
const char* const kResetMemory = "nvmlDeviceResetMemoryLockedClocks";

class ClocksTest : public TuningTest {
protected:
    ClocksTest() { MakeWhole(); }

    /// Two boards with these clocks that nothing is wrong with. NVML is closed.
    void MakeWhole(const Groups& clocks = {{5001, {1500}}, {810, {1500, 300, 300}}}) {
        Monitor.Stop();
        StartOver();
        Readings readings;
        readings.GraphicsMHz = 1200;
        readings.MemoryMHz = 5001;
        Sim.SetBoards(fixed_boards::FixedBoards(2, readings, clocks));
    }

    /// Queries into a record that holds an earlier answer, of which nothing may survive.
    GpuClockCapabilities Query(unsigned int index = 0, bool bExpected = true) {
        GpuClockCapabilities answer{7, "uuid", "name", {{1, 2}}, 3, 4, true, "status"};
        EXPECT_EQ(Monitor.GetClockCapabilities(index, &answer), bExpected);
        EXPECT_EQ(answer.CanControl, !answer.SupportedPairs.empty());
        return answer;
    }

    std::string Lock(const Pair& pair = {1500, 810}) {
        return Outcome([&](std::string* error) { return Monitor.SetLockedClock(pair, error); });
    }

    std::string Reset() {
        std::string outcome = Outcome([&](std::string* error) { return Monitor.RestoreDefaultClocks(error); });
        EXPECT_EQ(Outcome([&](std::string* error) {
                      return Monitor.RestoreClockState({true, 1500, 810}, error);
                  }),
                  outcome);
        return outcome;
    }

    // What the log tells of changes.
    const std::string GraphicsLocked = "DeviceSetGpuLockedClocks(0, 1500, 1500) ";
    const std::string Locked = GraphicsLocked + "DeviceSetMemoryLockedClocks(0, 810, 810) ";
    const std::string Undone = "DeviceResetGpuLockedClocks(0) DeviceResetMemoryLockedClocks(0) ";
    const std::string Released = "DeviceResetMemoryLockedClocks(0) DeviceResetGpuLockedClocks(0) ";
    const std::string NotListed = "Unsupported: Requested clock pair is not supported by NVML. ";
};

TEST_F(ClocksTest, QueryListsEveryPairOnceInOrder) {
    EXPECT_TRUE(Pair() == (Pair{0, 0}) && Pair() != (Pair{0, 1}) && Pair() != (Pair{1, 0}));
    const GpuClockCapabilities answer = Query();
    EXPECT_THAT(answer.SupportedPairs, ElementsAre(Pair{300, 810}, Pair{1500, 810}, Pair{1500, 5001}));
    EXPECT_EQ(answer.Status, "NVML active: 2 NVIDIA GPU(s).");
    EXPECT_EQ(answer.DeviceName + answer.DeviceUuid, DesktopBoard(0).Name + DesktopBoard(0).Uuid);
    EXPECT_EQ(answer.CurrentGraphicsClockMHz, 1200);
    EXPECT_EQ(answer.CurrentMemoryClockMHz, 5001);
    const size_t secondQuery = Sim.Log().size();
    Query();
    EXPECT_EQ(Log(secondQuery),
              "?HandleByIndex_v2 HandleByIndex_v2(0) ?ClockInfo ClockInfo(0, 0) ClockInfo(0, 2) "
              "?SupportedMemoryClocks ?SupportedGraphicsClocks ?DeviceSetGpuLockedClocks ?DeviceResetGpuLockedClocks "
              "?DeviceSetMemoryLockedClocks ?DeviceResetMemoryLockedClocks "
              "SupportedMemoryClocks(0, 0) SupportedMemoryClocks(0, 2) "
              "SupportedGraphicsClocks(0, 5001, 0) SupportedGraphicsClocks(0, 5001, 1) "
              "SupportedGraphicsClocks(0, 810, 0) SupportedGraphicsClocks(0, 810, 3) ");
}

TEST_F(ClocksTest, WhatKeepsClocksFromBeingLockedIsSaid) {
    const char* const noNames = "NVML locked-clock control is not supported by this driver.";
    const char* const noClocks = "NVML did not expose supported memory clocks.";
    const char* const noFill = "NVML supported memory-clock query failed.";
    const char* const noPairs = "NVML returned no supported locked-clock pairs.";
    const Groups usual = {{810, {1500, 300}}};
    const std::tuple<const char*, std::vector<Fault>, Groups> cases[] = {
        {noNames, {{kMemoryList}}, usual},
        {noNames, {{kGraphicsList}}, usual},
        {noNames, {{kLockGraphics}}, usual},
        {noNames, {{kResetGraphics}}, usual},
        {noNames, {{kLockMemory}}, usual},
        {noNames, {{kResetMemory}}, usual},
        {noClocks, {{kMemoryList, kInsufficientSize}}, {}},
        {noClocks, {{kMemoryList, kInsufficientSize}}, Groups(4097, usual[0])},
        {noClocks, {{kMemoryList, kNotSupported}}, usual},
        {noFill, {{kMemoryList, kInsufficientSize, 2}}, usual},
        {noPairs, {{kGraphicsList, kNotSupported}}, usual},
        {noPairs, {{kGraphicsList, kInsufficientSize, 2}}, usual},
        {noPairs, {}, {{810, {0, 0}}, {405, {}}, {324, std::vector<unsigned int>(4097, 300)}}},
    };
    for (const auto& [status, faults, clocks] : cases) {
        MakeWhole(clocks);
        Break(faults);
        const GpuClockCapabilities answer = Query();
        EXPECT_EQ(answer.Status, status);
        EXPECT_THAT(answer.SupportedPairs, IsEmpty()) << status;
        EXPECT_EQ(answer.CurrentGraphicsClockMHz, 1200) << "read all the same";
    }
    Break({{kMemoryList}});
    EXPECT_EQ(Lock(), NotListed) << "whatever keeps it from being listed";
    GpuClockState state{true, 1, 2};
    EXPECT_FALSE(Monitor.CaptureClockState(&state));
    EXPECT_TRUE(!state.Valid && state.GraphicsClockMHz == -1 && state.MemoryClockMHz == -1);
}

TEST_F(ClocksTest, ListsOf4096ClocksAndOnesThatShrinkAreTaken) {
    const auto pairs = [this](const Groups& clocks, int change = 0) {
        MakeWhole(clocks);
        Sim.ChangeListAfterSizeQuery(kMemoryList, change);
        Sim.ChangeListAfterSizeQuery(kGraphicsList, change);
        std::vector<Pair> listed = Query().SupportedPairs;
        EXPECT_EQ(listed.capacity(), listed.size());
        return listed;
    };
    Groups groups(4096);
    std::vector<unsigned int> clocks(4096);
    for (unsigned int i = 0; i < 4096; ++i) groups[i] = {i, {clocks[i] = i + 1}};
    EXPECT_THAT(pairs(groups), AllOf(SizeIs(4096), Contains(Pair{1, 0})));
    EXPECT_THAT(pairs({{5001, clocks}, {810, {}}, {405, {200}}}),
                AllOf(SizeIs(4097), Contains(Pair{4096, 5001}), Contains(Pair{200, 405})));
    EXPECT_THAT(Log(), EndsWith("(0, 5001, 4096) SupportedGraphicsClocks(0, 810, 0) SupportedGraphicsClocks(0, 405, 0) "
                                "SupportedGraphicsClocks(0, 405, 1) "));
    EXPECT_THAT(pairs({{5001, {1500, 300}}, {810, {1500}}}, -1), ElementsAre(Pair{1500, 5001}));
    EXPECT_THAT(Log(), EndsWith("SupportedGraphicsClocks(0, 0, 0) ")) << "what was not written is zero";
}

TEST_F(ClocksTest, CurrentClocksThatCannotBeReadDoNotStandInTheWay) {
    Break({{"nvmlDeviceGetClockInfo", kUnknown, 2}});
    GpuClockState state;
    EXPECT_TRUE(Monitor.CaptureClockState(&state) && state.Valid);
    EXPECT_EQ(state.GraphicsClockMHz, 1200);
    EXPECT_EQ(state.MemoryClockMHz, -1);
    Break({{"nvmlDeviceGetClockInfo"}});
    EXPECT_TRUE(Monitor.CaptureClockState(&state) && state.Valid);
    EXPECT_TRUE(state.GraphicsClockMHz == -1 && state.MemoryClockMHz == -1);
    EXPECT_THAT(Log(), EndsWith(" SupportedGraphicsClocks(0, 810, 3) ")) << "device 0";
}

TEST_F(ClocksTest, LockSetsBothClocksAndResetReleasesThem) {
    EXPECT_EQ(Monitor.SetLockedClock(1, {1500, 810}), GpuClockOperationResult::Success);
    EXPECT_THAT(Log(), EndsWith("SupportedGraphicsClocks(1, 810, 3) ?DeviceSetGpuLockedClocks "
                                "?DeviceSetMemoryLockedClocks ?DeviceResetGpuLockedClocks "
                                "?DeviceResetMemoryLockedClocks ?HandleByIndex_v2 HandleByIndex_v2(1) "
                                "DeviceSetGpuLockedClocks(1, 1500, 1500) DeviceSetMemoryLockedClocks(1, 810, 810) "));
    EXPECT_EQ(Monitor.RestoreDefaultClocks(1), GpuClockOperationResult::Success);
    EXPECT_THAT(Log(), EndsWith(" ?HandleByIndex_v2 HandleByIndex_v2(1) ?DeviceResetGpuLockedClocks "
                                "?DeviceResetMemoryLockedClocks "
                                "DeviceResetMemoryLockedClocks(1) DeviceResetGpuLockedClocks(1) "));
}

TEST_F(ClocksTest, WhatNvmlRefusesIsMappedAndHalfALockIsUndone) {
    for (const auto& [code, outcome] : Refusals("GPU locked-clock control")) {
        Break({{kLockGraphics, code}});
        EXPECT_EQ(Lock(), outcome + GraphicsLocked);
    }
    for (const auto& [code, outcome] : Refusals("memory locked-clock control")) {
        Break({{kLockMemory, code}, {kResetGraphics, kUnknown}, {kResetMemory, kUnknown}});
        EXPECT_EQ(Lock(), outcome + Locked + Undone);
        EXPECT_NE(Monitor.SetLockedClock({1500, 810}), GpuClockOperationResult::Success) << "with nowhere to say why";
    }
    for (const auto& [code, outcome] : Refusals("memory locked-clock reset")) {
        Break({{kResetMemory, code}, {kResetGraphics, kGpuIsLost}});
        EXPECT_EQ(Reset(), outcome + Released);
    }
    for (const auto& [code, outcome] : Refusals("GPU locked-clock reset")) {
        Break({{kResetGraphics, code}});
        EXPECT_EQ(Reset(), outcome + Released);
    }
}

TEST_F(ClocksTest, ChangeThatCannotBeMadeIsRefusedBeforeNvmlIsAsked) {
    EXPECT_THAT((std::set{Lock({300, 5001}), Lock({1500, 405}), Lock({1200, 810}), Lock({})}), ElementsAre(NotListed));
    for (const char* name : {kLockGraphics, kLockMemory, kResetGraphics, kResetMemory}) {
        Break({{name, 0, 2}});  // there for the query, gone when the lock looks
        EXPECT_EQ(Lock(), "Unsupported: NVML locked-clock control is unavailable. ");
        MakeWhole();
    }
    for (const char* name : {kResetGraphics, kResetMemory}) {
        Break({{name}});
        EXPECT_EQ(Reset(), "Unsupported: NVML locked-clock reset is unavailable. ");
        EXPECT_THAT(Log(), EndsWith(" ?DeviceResetGpuLockedClocks ?DeviceResetMemoryLockedClocks "));
        MakeWhole();
    }
    Query();
    Break({{kHandle, kGpuIsLost, 2}});
    EXPECT_EQ(Lock(), "Error: NVIDIA GPU is unavailable. ");
}

TEST_F(ClocksTest, WithoutADriverOrTheGpuTheRecordsSaySo) {
    EXPECT_FALSE(Monitor.GetClockCapabilities(nullptr));
    EXPECT_FALSE(Monitor.GetClockCapabilities(0, nullptr));
    EXPECT_FALSE(Monitor.CaptureClockState(nullptr));
    EXPECT_EQ(Log(), "") << "without a record to fill nothing is started";
    const auto expectUnavailable = [this](const std::string& status, unsigned int index, const std::string& identity) {
        const GpuClockCapabilities answer = Query(1, false);
        EXPECT_EQ(answer.Status, status);
        EXPECT_EQ(answer.DeviceIndex, index);
        EXPECT_EQ(answer.DeviceName + answer.DeviceUuid, identity);
        EXPECT_EQ(answer.CurrentGraphicsClockMHz, -1);
        EXPECT_EQ(Lock() + Reset(), "Error: " + status + " Error: " + status + ' ');
        Monitor.Stop();
    };
    Query();
    Break({{kHandle, kGpuIsLost}});
    expectUnavailable("NVML has no usable NVIDIA device.", 1, DesktopBoard(1).Name + DesktopBoard(1).Uuid);
    Sim.RemoveLibrary();
    expectUnavailable("NVML unavailable / NVIDIA GPU monitoring disabled.", 0, "");
}

TEST_F(ClocksTest, WithoutAnIndexItIsNvmlsDevice0AlsoWhenDiscoverySkippedIt) {
    Sim.FailFrom("nvmlDeviceGetName", kUnknown, 1, 0);
    GpuClockCapabilities answer;
    EXPECT_TRUE(Monitor.GetClockCapabilities(&answer) && answer.CanControl);
    EXPECT_EQ(answer.DeviceName + answer.DeviceUuid, "");
    EXPECT_EQ(Lock() + Reset(), "Success " + Locked + "Success " + Released);
}

// ---- Power limit ----

const char* const kEnforced = "nvmlDeviceGetEnforcedPowerLimit";
const char* const kConfigured = "nvmlDeviceGetPowerManagementLimit";
const char* const kDefault = "nvmlDeviceGetPowerManagementDefaultLimit";
const char* const kRange = "nvmlDeviceGetPowerManagementLimitConstraints";
const char* const kSet = "nvmlDeviceSetPowerManagementLimit";

class PowerTest : public TuningTest {
protected:
    PowerTest() { SetRange(100000, 350000); }

    /// Gives board 1, whose default is 320 W, this range in milliwatts. Board 0 cannot be read.
    void SetRange(unsigned int minimum, unsigned int maximum, unsigned int defaultLimit = 320000) {
        Board board = DesktopBoard(1);
        board.DefaultPowerLimitMilliwatts = defaultLimit;
        board.MinimumPowerLimitMilliwatts = minimum;
        board.MaximumPowerLimitMilliwatts = maximum;
        board.Fixed = Readings();
        Sim.SetBoards({LaptopBoard(0), board});
    }

    /// Queries into a record that holds an earlier answer, of which nothing may survive.
    GpuPowerCapabilities Query(bool bExpected = true) {
        GpuPowerCapabilities answer{7, "uuid", State::PermissionRequired, 1.0, 2.0, 3.0, 4.0, "status"};
        EXPECT_EQ(Monitor.GetPowerCapabilities(1, &answer), bExpected);
        EXPECT_EQ(answer.DeviceIndex, 1U);
        return answer;
    }

    /// Current, default, lowest and highest limit.
    static std::vector<double> Watts(const GpuPowerCapabilities& answer) {
        return {answer.CurrentWatts, answer.DefaultWatts, answer.MinimumWatts, answer.MaximumWatts};
    }

    std::string Set(double watts) {
        return Outcome([&](std::string* error) { return Monitor.SetPowerLimit(1, watts, error); });
    }

    std::string Restore() {
        return Outcome([&](std::string* error) { return Monitor.RestoreDefaultPowerLimit(1, error); });
    }

    const std::string SetTo320 = "Success DeviceSetPowerManagementLimit(1, 320000) ";
    const std::string Outside = "Unsupported: Requested power limit is outside the driver-supported range. ";
};

TEST_F(PowerTest, QueryReadsAllLimitsInOrder) {
    const GpuPowerCapabilities answer = Query();
    EXPECT_EQ(answer.DeviceUuid, DesktopBoard(1).Uuid);
    EXPECT_THAT(Watts(answer), ElementsAre(320.0, 320.0, 100.0, 350.0));
    const size_t secondQuery = Sim.Log().size();
    Query();
    EXPECT_EQ(Log(secondQuery),
              "?HandleByIndex_v2 HandleByIndex_v2(1) ?EnforcedPowerLimit ?PowerManagementLimit "
              "?PowerManagementDefaultLimit ?PowerManagementLimitConstraints ?DeviceSetPowerManagementLimit "
              "EnforcedPowerLimit(1) PowerManagementDefaultLimit(1) PowerManagementLimitConstraints(1) ");
    Break({{kEnforced, kNoPermission}});
    Query();
    EXPECT_THAT(Log(), HasSubstr(" EnforcedPowerLimit(1) PowerManagementLimit(1) "));
}

TEST_F(PowerTest, StateFollowsFromWhatTheDriverHasAndAnswers) {
    const char* const supported = "Power-limit control supported; authorization may be required to apply.";
    const char* const notByGpu = "Power-limit control is not supported by this GPU.";
    const char* const notByDriver = "Power-limit control is not exposed by this NVIDIA driver.";
    const char* const notNow = "Power-limit constraints are temporarily unavailable.";
    using Limits = std::vector<double>;
    const Limits all = {320.0, 320.0, 100.0, 350.0};
    const Limits noCurrent = {-1.0, 320.0, 100.0, 350.0};
    const Limits noRange = {320.0, 320.0, -1.0, -1.0};
    const Limits none(4, -1.0);
    const std::pair<unsigned int, unsigned int> usual = {100000, 350000};
    const std::tuple<State, const char*, Limits, std::vector<Fault>, decltype(usual)> cases[] = {
        {State::Supported, supported, all, {{kEnforced}}, usual},
        {State::Supported, supported, all, {{kConfigured}}, usual},
        {State::Supported, supported, all, {{kEnforced, kNotSupported}}, usual},
        {State::Supported, supported, {320.0, -1.0, 100.0, 350.0}, {{kDefault, kNotSupported}}, usual},
        {State::Supported, supported, {320.0, 320.0, 320.0, 320.0}, {}, {320000, 320000}},
        {State::Supported, supported, {320.0, 320.0, 0.001, 4294967.295}, {}, {1, UINT32_MAX}},
        {State::DriverLimitation, notByDriver, none, {{kEnforced}, {kConfigured}}, usual},
        {State::DriverLimitation, notByDriver, none, {{kDefault}}, usual},
        {State::DriverLimitation, notByDriver, none, {{kRange}}, usual},
        {State::DriverLimitation, notByDriver, none, {{kSet}}, usual},
        {State::Unsupported, notByGpu, noCurrent, {{kEnforced, kUnknown}, {kConfigured, kNotSupported}}, usual},
        {State::Unsupported, notByGpu, noRange, {{kRange, kNotSupported}}, usual},
        {State::Unavailable, notNow, noCurrent, {{kEnforced, kNotSupported}, {kConfigured, kUnknown}}, usual},
        {State::Unavailable, notNow, noCurrent, {{kEnforced, kUnknown}, {kConfigured}}, usual},
        {State::Unavailable, notNow, noRange, {{kRange, kNoPermission}}, usual},
        {State::Unavailable, notNow, {320.0, 320.0, 0.0, 350.0}, {}, {0, 350000}},
        {State::Unavailable, notNow, {320.0, 320.0, 350.0, 349.999}, {}, {350000, 349999}},
    };
    for (const auto& [state, status, watts, faults, range] : cases) {
        SetRange(range.first, range.second);
        Break(faults);
        const GpuPowerCapabilities answer = Query();
        EXPECT_EQ(answer.State, state);
        EXPECT_EQ(answer.Status, status);
        EXPECT_EQ(Watts(answer), watts);
        const std::string refusal = std::string("Unsupported: ") + status + ' ';
        EXPECT_EQ(Set(320.0), state == State::Supported ? SetTo320 : refusal);
        EXPECT_EQ(Restore(), state == State::Supported && watts[1] > 0.0 ? SetTo320 : refusal);
        Monitor.Stop();
        StartOver();
    }
}

TEST_F(PowerTest, LimitsWithinTheRangeAreSetInWholeMilliwatts) {
    const auto setTo = [](const std::string& milliwatts) {
        return "Success DeviceSetPowerManagementLimit(1, " + milliwatts + ") ";
    };
    EXPECT_EQ(Set(100.0), setTo("100000"));
    EXPECT_EQ(Set(350.0), setTo("350000"));
    EXPECT_EQ(Set(212.4996), setTo("212500"));
    EXPECT_EQ(Set(200.0625), setTo("200063"));
    for (const double watts : {350.0004, 99.9999, -200.0, std::nan(""), HUGE_VAL, -HUGE_VAL}) {
        EXPECT_EQ(Set(watts), Outside) << watts;
    }
    EXPECT_EQ(Restore(), SetTo320);
    SetRange(1, UINT32_MAX);
    EXPECT_EQ(Set(4294967.295), setTo("4294967295"));
    SetRange(100000, 319999);
    EXPECT_EQ(Restore(), Outside);
    SetRange(100000, 350000, 0);
    EXPECT_EQ(Restore(), "Unsupported: " + Query().Status + ' ') << "a board without a default";
}

TEST_F(PowerTest, WhatNvmlRefusesIsMapped) {
    for (const auto& [code, outcome] : Refusals("power-limit control")) {
        Break({{kSet, code}});
        EXPECT_EQ(Set(150.0), outcome + "DeviceSetPowerManagementLimit(1, 150000) ");
        EXPECT_THAT(Log(), HasSubstr(" ?DeviceSetPowerManagementLimit ?HandleByIndex_v2 HandleByIndex_v2(1) Device"));
        EXPECT_EQ(Restore(), outcome + "DeviceSetPowerManagementLimit(1, 320000) ");
        EXPECT_NE(Monitor.SetPowerLimit(1, 150.0), GpuClockOperationResult::Success) << "with nowhere to say why";
    }
    for (const Fault& fault : {Fault{kHandle, kGpuIsLost, 2}, Fault{kSet, 0, 2}}) {  // after the query
        Break({fault});
        EXPECT_EQ(Set(150.0), "Unsupported: NVML power-limit control is unavailable. ");
    }
}

TEST_F(PowerTest, WithoutADriverOrTheGpuTheRecordSaysSo) {
    EXPECT_FALSE(Monitor.GetPowerCapabilities(0, nullptr));
    EXPECT_EQ(Log(), "") << "without a record to fill nothing is started";
    const auto expectUnavailable = [this](const std::string& status) {
        const GpuPowerCapabilities answer = Query(false);
        EXPECT_EQ(answer.Status, status);
        EXPECT_EQ(answer.DeviceUuid, "");
        EXPECT_EQ(answer.State, State::Unavailable);
        EXPECT_THAT(Watts(answer), Each(-1.0));
        EXPECT_EQ(Set(200.0), "Error: " + status + ' ');
        EXPECT_EQ(Restore(), "Unsupported: " + status + ' ');
        Monitor.Stop();
    };
    Sim.SetBoards({DesktopBoard(0), DesktopBoard(1)});
    Sim.FailFrom("nvmlDeviceGetName", kUnknown, 1, 1);
    expectUnavailable("NVIDIA GPU is unavailable.");
    Sim.StopFailing();
    Query();
    Break({{kHandle, kGpuIsLost}});
    expectUnavailable("NVIDIA GPU is unavailable.");
    Sim.RemoveLibrary();
    expectUnavailable("NVML unavailable / NVIDIA GPU monitoring disabled.");
}

}  // namespace
