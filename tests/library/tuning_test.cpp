// What can be changed on a GPU, changing it, and taking the change back: clocks first, then the power limit.

#include <cmath>
#include <functional>
#include <tuple>

#include "monitor_test.h"

namespace {

using namespace simulated_nvml;
using namespace testing;
using Groups = std::vector<ClockGroup>;
using Pair = GpuClockPair;
using Result = GpuClockOperationResult;
using State = GpuCapabilityState;

static_assert(sizeof(Result) == 1 && sizeof(State) == 1 && static_cast<int>(State::Unavailable) == 4);

const char* const kHandle = "nvmlDeviceGetHandleByIndex_v2";
const char* const kMemoryList = "nvmlDeviceGetSupportedMemoryClocks";
const char* const kGraphicsList = "nvmlDeviceGetSupportedGraphicsClocks";
const char* const kLockGraphics = "nvmlDeviceSetGpuLockedClocks";
const char* const kLockMemory = "nvmlDeviceSetMemoryLockedClocks";
const char* const kResetGraphics = "nvmlDeviceResetGpuLockedClocks";
const char* const kResetMemory = "nvmlDeviceResetMemoryLockedClocks";
const char* const kEnforced = "nvmlDeviceGetEnforcedPowerLimit";
const char* const kConfigured = "nvmlDeviceGetPowerManagementLimit";
const char* const kDefault = "nvmlDeviceGetPowerManagementDefaultLimit";
const char* const kRange = "nvmlDeviceGetPowerManagementLimitConstraints";
const char* const kSet = "nvmlDeviceSetPowerManagementLimit";

/// A name that is missing (`Code` 0) or fails with `Code`, from its n-th lookup or call on.
struct Fault {
    const char* Name;
    unsigned int Code = 0;
    uint64_t Nth = 1;
};

// Records with an earlier answer, of which nothing may be left after a query.

GpuClockCapabilities OldClocks() {
    return {7, "old uuid", "old name", {{1, 2}}, 3, 4, true, "old status"};
}

GpuPowerCapabilities OldPower() {
    return {7, "old uuid", State::PermissionRequired, 1.0, 2.0, 3.0, 4.0, "old status"};
}

/// Current, default, lowest and highest limit.
std::vector<double> Watts(const GpuPowerCapabilities& answer) {
    return {answer.CurrentWatts, answer.DefaultWatts, answer.MinimumWatts, answer.MaximumWatts};
}

/// Two fixed boards: clocks are changed on the first, the power limit on the second.
class TuningTest : public MonitorTest {
protected:
    TuningTest() { MakeWhole(); }

    /// Two boards without faults, and a closed NVML.
    void MakeWhole(const Groups& clocks = fixed_boards::FewClocks()) {
        Monitor.Stop();
        StartOver();
        Sim.SetBoards(fixed_boards::FixedBoards(2, fixed_boards::DistinctReadings(), clocks));
    }

    /// Replaces the failures; names stay missing until `StartOver`.
    void Break(const std::vector<Fault>& faults) {
        Sim.StopFailing();
        for (const Fault& fault : faults) {
            fault.Code == 0 ? Sim.HideEntryPoint(fault.Name, fault.Nth)
                            : Sim.FailFrom(fault.Name, fault.Code, fault.Nth);
        }
    }

    /// The result of `change` and its calls of NVML: "Result: Sentence. Calls ", without a sentence when the string
    /// that receives it is untouched.
    template <typename Change>
    std::string Outcome(Change change) {
        const std::string before(200, 'x');
        std::string error = before;
        const size_t from = Sim.Log().size();
        const Result result = change(&error);
        constexpr const char* kResults[] = {"Success", "NoPermission", "Unsupported", "Error"};
        const std::string sentence = error == before ? " " : ": " + error + ' ';
        return kResults[static_cast<int>(result)] + sentence + Log(from, {"LockedClocks(", "SetPowerManagementLimit("});
    }

