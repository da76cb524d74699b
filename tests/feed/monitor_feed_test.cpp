// The feed and its thread, on drivers that answer, refuse, hang or are not there.

#include "gpu_feed/monitor_feed.h"

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <future>
#include <limits>
#include <mutex>

#include "failing_memory.h"
#include "gpu_feed/tuning_flow.h"
#include "monitor_test.h"

namespace {

using namespace testing;
using namespace gpu_feed;
using Kind = TuningChange::Kind;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kSetPower = "nvmlDeviceSetPowerManagementLimit";
constexpr double kLongSeconds = 1000.0;
const TuningChange kLimit = {Kind::SetPower, {}, 200.0};
const TuningChange kLock = {Kind::LockClocks, {1500, 5001}};

class FeedTest : public ScriptedTest {
protected:
    /// Starts a feed of two GPUs.
    void Start(milliseconds interval) {
        Sim.SetBoards({simulated_nvml::DesktopBoard(0), simulated_nvml::DesktopBoard(1)});
        const auto noteChange = [this] {
            ++Changes;
            Changed.notify_all();
        };
        Feed = std::make_unique<MonitorFeed>(FeedOptions{interval, false, noteChange});
    }

    /// The same, and pauses it, so that only the feed's own thread is left to wait.
    void StartPaused() {
        Start(milliseconds(10000));
        Feed->Pause();
        EXPECT_TRUE(WaitForState(FeedState::Paused));
    }

    /// By the wall clock, because a test can hold the other one. Looks now and then, because time changes states, too,
    /// and because changes are signalled without the lock, which the feed must not wait for.
    template <typename Condition>
    bool WaitFor(Condition condition) {
        using Clock = std::chrono::system_clock;
        std::mutex mutex;
        std::unique_lock<std::mutex> lock(mutex);
        const auto giveUp = Clock::now() + seconds(60);
        while (!condition() && Clock::now() < giveUp) Changed.wait_until(lock, Clock::now() + milliseconds(10));
        return condition();
    }

    bool WaitForState(FeedState state) {
        return WaitFor([&] { return Feed->Latest()->State == state; });
    }

    bool WaitForSamples(size_t count) {
        return WaitFor([&] { return !Feed->Latest()->Gpus.empty() && Gpu()->Samples.size() >= count; });
    }

    /// The first GPU.
    std::shared_ptr<const FeedGpu> Gpu() const { return Feed->Latest()->Gpus.at(0); }

    /// The calls of the driver that change locks or limits.
    std::string ChangesMade() const { return Log(0, {"LockedClocks(", "SetPowerManagementLimit("}); }

    TuningRecord Record(TuningControl control) const { return *Feed->Latest()->FindTuning(Key, control); }

    std::string Tune(const TuningChange& change, double keepSeconds = kLongSeconds) {
        return Feed->Tune(Key, change, keepSeconds).get().Error;
    }

    /// Until the feed waits for the deadline of a change.
    bool WaitForDeadline(TuningControl control) {
        return WaitFor([&] {
            const std::chrono::duration<double> end = sampler_clock::LatestWait().Deadline;
            return std::abs(end.count() - Record(control).Deadline) < 1e-6;
        });
    }

