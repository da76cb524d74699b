// The feed that keeps the interfaces of example hosts from waiting for the driver, on a driver that does all kinds of
// things to it.

#include "gpu_feed/monitor_feed.h"

#include <condition_variable>
#include <future>
#include <mutex>

#include "gpu_feed/limit_reasons.h"
#include "monitor_test.h"

namespace {

using namespace testing;
using namespace gpu_feed;
using simulated_nvml::DesktopBoard;
using Kind = TuningChange::Kind;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kReadingCall = "nvmlDeviceGetTemperature";
constexpr const char* kSetPower = "nvmlDeviceSetPowerManagementLimit";
constexpr double kLongSeconds = 1000.0;
const TuningChange kLimit = {Kind::SetPower, {}, 200.0};

class FeedTest : public ScriptedTest {
protected:
    ~FeedTest() override {
        Sim.Unblock();
        Feed.reset();
        // Its thread may have been left behind.
        EXPECT_TRUE(WaitFor([this] { return Sim.Log().size() < 2 || Sim.Log().back() == "dlclose"; }));
    }

    /// Starts a feed of two GPUs that is looked at through `Data`.
    void Start(milliseconds interval = milliseconds(100), unsigned int boards = 2) {
        for (unsigned int i = 0; i < boards; ++i) Boards.push_back(DesktopBoard(i));
        Sim.SetBoards(Boards);
        FeedOptions options;
        options.Interval = interval;
        options.OnChange = [this] {
            const std::lock_guard<std::mutex> lock(Mutex);
            ++Changes;
            Changed.notify_all();
        };
        Feed = std::make_unique<MonitorFeed>(options);
    }

    /// For the states, which time alone can change, too.
    template <typename Condition>
    bool WaitFor(Condition condition) {
        std::unique_lock<std::mutex> lock(Mutex);
        const auto giveUp = std::chrono::steady_clock::now() + seconds(60);
        while (std::chrono::steady_clock::now() < giveUp) {
            lock.unlock();
            if (condition()) return true;
            lock.lock();
            Changed.wait_for(lock, milliseconds(10));
        }
        return false;
    }

    FeedState State() const { return Feed->Latest()->State; }

    /// The state of the GPU with the UUID of a board.
    GpuState StateOf(unsigned int board) const {
        const FeedMoment moment = Feed->Moment();
        const std::shared_ptr<const FeedGpu> gpu = moment.Data->Find(Key(board));
        return gpu == nullptr ? GpuState::Starting : gpu_feed::StateOf(moment, *gpu);
    }

    bool WaitForState(unsigned int board, GpuState state) {
        return WaitFor([&] { return StateOf(board) == state; });
    }

    /// The first GPU's.
    std::deque<GpuTelemetrySample> Samples() const {
        const std::shared_ptr<const FeedData> data = Feed->Latest();
        return data->Gpus.empty() ? std::deque<GpuTelemetrySample>() : data->Gpus[0]->Samples;
    }

    bool WaitForSamples(size_t count) {
        return WaitFor([&] { return Samples().size() >= count; });
    }

    int ChangeCount() {
        const std::lock_guard<std::mutex> lock(Mutex);
        return Changes;
    }

    const std::string& Key(unsigned int board = 0) const { return Boards[board].Uuid; }