    GpuClockCapabilities QueryClocks() {
        GpuClockCapabilities answer = OldClocks();
        EXPECT_TRUE(Monitor.GetClockCapabilities(0, &answer));
        EXPECT_EQ(answer.CanControl, !answer.SupportedPairs.empty());
        return answer;
    }

    GpuPowerCapabilities QueryPower() {
        GpuPowerCapabilities answer = OldPower();
        EXPECT_TRUE(Monitor.GetPowerCapabilities(1, &answer));
        EXPECT_EQ(answer.DeviceIndex, 1U);
        return answer;
    }

    std::string Lock() {
        return Outcome([&](std::string* error) { return Monitor.SetLockedClock({1500, 810}, error); });
    }

    std::string ResetClocks() {
        std::string outcome = Outcome([&](std::string* error) { return Monitor.RestoreDefaultClocks(error); });
        const GpuClockState state{true, 1500, 810};
        EXPECT_EQ(Outcome([&](std::string* error) { return Monitor.RestoreClockState(state, error); }), outcome);
        return outcome;
    }

    std::string SetLimit(double watts) {
        return Outcome([&](std::string* error) { return Monitor.SetPowerLimit(1, watts, error); });
    }

    std::string RestoreLimit() {
        return Outcome([&](std::string* error) { return Monitor.RestoreDefaultPowerLimit(1, error); });
    }

