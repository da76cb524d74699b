// The feed and its thread, on drivers that answer, refuse, hang or are not there.

#include "gpu_feed/monitor_feed.h"

#include <cmath>
#include <condition_variable>
#include <future>
#include <limits>
#include <mutex>

#include "failing_memory.h"
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
constexpr const char* kEnding = "The program is ending.";
constexpr double kLongSeconds = 1000.0;
const TuningChange kLimit = {Kind::SetPower, {}, 200.0};
const TuningChange kLock = {Kind::LockClocks, {1500, 5001}};

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

    /// As a feed of one GPU whose sampler is at rest, so that only the feed's own thread waits.
    void StartPaused() {
        Start(milliseconds(10000), 1);
        EXPECT_TRUE(WaitForState(0, GpuState::Live));
        Feed->Pause();
        EXPECT_TRUE(WaitForState(0, GpuState::Paused));
    }

    /// By the wall clock, because a test can hold the other one. Looks again now and then: time alone changes states.
    template <typename Condition>
    bool WaitFor(Condition condition) {
        const auto giveUp = std::chrono::system_clock::now() + seconds(60);
        while (!condition()) {
            std::unique_lock<std::mutex> lock(Mutex);
            const auto now = std::chrono::system_clock::now();
            if (now > giveUp) return false;
            Changed.wait_until(lock, now + milliseconds(10));
        }
        return true;
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

    TuningRecord Record(TuningControl control) const { return *Feed->Latest()->FindTuning(Key(), control); }

    /// Until when the wait lasts that began last, in steady-clock seconds.
    static double LatestWaitEnd() {
        return std::chrono::duration<double>(sampler_clock::LatestWait().Deadline).count();
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
    EXPECT_TRUE(WaitForSamples(5));
    // Sampler and feed wait for their moments: neither turns without a pause.
    EXPECT_LT(sampler_clock::WaitsBegun(), 200);
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
    EXPECT_EQ(answer.Power.Status, kEnding);
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
    answers.push_back(Feed->Tune(Key(1), kLock, kLongSeconds));
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

TEST_F(FeedTest, ChangesGoBackAtTheirDeadlinesUnlessTheyAreKept) {
    StartPaused();
    sampler_clock::Hold();
    uint64_t waits = sampler_clock::WaitsBegun();
    const auto tune = [&](const TuningChange& change, double keepSeconds) {
        EXPECT_EQ(Feed->Tune(Key(), change, keepSeconds).get().Error, "");
        EXPECT_TRUE(sampler_clock::AwaitWaits(++waits));
    };
    tune(kLimit, 20.0);
    tune(kLock, 10.0);
    EXPECT_NEAR(LatestWaitEnd(), Record(TuningControl::Clocks).Deadline, 1e-6);
    sampler_clock::WakeSpuriously();
    EXPECT_TRUE(sampler_clock::AwaitWaits(++waits));
    EXPECT_TRUE(Record(TuningControl::Clocks).IsOutstanding());
    sampler_clock::PassWaits();
    EXPECT_TRUE(sampler_clock::AwaitWaits(++waits));
    EXPECT_FALSE(Record(TuningControl::Clocks).IsOutstanding());
    EXPECT_TRUE(Record(TuningControl::Power).IsOutstanding());
    EXPECT_NEAR(LatestWaitEnd(), Record(TuningControl::Power).Deadline, 1e-6);
    sampler_clock::PassWaits();
    EXPECT_TRUE(WaitFor([this] { return !Record(TuningControl::Power).IsOutstanding(); }));
    EXPECT_EQ(Feed->QueryTuning(Key()).get().Power.CurrentWatts, 320.0);
    // However long a change may wait to be kept, the wait for it is a long one too.
    tune(kLimit, std::numeric_limits<double>::infinity());
    EXPECT_GT(LatestWaitEnd(), 1e9);
    Feed->Keep(Key(), TuningControl::Power);
    EXPECT_TRUE(WaitFor([this] { return Record(TuningControl::Power).Deadline == 0.0; }));
    EXPECT_EQ(Feed->QueryTuning(Key()).get().Power.CurrentWatts, 200.0);
    EXPECT_EQ(sampler_clock::WaitsBegun(), waits);
    EXPECT_EQ(Feed->TakeBack(Key(), TuningControl::Power).get().Error, "");
    EXPECT_EQ(Log(0, {"LockedClocks(", "SetPowerManagementLimit("}),
              "DeviceSetPowerManagementLimit(0, 200000) DeviceSetGpuLockedClocks(0, 1500, 1500) "
              "DeviceSetMemoryLockedClocks(0, 5001, 5001) DeviceResetMemoryLockedClocks(0) "
              "DeviceResetGpuLockedClocks(0) DeviceSetPowerManagementLimit(0, 320000) "
              "DeviceSetPowerManagementLimit(0, 200000) DeviceSetPowerManagementLimit(0, 320000) ");
}

TEST_F(FeedTest, OverdueChangeDoesNotWaitForTheNextLook) {
    Start(milliseconds(10000), 1);
    EXPECT_TRUE(WaitForState(0, GpuState::Live));
    EXPECT_EQ(Feed->Tune(Key(), kLimit, 5.0).get().Error, "");
    EXPECT_TRUE(WaitFor([this] { return std::abs(LatestWaitEnd() - Record(TuningControl::Power).Deadline) < 1e-6; }));
}

TEST_F(FeedTest, LockThatFailsHalfWayIsReleasedOnceAndASolvedProblemIsForgotten) {
    StartPaused();
    Sim.FailFrom("nvmlDeviceSetMemoryLockedClocks", simulated_nvml::kNotSupported);
    const size_t from = Sim.Log().size();
    EXPECT_EQ(Feed->Tune(Key(), kLock, kLongSeconds).get().Half, HalfLock::Released);
    EXPECT_FALSE(Record(TuningControl::Clocks).IsOutstanding());
    EXPECT_EQ(Feed->Tune(Key(), kLimit, kLongSeconds).get().Error, "");
    Sim.SetAdministratorRights(false);
    EXPECT_NE(Feed->TakeBack(Key(), TuningControl::Power).get().Error, "");
    EXPECT_NE(Record(TuningControl::Power).Problem, "");
    EXPECT_TRUE(Record(TuningControl::Power).IsOutstanding());
    Sim.SetAdministratorRights(true);
    Sim.StopFailing();
    EXPECT_EQ(Feed->Tune(Key(), kLock, kLongSeconds).get().Error, "");
    EXPECT_EQ(Feed->TakeAllBack().get().Error, "");
    EXPECT_EQ(Record(TuningControl::Power).Problem, "");
    EXPECT_EQ(Log(from, {"ResetMemoryLockedClocks("}),
              // By the monitor and by the feed, and later the successful lock.
              "DeviceResetMemoryLockedClocks(0) DeviceResetMemoryLockedClocks(0) DeviceResetMemoryLockedClocks(0) ");
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
    EXPECT_EQ(overtaken.get().Error, kEnding);
    EXPECT_EQ(Log(0, {"SetPowerManagementLimit("}),
              "DeviceSetPowerManagementLimit(0, 200000) DeviceSetPowerManagementLimit(0, 320000) ");
    EXPECT_FALSE(Feed->Stop());
}

TEST_F(FeedTest, FeedWithAFreeDriverStopsAtOnceAndRefusesRequestsAfterwards) {
    StartPaused();
    const double before = SteadySeconds();
    EXPECT_TRUE(Feed->Stop(seconds(40)));
    EXPECT_LT(SteadySeconds() - before, 20.0);
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    EXPECT_EQ(Feed->Tune(Key(), kLimit, 1.0).get().Error, kEnding);
    EXPECT_EQ(Feed->TakeBack(Key(), TuningControl::Power).get().Error, kEnding);
    EXPECT_EQ(Feed->TakeAllBack().get().Error, kEnding);
    const TuningCapabilities capabilities = Feed->QueryTuning(Key()).get();
    EXPECT_EQ(capabilities.Clocks.Status, kEnding);
    EXPECT_EQ(capabilities.Power.Status, kEnding);
    Feed->SetInterval(milliseconds(500));
    Feed->Pause();
    Feed->Resume();
    Feed->Keep(Key(), TuningControl::Power);
    EXPECT_EQ(Feed->Latest(), data);
    EXPECT_TRUE(Feed->Stop());
}

TEST_F(FeedTest, WithoutAThreadForTheSamplerItIsUnavailableUntilItResumes) {
    Sim.Block("nvmlInit_v2");
    Start();
    EXPECT_TRUE(WaitForCalls("nvmlInit_v2", 1));
    sampler_clock::RefuseThreads(1);
    Sim.Unblock();
    EXPECT_TRUE(WaitFor([this] { return State() == FeedState::Unavailable; }));
    EXPECT_EQ(Feed->Latest()->Status, "GPU monitoring has failed: Resource temporarily unavailable.");
    Feed->Resume();
    EXPECT_TRUE(WaitForState(0, GpuState::Live));
}

TEST_F(FeedTest, OutOfMemoryARequestFailsWithASentenceAndWhatIsPublishedCatchesUp) {
    StartPaused();
    failing_memory::bChecking = true;
    const auto failAllocation = [](uint64_t nth) {
        failing_memory::bAllocationFailed = false;
        failing_memory::AllocationsUntilFailure = nth;
    };
    int failures = 0;
    for (uint64_t nth = 1; nth == 1 || failing_memory::bAllocationFailed; ++nth) {
        failAllocation(nth);
        const std::string status = Feed->QueryTuning(Key()).get().Power.Status;
        failures += status == "GPU monitoring has failed: std::bad_alloc." ? 1 : 0;
        EXPECT_EQ(status.find("failed") != std::string::npos, failing_memory::bAllocationFailed) << status;
    }
    EXPECT_GT(failures, 0);
    failing_memory::bAllocationFailed = true;
    for (uint64_t nth = 1; nth == 1 || failing_memory::bAllocationFailed; ++nth) {
        failAllocation(nth);
        Feed->SetInterval(milliseconds(10000 - nth));
        EXPECT_TRUE(WaitFor([&] { return Feed->Latest()->Interval == milliseconds(10000 - nth); })) << nth;
    }
    failAllocation(0);
    failing_memory::bChecking = false;
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

}  // namespace