    const std::string Key = simulated_nvml::DesktopBoard(0).Uuid;
    const std::string SecondKey = simulated_nvml::DesktopBoard(1).Uuid;
    std::condition_variable Changed;
    std::atomic<int> Changes{0};
    std::unique_ptr<MonitorFeed> Feed;
};

TEST_F(FeedTest, StartsWithoutBeingWaitedForAndGivesSamplesOfEveryGpu) {
    Sim.Block("nvmlInit_v2");
    Start(milliseconds(100));
    EXPECT_TRUE(WaitFor([this] { return Feed->Moment().DriverSilence > 0.05; }));
    EXPECT_EQ(Feed->Latest()->State, FeedState::Starting);
    EXPECT_EQ(Changes, 0);
    Sim.Unblock();
    EXPECT_TRUE(WaitForSamples(5));
    EXPECT_GT(Changes, 2);
    // Sampler and feed wait for their moments: neither runs without a pause.
    EXPECT_LT(sampler_clock::WaitsBegun(), 200);
    EXPECT_LT(sampler_clock::LatestWait().Duration, milliseconds(200));
    const FeedMoment moment = Feed->Moment();
    EXPECT_EQ(moment.Data->Status, "NVML active: 2 NVIDIA GPU(s).");
    ASSERT_THAT(moment.Data->Gpus, SizeIs(2));
    for (const auto& gpu : moment.Data->Gpus) {
        EXPECT_EQ(StateOf(moment, *gpu), GpuState::Live);
        EXPECT_THAT(gpu->PeriodSeconds, AllOf(Ge(0.1), Le(moment.Now - gpu->Samples[0].TimestampSeconds)));
        EXPECT_THAT(gpu->Processes, Not(IsEmpty()));
    }
    Feed->SetInterval(milliseconds(500));
    EXPECT_TRUE(WaitFor([this] { return Gpu()->PeriodSeconds >= 0.5; }));
}

TEST_F(FeedTest, WithoutAThreadForTheSamplerItIsUnavailableUntilItResumes) {
    StartPaused();
    sampler_clock::RefuseThreads(1);
    Feed->Resume();
    EXPECT_TRUE(WaitForState(FeedState::Unavailable));
    EXPECT_EQ(Feed->Latest()->Status, "GPU monitoring has failed: Resource temporarily unavailable.");
    Feed->Resume();
    EXPECT_TRUE(WaitForState(FeedState::Sampling));
}

TEST_F(FeedTest, IntervalAndPauseTakeEffectAtOnceAndTheHistoryGoesOn) {
    Start(milliseconds(10000));
    EXPECT_TRUE(WaitForSamples(1));
    const double changed = SteadySeconds();
    Feed->SetInterval(milliseconds(1));
    EXPECT_TRUE(WaitForSamples(4));
    EXPECT_LT(SteadySeconds() - changed, 9.0);
    EXPECT_EQ(Feed->Latest()->Interval, milliseconds(100));
    Feed->Pause();
    EXPECT_TRUE(WaitForState(FeedState::Paused));
    EXPECT_TRUE(WaitFor([this] { return Feed->Moment().DriverSilence == 0.0; }));
    const std::shared_ptr<const FeedGpu> before = Gpu();
    Feed->Resume();
    EXPECT_TRUE(WaitForSamples(before->Samples.size() + 2));
    EXPECT_EQ(StateOf(Feed->Moment(), *Gpu()), GpuState::Live);
    EXPECT_EQ(Gpu()->Samples[0].TimestampSeconds, before->Samples[0].TimestampSeconds);
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    EXPECT_TRUE(changed < data->PausedAt && data->PausedAt < data->SamplingSince);
    Feed->Resume();
    Feed->QueryTuning(Key).get();
    EXPECT_EQ(Feed->Latest()->SamplingSince, data->SamplingSince);
}

TEST_F(FeedTest, DriverThatHangsHoldsUpNeitherTheDataNorTheEndWhichTakesBackWhatNobodyHasKept) {
    Start(milliseconds(100));
    EXPECT_TRUE(WaitForSamples(3));
    EXPECT_EQ(Tune(kLimit), "");
    Sim.Block("nvmlDeviceGetTemperature");
    EXPECT_TRUE(WaitFor([this] { return StateOf(Feed->Moment(), *Gpu()) == GpuState::NoData; }));
    EXPECT_TRUE(WaitFor([this] { return Feed->Moment().DriverSilence > 0.9; }));
    std::future<TuningResult> overtaken = Feed->TakeAllBack();
    EXPECT_FALSE(Feed->Stop(milliseconds(100)));
    const int changes = Changes;
    Sim.Unblock();
    EXPECT_EQ(overtaken.get().Error, "The program is ending.");
    EXPECT_EQ(Changes, changes);
    EXPECT_FALSE(Feed->Stop());
    // Its thread was left behind and ends now.
    EXPECT_TRUE(WaitFor([this] { return Sim.Log().back() == "dlclose"; }));
    EXPECT_EQ(ChangesMade(), "DeviceSetPowerManagementLimit(0, 200000) DeviceSetPowerManagementLimit(0, 320000) ");
}

TEST_F(FeedTest, FeedWithAFreeDriverStopsAtOnceAndRefusesRequestsAfterwards) {
    StartPaused();
    EXPECT_EQ(Tune(kLimit), "");
    EXPECT_TRUE(WaitForDeadline(TuningControl::Power));
    const double before = SteadySeconds();
    EXPECT_TRUE(Feed->Stop(seconds(40)));
    EXPECT_LT(SteadySeconds() - before, 20.0);
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    const TuningCapabilities capabilities = Feed->QueryTuning(Key).get();
    EXPECT_THAT((std::vector{Tune(kLimit), Feed->TakeBack(Key, TuningControl::Power).get().Error,
                             Feed->TakeAllBack().get().Error, capabilities.Clocks.Status, capabilities.Power.Status}),
                Each("The program is ending."));
    Feed->SetInterval(milliseconds(500));
    EXPECT_EQ(Feed->Latest(), data);
}

TEST_F(FeedTest, RequestsAreCarriedOutInOrderOnTheGpuThatTheyName) {
    StartPaused();
    const int changes = Changes;
    const TuningCapabilities capabilities = Feed->QueryTuning(SecondKey).get();
    EXPECT_TRUE(WaitFor([this, changes] { return Changes > changes; }));
    EXPECT_TRUE(capabilities.Clocks.CanControl);
    EXPECT_EQ(capabilities.Power.MaximumWatts, 352.0);
    Sim.Block(kSetPower);
    std::vector<std::future<TuningResult>> answers;
    answers.push_back(Feed->Tune(SecondKey, kLimit, kLongSeconds));
    answers.push_back(Feed->Tune(SecondKey, kLock, kLongSeconds));
    answers.push_back(Feed->Tune(Key, {Kind::SetPower, {}, 999.0}, kLongSeconds));
    answers.push_back(Feed->Tune("GPU-of-another-machine", kLimit, kLongSeconds));
    answers.push_back(Feed->TakeBack(SecondKey, TuningControl::Power));
    EXPECT_TRUE(WaitForCalls(kSetPower, 1));
    // From here on it can be in force, whether or not the driver ever answers.
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    EXPECT_TRUE(data->FindTuning(SecondKey, TuningControl::Power)->IsOutstanding());
    EXPECT_EQ(data->FindTuning(Key, TuningControl::Power), nullptr);
    Sim.Unblock();
    std::string errors;
    for (std::future<TuningResult>& answer : answers) errors += answer.get().Error + '|';
    EXPECT_EQ(errors,
              "||Requested power limit is outside the driver-supported range.|The GPU is not there any more.||");
    EXPECT_EQ(ChangesMade(),
              "DeviceSetPowerManagementLimit(1, 200000) DeviceSetGpuLockedClocks(1, 1500, 1500) "
              "DeviceSetMemoryLockedClocks(1, 5001, 5001) DeviceSetPowerManagementLimit(1, 320000) ");
}

TEST_F(FeedTest, ChangesGoBackAtTheirDeadlinesUnlessTheyAreKept) {
    StartPaused();
    sampler_clock::Hold();
    Feed->SetInterval(milliseconds(500));
    EXPECT_EQ(Tune(kLock, 10.0), "");
    EXPECT_TRUE(WaitForDeadline(TuningControl::Clocks));
    EXPECT_EQ(Tune(kLimit, 5.0), "");
    EXPECT_TRUE(WaitForDeadline(TuningControl::Power));
    sampler_clock::PassWaits();
    EXPECT_TRUE(WaitForDeadline(TuningControl::Clocks));
    EXPECT_FALSE(Record(TuningControl::Power).IsOutstanding());
    sampler_clock::PassWaits();
    EXPECT_TRUE(WaitFor([this] { return !Record(TuningControl::Clocks).IsOutstanding(); }));
    // However long a change may wait to be kept, the feed sleeps meanwhile.
    EXPECT_EQ(Tune(kLimit, std::numeric_limits<double>::infinity()), "");
    EXPECT_TRUE(WaitFor([] { return sampler_clock::LatestWait().Duration > std::chrono::hours(1); }));
    Feed->Keep(Key, TuningControl::Power);
    EXPECT_TRUE(WaitFor([this] { return Record(TuningControl::Power).Deadline == 0.0; }));
    EXPECT_EQ(Feed->TakeBack(Key, TuningControl::Power).get().Error, "");
    EXPECT_EQ(Feed->QueryTuning(Key).get().Power.CurrentWatts, 320.0);
}

TEST_F(FeedTest, RescanFindsGpusAtOtherIndicesAndTheirHistoriesAndChangesFollowThem) {
    Start(milliseconds(100));
    EXPECT_TRUE(WaitForSamples(2));
    EXPECT_EQ(Tune(kLimit), "");
    const double oldest = Feed->Latest()->Find(SecondKey)->Samples[0].TimestampSeconds;
    const simulated_nvml::Board boards[] = {simulated_nvml::DesktopBoard(0), simulated_nvml::DesktopBoard(1)};
    // Which boards the driver finds, none being a driver that does not start, what taking back answers, and what the
    // driver was asked for. Sampling is paused before.
    const std::tuple<std::vector<simulated_nvml::Board>, const char*, const char*> scans[] = {
        {{boards[1]}, kGpuIsGone, ""},
        {{}, kGpuIsGone, ""},
        {{boards[1], boards[0]}, "", "DeviceSetPowerManagementLimit(1, 320000) "}};
    for (const auto& [found, error, calls] : scans) {
        Feed->Pause();
        Feed->QueryTuning(Key).get();
        Sim.SetBoards(found);
        const size_t calledBefore = Sim.Log().size();
        Sim.Block("nvmlInit_v2");
        Feed->Rescan();
        EXPECT_TRUE(WaitForState(FeedState::Starting));
        const FeedMoment moment = Feed->Moment();
        for (const auto& gpu : moment.Data->Gpus) EXPECT_EQ(StateOf(moment, *gpu), GpuState::Starting);
        Sim.Unblock();
        EXPECT_EQ(Feed->TakeBack(Key, TuningControl::Power).get().Error, error);
        EXPECT_EQ(Feed->Latest()->State, found.empty() ? FeedState::Unavailable : FeedState::Sampling);
        EXPECT_EQ(Log(calledBefore, {"SetPowerManagementLimit("}), calls);
        EXPECT_EQ(Record(TuningControl::Power).IsOutstanding(), *error != '\0');
        // From here on a request would start the driver, with other indices than those that are known.
        if (found.empty()) Sim.SetBoards({boards[0]});
        EXPECT_EQ(Feed->QueryTuning(SecondKey).get().Power.MaximumWatts, found.empty() ? -1.0 : 352.0);
    }
    EXPECT_EQ(Gpu()->Key, SecondKey);
    EXPECT_EQ(Gpu()->Samples[0].TimestampSeconds, oldest);
}

TEST_F(FeedTest, WayBackLeadsPastChangesThatNobodyHasKeptAndThoseThatFailed) {
    Start(milliseconds(10000));
    EXPECT_TRUE(WaitForSamples(1));
    EXPECT_EQ(Tune(kLimit, 5.0), "");
    // Not until the next look.
    EXPECT_TRUE(WaitForDeadline(TuningControl::Power));
    EXPECT_EQ(Tune({Kind::SetPower, {}, 250.0}), "");
    EXPECT_NE(Tune({Kind::SetPower, {}, 999.0}), "");
    const TuningRecord record = Record(TuningControl::Power);
    EXPECT_TRUE(record.Previous.What == Kind::ResetPower && record.Deadline != 0.0 && record.InForce.Watts == 250.0);
    // A pending way back to a kept limit does not survive that everything is taken back, kept clocks too.
    EXPECT_EQ(Tune(kLock), "");
    Feed->Keep(Key, TuningControl::Clocks);
    Feed->Keep(Key, TuningControl::Power);
    EXPECT_EQ(Tune({Kind::ResetPower}), "");
    EXPECT_EQ(Record(TuningControl::Power).Previous.Watts, 250.0);
    EXPECT_EQ(Feed->TakeAllBack().get().Error, "");
    EXPECT_TRUE(Feed->Stop(seconds(30)));
    EXPECT_THAT(ChangesMade(), EndsWith("(0, 5001, 5001) DeviceSetPowerManagementLimit(0, 320000) "
                                        "DeviceResetMemoryLockedClocks(0) DeviceResetGpuLockedClocks(0) "));
}

TEST_F(FeedTest, LockThatFailsHalfWayIsReleasedOnceAndASolvedProblemIsForgotten) {
    StartPaused();
    Sim.FailFrom("nvmlDeviceSetMemoryLockedClocks", simulated_nvml::kNotSupported);
    EXPECT_EQ(Feed->Tune(Key, kLock, kLongSeconds).get().Half, HalfLock::Released);
    EXPECT_FALSE(Record(TuningControl::Clocks).IsOutstanding());
    EXPECT_EQ(Tune(kLimit), "");
    Sim.SetAdministratorRights(false);
    EXPECT_NE(Feed->TakeBack(Key, TuningControl::Power).get().Error, "");
    EXPECT_NE(Record(TuningControl::Power).Problem, "");
    Sim.SetAdministratorRights(true);
    EXPECT_EQ(Feed->TakeAllBack().get().Error, "");
    EXPECT_EQ(Record(TuningControl::Power).Problem, "");
    EXPECT_TRUE(Feed->Stop(seconds(30)));
    // By the monitor itself, and once by the feed.
    EXPECT_EQ(Log(0, {"ResetMemoryLockedClocks("}),
              "DeviceResetMemoryLockedClocks(0) DeviceResetMemoryLockedClocks(0) ");
}

TEST_F(FeedTest, OutOfMemoryARequestFailsWithASentenceAndWhatIsPublishedCatchesUp) {
    StartPaused();
    failing_memory::bChecking = true;
    int failures = 0;
    failing_memory::bAllocationFailed = true;
    for (uint64_t nth = 1; failing_memory::bAllocationFailed; ++nth) {
        failing_memory::bAllocationFailed = false;
        failing_memory::AllocationsUntilFailure = nth;
        const milliseconds interval(10000 - nth);
        Feed->SetInterval(interval);
        EXPECT_TRUE(WaitFor([&] { return Feed->Latest()->Interval == interval; })) << nth;
        const std::string status = Feed->QueryTuning(Key).get().Power.Status;
        failures += status == "GPU monitoring has failed: std::bad_alloc." ? 1 : 0;
    }
    EXPECT_GT(failures, 0);
    failing_memory::AllocationsUntilFailure = 0;
    failing_memory::bChecking = false;
}

TEST_F(FeedTest, OutOfMemoryAChangeGoesBackLater) {
    StartPaused();
    failing_memory::bChecking = true;
    uint64_t nth = 0;
    do {
        ++nth;
        EXPECT_EQ(Tune(kLimit), "");
        failing_memory::bAllocationFailed = false;
        failing_memory::AllocationsUntilFailure = nth;
        Feed->TakeBack(Key, TuningControl::Power).get();
        EXPECT_TRUE(WaitFor([this] { return !Record(TuningControl::Power).IsOutstanding(); })) << nth;
        failing_memory::AllocationsUntilFailure = 0;
    } while (failing_memory::bAllocationFailed && !HasFailure());
    EXPECT_GT(nth, 1U) << "no allocation has failed";
    failing_memory::bChecking = false;
}

TEST_F(FeedTest, FlowOfAChangeFollowsTheFeedAndAllocatesNothingWhileNothingIsNew) {
    StartPaused();
    sampler_clock::Hold();
    TuningFlow flow(Feed.get(), Key);
    // What the user does, and how far that leads.
    const std::tuple<std::function<void()>, TuningStep, const char*> steps[] = {
        {[] {}, TuningStep::Ready, ""},
        {[&flow] { flow.Apply(kLimit); }, TuningStep::Keeping, "In force 200 W"},
        {[&flow] { flow.TakeBack(); }, TuningStep::Ended, "It went back to: default power limit."},
        {[&flow] { flow.Dismiss(); }, TuningStep::Ready, ""},
        {[&flow] { flow.Apply(kLimit); }, TuningStep::Keeping, "In force 200 W"},
        {[this] { Feed->Keep(Key, TuningControl::Power); }, TuningStep::Ready, ""}};
    for (const auto& [act, step, text] : steps) {
        act();
        EXPECT_TRUE(WaitFor([&, expected = step, words = text] {
            flow.Update();
            return flow.Step() == expected &&
                   (*words == '\0' || flow.ReadBackText() == words || flow.Ending().Sentence == words);
        })) << text;
        failing_memory::bAllocationFailed = false;
        failing_memory::AllocationsUntilFailure = 1;
        flow.Update();
        failing_memory::AllocationsUntilFailure = 0;
        EXPECT_FALSE(failing_memory::bAllocationFailed) << text;
    }
}

TEST(PowerWayBackTest, IsWhatWasInForceOrElseTheDefault) {
    const TuningChange reset = {Kind::ResetPower};
    const TuningChange set = {Kind::SetPower, {}, 250.0};
    const std::tuple<double, double, TuningChange, std::optional<TuningChange>> cases[] = {
        {320.0, 320.0, set, reset}, {250.0, 320.0, reset, set},          {400.0, 320.0, set, reset},
        {-1.0, 320.0, set, reset},  {400.0, 320.0, reset, std::nullopt}, {400.0, -1.0, set, std::nullopt}};
    for (const auto& [current, byDefault, change, expected] : cases) {
        const GpuPowerCapabilities power = {0, "", GpuCapabilityState::Supported, current, byDefault, 150.0, 352.0, ""};
        EXPECT_EQ(PowerWayBack(change, power), expected) << current << ' ' << byDefault;
    }
}

}  // namespace