    // What the log shows of changes.
    const std::string Locked = "DeviceSetGpuLockedClocks(0, 1500, 1500) DeviceSetMemoryLockedClocks(0, 810, 810) ";
    const std::string Undone = "DeviceResetGpuLockedClocks(0) DeviceResetMemoryLockedClocks(0) ";
    const std::string Released = "DeviceResetMemoryLockedClocks(0) DeviceResetGpuLockedClocks(0) ";
    const std::string LimitSet = "DeviceSetPowerManagementLimit(1, 320000) ";
};

// ---- Clocks and power limit ----

TEST_F(TuningTest, Device0IsThatOfNvmlAlsoWhenDiscoverySkippedItAndThenHasNoPowerLimit) {
    Sim.FailFrom("nvmlDeviceGetName", kUnknown, 1, 0);
    GpuClockCapabilities clocks;
    EXPECT_TRUE(Monitor.GetClockCapabilities(&clocks) && clocks.CanControl);
    EXPECT_EQ(clocks.DeviceName + clocks.DeviceUuid, "");
    EXPECT_EQ(Lock() + ResetClocks(), "Success " + Locked + "Success " + Released);
    GpuClockState state;
    EXPECT_TRUE(Monitor.CaptureClockState(&state));
    EXPECT_THAT(Log(), EndsWith(" SupportedGraphicsClocks(0, 810, 3) "));
    GpuPowerCapabilities power;
    EXPECT_FALSE(Monitor.GetPowerCapabilities(0, &power));
    EXPECT_EQ(power.Status + power.DeviceUuid, "NVIDIA GPU is unavailable.");
}

TEST_F(TuningTest, FailedQueriesLeaveNothingOld) {
    GpuClockCapabilities clocks = OldClocks();
    GpuPowerCapabilities power = OldPower();
    GpuClockState state{true, 1, 2};
    GpuTelemetrySample sample;
    sample.TemperatureC = 1000;
    Sim.RemoveLibrary();
    EXPECT_FALSE(Monitor.GetClockCapabilities(1, &clocks) || Monitor.GetPowerCapabilities(1, &power) ||
                 Monitor.CaptureClockState(&state) || Monitor.ReadCurrentSample(1, &sample));
    EXPECT_EQ(clocks.DeviceUuid + power.DeviceUuid, "");
    EXPECT_TRUE(clocks.SupportedPairs.empty() && !clocks.CanControl && power.State == State::Unavailable);
    EXPECT_TRUE(!state.Valid && state.GraphicsClockMHz == -1 && sample.TemperatureC == -1);
}

TEST_F(TuningTest, FailedChangesSayWhy) {
    const auto lock = [this] { return Lock(); };
    const auto reset = [this] { return ResetClocks(); };
    const auto limit = [this] { return SetLimit(320.0); };
    const std::string noLock = "Unsupported: NVML locked-clock control is unavailable. ";
    const std::string noLimit = "Unsupported: NVML power-limit control is unavailable. ";
    const std::tuple<Fault, std::function<std::string()>, std::string> cases[] = {
        {{kGraphicsList}, lock, "Unsupported: Requested clock pair is not supported by NVML. "},
        {{kHandle, kGpuIsLost, 3}, lock, "Error: NVML has no usable NVIDIA device. "},
        {{kHandle, kGpuIsLost, 4}, lock, "Error: NVIDIA GPU is unavailable. "},
        {{kLockGraphics, kUnknown},
         lock,
         "Error: NVML GPU locked-clock control failed. DeviceSetGpuLockedClocks(0, 1500, 1500) "},
        {{kLockMemory, kNoPermission},
         lock,
         "NoPermission: NVML denied memory locked-clock control for this user. " + Locked + Undone},
        {{kResetMemory}, reset, "Unsupported: NVML locked-clock reset is unavailable. "},
        {{kHandle, kGpuIsLost, 3}, reset, "Error: NVML has no usable NVIDIA device. "},
        {{kResetMemory, kUnknown}, reset, "Error: NVML memory locked-clock reset failed. " + Released},
        {{kResetGraphics, kNotSupported},
         reset,
         "Unsupported: The NVIDIA driver does not support GPU locked-clock reset. " + Released},
        {{kSet, kNoPermission}, limit, "NoPermission: NVML denied power-limit control for this user. " + LimitSet}};
    for (const auto& [fault, change, outcome] : cases) {
        MakeWhole();
        Break({fault});
        EXPECT_EQ(change(), outcome);
    }
}

// ---- Clocks ----

using ClocksTest = TuningTest;

TEST_F(ClocksTest, QueryListsEveryPairOnceInOrder) {
    EXPECT_TRUE(Pair() == (Pair{0, 0}) && Pair() != (Pair{0, 1}) && Pair() != (Pair{1, 0}));
    const GpuClockCapabilities answer = QueryClocks();
    EXPECT_THAT(answer.SupportedPairs, ElementsAre(Pair{300, 810}, Pair{1500, 810}, Pair{1500, 5001}));
    EXPECT_EQ(answer.Status, "NVML active: 2 NVIDIA GPU(s).");
    EXPECT_EQ(answer.DeviceName + answer.DeviceUuid, DesktopBoard(0).Name + DesktopBoard(0).Uuid);
    EXPECT_EQ(answer.CurrentGraphicsClockMHz, 2100);
    EXPECT_EQ(answer.CurrentMemoryClockMHz, 9501);
    GpuClockState state;
    EXPECT_TRUE(Monitor.CaptureClockState(&state) && state.GraphicsClockMHz == 2100 && state.MemoryClockMHz == 9501);
    const size_t secondQuery = Sim.Log().size();
    QueryClocks();
    EXPECT_EQ(Log(secondQuery),
              "?HandleByIndex_v2 HandleByIndex_v2(0) ?ClockInfo ClockInfo(0, 0) ClockInfo(0, 2) "
              "?SupportedMemoryClocks ?SupportedGraphicsClocks ?DeviceSetGpuLockedClocks ?DeviceResetGpuLockedClocks "
              "?DeviceSetMemoryLockedClocks ?DeviceResetMemoryLockedClocks "
              "SupportedMemoryClocks(0, 0) SupportedMemoryClocks(0, 2) "
              "SupportedGraphicsClocks(0, 5001, 0) SupportedGraphicsClocks(0, 5001, 1) "
              "SupportedGraphicsClocks(0, 810, 0) SupportedGraphicsClocks(0, 810, 3) ");
    Break({{"nvmlDeviceGetClockInfo", kNotSupported}});
    EXPECT_EQ(QueryClocks().CurrentGraphicsClockMHz, -1);
}

TEST_F(ClocksTest, StatusSaysWhyClocksCannotBeLocked) {
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
        const GpuClockCapabilities answer = QueryClocks();
        EXPECT_EQ(answer.Status, status);
        EXPECT_THAT(answer.SupportedPairs, IsEmpty()) << status;
        EXPECT_EQ(answer.CurrentGraphicsClockMHz, 2100) << "read nevertheless";
        GpuClockState state;
        EXPECT_FALSE(Monitor.CaptureClockState(&state)) << status;
    }
}