    std::mutex Mutex;
    std::condition_variable Changed;
    int Changes = 0;
    std::vector<simulated_nvml::Board> Boards;
    std::unique_ptr<MonitorFeed> Feed;
};

TEST_F(FeedTest, StartsWithoutBeingWaitedForAndGivesSamplesOfEveryGpu) {
    Sim.Block("nvmlInit_v2");
    Start();
    EXPECT_TRUE(WaitFor([this] { return Feed->Moment().DriverSilence > 0.05; }));
    EXPECT_EQ(State(), FeedState::Starting);
    EXPECT_THAT(Feed->Latest()->Gpus, IsEmpty());
    EXPECT_EQ(ChangeCount(), 0);
    Sim.Unblock();
    EXPECT_TRUE(WaitForState(0, GpuState::Live) && WaitForState(1, GpuState::Live));
    EXPECT_TRUE(WaitForSamples(3));
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    EXPECT_EQ(data->State, FeedState::Sampling);
    EXPECT_EQ(data->Interval, milliseconds(100));
    ASSERT_THAT(data->Gpus, SizeIs(2));
    for (const auto& gpu : data->Gpus) {
        EXPECT_EQ(gpu->Latest.TimestampSeconds, gpu->Samples.back().TimestampSeconds);
        EXPECT_THAT(gpu->PeriodSeconds, AllOf(Ge(0.1), Le(SteadySeconds() - gpu->Samples[0].TimestampSeconds)));
        EXPECT_THAT(AgeOf(Feed->Moment(), *gpu), AllOf(Gt(0.0), Lt(60.0)));
        EXPECT_TRUE(std::is_sorted(gpu->Processes.begin(), gpu->Processes.end(),
                                   [](const auto& a, const auto& b) { return a.VramUsedBytes > b.VramUsedBytes; }));
        EXPECT_THAT(gpu->Processes, Not(IsEmpty()));
    }
    EXPECT_GT(ChangeCount(), 2);
    EXPECT_TRUE(Feed->Stop());
}

TEST_F(FeedTest, WithoutADriverItIsUnavailableAndSaysWhy) {
    Sim.RemoveLibrary();
    Start();
    EXPECT_TRUE(WaitFor([this] { return State() == FeedState::Unavailable; }));
    EXPECT_EQ(Feed->Latest()->Status, "NVML unavailable / NVIDIA GPU monitoring disabled.");
    EXPECT_THAT(Feed->Latest()->Gpus, IsEmpty());
    EXPECT_TRUE(Feed->Stop());
}

TEST_F(FeedTest, LostGpuHasNoDataWhileTheOtherGoesOn) {
    Start();
    Sim.LoseBoard(0, 300);
    EXPECT_TRUE(WaitForState(0, GpuState::Live));
    EXPECT_TRUE(WaitForState(0, GpuState::NoData));
    EXPECT_EQ(StateOf(1), GpuState::Live);
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    EXPECT_GT(data->Find(Key(0))->Latest.TemperatureC, 0);
    EXPECT_GT(data->Find(Key(0))->SilentSince, data->Find(Key(0))->Latest.TimestampSeconds);
    EXPECT_EQ(data->Find("GPU-0"), nullptr);
}

TEST_F(FeedTest, DriverThatHangsHoldsUpNeitherTheDataNorTheEnd) {
    Start();
    EXPECT_TRUE(WaitForSamples(3));
    Sim.Block(kReadingCall);
    EXPECT_TRUE(WaitForState(0, GpuState::NoData) && WaitForState(1, GpuState::NoData));
    const double wait = Feed->Moment().DriverSilence;
    EXPECT_GT(wait, 0.0);
    EXPECT_TRUE(WaitFor([&] { return Feed->Moment().DriverSilence > wait; }));
    std::future<TuningCapabilities> unanswered = Feed->QueryTuning(Key());
    EXPECT_FALSE(Feed->Stop(milliseconds(100)));
    const int changes = ChangeCount();
    Sim.Unblock();
    EXPECT_TRUE(WaitForCalls("nvmlShutdown", 1));
    const TuningCapabilities answer = unanswered.get();
    EXPECT_EQ(answer.Power.Status, "The program is ending.");
    EXPECT_EQ(ChangeCount(), changes);
}

TEST_F(FeedTest, PauseKeepsTheHistoryAndResumeContinuesIt) {
    Start();
    EXPECT_TRUE(WaitForSamples(3));
    Feed->Pause();
    EXPECT_TRUE(WaitFor([this] { return State() == FeedState::Paused; }));
    EXPECT_EQ(StateOf(0), GpuState::Paused);
    const std::deque<GpuTelemetrySample> before = Samples();
    Feed->Resume();
    EXPECT_TRUE(WaitForState(0, GpuState::Live));
    EXPECT_TRUE(WaitForSamples(before.size() + 2));
    EXPECT_EQ(Samples()[0].TimestampSeconds, before[0].TimestampSeconds);
}

TEST_F(FeedTest, IntervalCanBeChangedAtAnyTime) {
    Start(milliseconds(10000));
    EXPECT_TRUE(WaitForSamples(1));
    EXPECT_EQ(Feed->Latest()->Gpus[0]->PeriodSeconds, 0.0);
    const double changed = SteadySeconds();
    Feed->SetInterval(milliseconds(100));
    EXPECT_TRUE(WaitForSamples(4));
    EXPECT_LT(SteadySeconds() - changed, 9.0);
    EXPECT_EQ(Feed->Latest()->Interval, milliseconds(100));
    EXPECT_THAT(Feed->Latest()->Gpus[0]->PeriodSeconds, AllOf(Ge(0.1), Lt(9.0)));
}

TEST_F(FeedTest, RequestsAreCarriedOutInOrderOnTheGpuThatTheyName) {
    Start(milliseconds(10000));
    EXPECT_TRUE(WaitForState(1, GpuState::Live));
    const size_t from = Sim.Log().size();
    const TuningCapabilities capabilities = Feed->QueryTuning(Key(1)).get();
    EXPECT_TRUE(capabilities.Clocks.CanControl);
    EXPECT_EQ(capabilities.Power.MaximumWatts, 352.0);
    Sim.Block(kSetPower);
    std::vector<std::future<TuningResult>> answers;
    answers.push_back(Feed->Tune(Key(1), kLimit, kLongSeconds));
    answers.push_back(Feed->Tune(Key(1), {Kind::LockClocks, {1500, 5001}}, kLongSeconds));
    answers.push_back(Feed->Tune(Key(0), {Kind::SetPower, {}, 999.0}, kLongSeconds));
    answers.push_back(Feed->Tune("GPU-of-another-machine", kLimit, kLongSeconds));
    answers.push_back(Feed->TakeBack(Key(1), TuningControl::Power));
    EXPECT_TRUE(WaitForCalls(kSetPower, 1));
    EXPECT_EQ(answers.back().wait_for(seconds(0)), std::future_status::timeout);
    // From here on it can be in force, whether or not the driver ever answers.
    EXPECT_TRUE(Feed->Latest()->Tuning.at(0).IsOutstanding());
    Sim.Unblock();
    std::vector<std::string> errors;
    for (std::future<TuningResult>& answer : answers) {
        const TuningResult result = answer.get();
        errors.push_back(result.Error);
        EXPECT_EQ(result.Error.empty(), result.Result == GpuClockOperationResult::Success);
    }
    EXPECT_THAT(errors, ElementsAre("", "", "Requested power limit is outside the driver-supported range.",
                                    "The GPU is not there any more.", ""));
    EXPECT_EQ(Log(from, {"LockedClocks(", "SetPowerManagementLimit("}),
              "DeviceSetPowerManagementLimit(1, 200000) DeviceSetGpuLockedClocks(1, 1500, 1500) "
              "DeviceSetMemoryLockedClocks(1, 5001, 5001) DeviceSetPowerManagementLimit(1, 320000) ");
    EXPECT_EQ(Feed->QueryTuning("nothing").get().Clocks.Status, "The GPU is not there any more.");
    EXPECT_EQ(Feed->TakeAllBack().get().Error, "");
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    EXPECT_TRUE(std::none_of(data->Tuning.begin(), data->Tuning.end(),
                             [](const TuningRecord& record) { return record.IsOutstanding(); }));
}

TEST_F(FeedTest, ChangeGoesBackByItselfUnlessItIsKept) {
    Start(milliseconds(10000), 1);
    EXPECT_TRUE(WaitForState(0, GpuState::Live));
    const auto limitAfter = [this](bool bKept, double keepSeconds) {
        EXPECT_EQ(Feed->Tune(Key(), kLimit, keepSeconds).get().Error, "");
        if (bKept) Feed->Keep(Key(), TuningControl::Power);
        EXPECT_TRUE(
            WaitFor([this] { return Feed->Latest()->FindTuning(Key(), TuningControl::Power)->Deadline == 0.0; }));
        return Feed->QueryTuning(Key()).get().Power.CurrentWatts;
    };
    EXPECT_EQ(limitAfter(false, 0.2), 320.0);
    EXPECT_FALSE(Feed->Latest()->Tuning.at(0).IsOutstanding());
    EXPECT_EQ(limitAfter(true, kLongSeconds), 200.0);
    EXPECT_TRUE(Feed->Latest()->Tuning.at(0).IsOutstanding());
    EXPECT_EQ(Feed->TakeBack(Key(), TuningControl::Power).get().Error, "");
    EXPECT_EQ(Feed->QueryTuning(Key()).get().Power.CurrentWatts, 320.0);
}

TEST_F(FeedTest, WayBackLeadsPastChangesThatNobodyHasKeptAndThoseThatFailed) {
    Start(milliseconds(10000), 1);
    EXPECT_TRUE(WaitForState(0, GpuState::Live));
    const auto tune = [this](const TuningChange& change) {
        return Feed->Tune(Key(), change, kLongSeconds).get().Error;
    };
    const auto record = [this] { return *Feed->Latest()->FindTuning(Key(), TuningControl::Power); };
    const TuningChange reset = {Kind::ResetPower};
    EXPECT_EQ(tune(kLimit), "");
    EXPECT_EQ(tune({Kind::SetPower, {}, 250.0}), "");
    EXPECT_NE(tune({Kind::SetPower, {}, 999.0}), "");
    EXPECT_TRUE(record().Previous == reset && record().Deadline != 0.0 && record().InForce.Watts == 250.0);
    // A pending way back to a kept limit does not survive that everything is taken back.
    Feed->Keep(Key(), TuningControl::Power);
    EXPECT_EQ(tune(reset), "");
    EXPECT_EQ(record().Previous.Watts, 250.0);
    EXPECT_EQ(Feed->TakeAllBack().get().Error, "");
    EXPECT_TRUE(Feed->Stop(seconds(30)));
    EXPECT_THAT(Log(0, {"SetPowerManagementLimit("}),
                EndsWith("(0, 250000) DeviceSetPowerManagementLimit(0, 320000) "));
}

TEST_F(FeedTest, EndTakesBackWhatNobodyHasKeptAndFailsTheRequestsThatItOvertakes) {
    Start(milliseconds(10000), 1);
    EXPECT_TRUE(WaitForState(0, GpuState::Live));
    Sim.Block(kSetPower);
    std::future<TuningResult> begun = Feed->Tune(Key(), kLimit, kLongSeconds);
    std::future<TuningResult> overtaken = Feed->TakeBack(Key(), TuningControl::Power);
    EXPECT_TRUE(WaitForCalls(kSetPower, 1));
    EXPECT_FALSE(Feed->Stop(milliseconds(10)));
    Sim.Unblock();
    EXPECT_EQ(begun.get().Result, GpuClockOperationResult::Success);
    for (const std::string& error : {overtaken.get().Error, Feed->Tune(Key(), kLimit, 1.0).get().Error}) {
        EXPECT_EQ(error, "The program is ending.");
    }
    EXPECT_EQ(Log(0, {"SetPowerManagementLimit("}),
              "DeviceSetPowerManagementLimit(0, 200000) DeviceSetPowerManagementLimit(0, 320000) ");
}

TEST(PowerWayBackTest, IsWhatWasInForceOrElseTheDefault) {
    const TuningChange reset = {Kind::ResetPower};
    const TuningChange set = {Kind::SetPower, {}, 250.0};
    const std::tuple<double, double, TuningChange, std::optional<TuningChange>> cases[] = {
        {320.0, 320.0, set, reset}, {250.0, 320.0, reset, set},          {400.0, 320.0, set, reset},
        {-1.0, 320.0, set, reset},  {400.0, 320.0, reset, std::nullopt}, {400.0, -1.0, set, std::nullopt}};
    for (const auto& [current, byDefault, change, expected] : cases) {
        GpuPowerCapabilities power;
        power.CurrentWatts = current;
        power.DefaultWatts = byDefault;
        power.MinimumWatts = 150.0;
        power.MaximumWatts = 352.0;
        EXPECT_EQ(PowerWayBack(change, power), expected) << current << ' ' << byDefault;
    }
}

TEST(ReadingsTest, OnlyLimitsThatProtectTheGpuAreADanger) {
    const uint64_t dangers = simulated_nvml::kReasonHardwareSlowdown | simulated_nvml::kReasonHardwareThermal |
                             simulated_nvml::kReasonSoftwareThermal | simulated_nvml::kReasonHardwarePowerBrake;
    for (uint64_t bit = 1; bit != 0; bit <<= 1U) {
        GpuTelemetrySample sample;
        sample.PerformanceLimitReasons = bit;
        const std::vector<LimitReason> reasons = LimitReasons(sample.PerformanceLimitReasons);
        ASSERT_THAT(reasons, SizeIs(1));
        EXPECT_EQ(reasons[0].bDanger, (bit & dangers) != 0) << reasons[0].Word;
        EXPECT_EQ(reasons[0].bIdle, bit == simulated_nvml::kReasonIdle) << reasons[0].Word;
    }
}

}  // namespace