TEST_F(ClocksTest, ListsOf4096ClocksAndOnesThatShrinkAreTaken) {
    Groups groups(4096);
    std::vector<unsigned int> clocks(4096);
    for (unsigned int i = 0; i < 4096; ++i) groups[i] = {i, {clocks[i] = i + 1}};
    MakeWhole(groups);
    EXPECT_THAT(QueryClocks().SupportedPairs, AllOf(SizeIs(4096), Contains(Pair{1, 0})));
    MakeWhole({{5001, clocks}, {810, {}}, {405, {200}}});
    EXPECT_THAT(QueryClocks().SupportedPairs,
                AllOf(SizeIs(4097), Contains(Pair{4096, 5001}), Contains(Pair{200, 405})));
    MakeWhole({{5001, {1500, 300}}, {810, {1500}}});
    Sim.ChangeListAfterSizeQuery(kMemoryList, -1);
    Sim.ChangeListAfterSizeQuery(kGraphicsList, -1);
    EXPECT_THAT(QueryClocks().SupportedPairs, ElementsAre(Pair{1500, 5001}));
}

TEST_F(ClocksTest, LockSetsBothClocksOrNeitherAndResetReleasesThem) {
    EXPECT_EQ(Monitor.SetLockedClock(1, {1500, 810}), Result::Success);
    EXPECT_THAT(Log(), EndsWith("SupportedGraphicsClocks(1, 810, 3) ?DeviceSetGpuLockedClocks "
                                "?DeviceSetMemoryLockedClocks ?DeviceResetGpuLockedClocks "
                                "?DeviceResetMemoryLockedClocks ?HandleByIndex_v2 HandleByIndex_v2(1) "
                                "DeviceSetGpuLockedClocks(1, 1500, 1500) DeviceSetMemoryLockedClocks(1, 810, 810) "));
    EXPECT_EQ(Monitor.RestoreDefaultClocks(1), Result::Success);
    EXPECT_THAT(Log(), EndsWith(" ?HandleByIndex_v2 HandleByIndex_v2(1) ?DeviceResetGpuLockedClocks "
                                "?DeviceResetMemoryLockedClocks "
                                "DeviceResetMemoryLockedClocks(1) DeviceResetGpuLockedClocks(1) "));
}

// ---- Power limit ----

class PowerTest : public TuningTest {
protected:
    /// Gives board 1 this range in milliwatts, and this default.
    void SetRange(unsigned int minimum, unsigned int maximum, unsigned int defaultLimit = 320000) {
        std::vector<Board> boards = fixed_boards::FixedBoards(2);
        boards[1].DefaultPowerLimitMilliwatts = defaultLimit;
        boards[1].MinimumPowerLimitMilliwatts = minimum;
        boards[1].MaximumPowerLimitMilliwatts = maximum;
        Sim.SetBoards(boards);
    }

    const std::string Outside = "Unsupported: Requested power limit is outside the driver-supported range. ";
};

TEST_F(PowerTest, QueryReadsAllLimitsInOrder) {
    const GpuPowerCapabilities answer = QueryPower();
    EXPECT_EQ(answer.DeviceUuid, DesktopBoard(1).Uuid);
    EXPECT_THAT(Watts(answer), ElementsAre(320.0, 320.0, 150.0, 352.0));
    const size_t secondQuery = Sim.Log().size();
    QueryPower();
    EXPECT_EQ(Log(secondQuery),
              "?HandleByIndex_v2 HandleByIndex_v2(1) ?EnforcedPowerLimit ?PowerManagementLimit "
              "?PowerManagementDefaultLimit ?PowerManagementLimitConstraints ?DeviceSetPowerManagementLimit "
              "EnforcedPowerLimit(1) PowerManagementDefaultLimit(1) PowerManagementLimitConstraints(1) ");
    Break({{kEnforced, kNoPermission}});
    QueryPower();
    EXPECT_THAT(Log(), HasSubstr(" EnforcedPowerLimit(1) PowerManagementLimit(1) "));
}

TEST_F(PowerTest, StateFollowsFromWhatTheDriverHasAndAnswers) {
    const char* const supported = "Power-limit control supported; authorization may be required to apply.";
    const char* const notByGpu = "Power-limit control is not supported by this GPU.";
    const char* const notByDriver = "Power-limit control is not exposed by this NVIDIA driver.";
    const char* const notNow = "Power-limit constraints are temporarily unavailable.";
    using Limits = std::vector<double>;
    const Limits all = {320.0, 320.0, 150.0, 352.0};
    const Limits noCurrent = {-1.0, 320.0, 150.0, 352.0};
    const Limits noRange = {320.0, 320.0, -1.0, -1.0};
    const Limits none(4, -1.0);
    const std::pair<unsigned int, unsigned int> usual = {150000, 352000};
    const std::tuple<State, const char*, Limits, std::vector<Fault>, decltype(usual)> cases[] = {
        {State::Supported, supported, all, {{kEnforced}}, usual},
        {State::Supported, supported, all, {{kConfigured}}, usual},
        {State::Supported, supported, all, {{kEnforced, kNotSupported}}, usual},
        {State::Supported, supported, {320.0, -1.0, 150.0, 352.0}, {{kDefault, kNotSupported}}, usual},
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
        const GpuPowerCapabilities answer = QueryPower();
        EXPECT_EQ(answer.State, state);
        EXPECT_EQ(answer.Status, status);
        EXPECT_EQ(Watts(answer), watts);
        const std::string refusal = std::string("Unsupported: ") + status + ' ';
        EXPECT_EQ(SetLimit(320.0), state == State::Supported ? "Success " + LimitSet : refusal);
        EXPECT_EQ(RestoreLimit(), state == State::Supported && watts[1] > 0.0 ? "Success " + LimitSet : refusal);
        Monitor.Stop();
        StartOver();
    }
}

TEST_F(PowerTest, LimitsWithinTheRangeAreSetInWholeMilliwatts) {
    const auto setTo = [](const std::string& milliwatts) {
        return "Success DeviceSetPowerManagementLimit(1, " + milliwatts + ") ";
    };
    EXPECT_EQ(SetLimit(150.0), setTo("150000"));
    EXPECT_EQ(SetLimit(352.0), setTo("352000"));
    EXPECT_EQ(SetLimit(212.4996), setTo("212500"));
    EXPECT_EQ(SetLimit(200.0625), setTo("200063"));
    for (const double watts : {352.0004, 149.9999, -200.0, std::nan(""), HUGE_VAL, -HUGE_VAL}) {
        EXPECT_EQ(SetLimit(watts), Outside) << watts;
    }
    EXPECT_EQ(RestoreLimit(), "Success " + LimitSet);
    SetRange(1, UINT32_MAX);
    EXPECT_EQ(SetLimit(4294967.295), setTo("4294967295"));
    SetRange(100000, 319999);
    EXPECT_EQ(RestoreLimit(), Outside);
    SetRange(100000, 350000, 0);
    EXPECT_EQ(RestoreLimit(), "Unsupported: " + QueryPower().Status + ' ') << "a board without a default";
}

}  // namespace
