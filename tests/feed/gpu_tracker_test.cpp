// What the feed makes of histories, and when it looks for them: without a thread, a clock or a driver.

#include "gpu_tracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "rhythm.h"

namespace {

using namespace testing;
using namespace gpu_feed;
using std::chrono::milliseconds;
using Samples = std::deque<GpuTelemetrySample>;

constexpr int kNoReading = -1;

GpuTelemetrySample Sample(double seconds, int temperatureC = 50, double watts = 200.0) {
    GpuTelemetrySample sample;
    sample.PowerWatts = temperatureC == kNoReading ? -1.0 : watts;
    sample.TimestampSeconds = seconds;
    sample.TemperatureC = temperatureC;
    return sample;
}

GpuTelemetryHistory History(const std::string& uuid, Samples samples, const std::string& busId = "",
                            unsigned int index = 0) {
    return {{"", index, uuid, busId, "", "", "", 0}, std::move(samples), {}};
}

auto HasKey(const std::string& key) {
    return Pointee(Field(&FeedGpu::Key, key));
}

auto HasPeriod(double seconds) {
    return Pointee(Field(&FeedGpu::PeriodSeconds, seconds));
}

class GpuTrackerTest : public Test {
protected:
    /// Of the first GPU: when its latest reading was taken, and since when it is silent.
    std::pair<double, double> Times() const {
        return {Tracker.Gpus().at(0)->Latest.TimestampSeconds, Tracker.Gpus().at(0)->SilentSince};
    }

    /// How many GPUs' processes can be described before memory runs out.
    int DescriptionsLeft = 1000;
    GpuTracker Tracker{milliseconds(1000), [this](const std::vector<GpuProcessMemory>& processes) {
                           if (DescriptionsLeft-- == 0) throw std::bad_alloc();
                           return std::vector<FeedProcess>(processes.size());
                       }};
};

TEST_F(GpuTrackerTest, EveryGpuHasAKeyOfItsOwn) {
    Tracker.Look(
        {History("a", {}, "0:1"), History("a", {}, "0:2", 3), History("", {}, "0:3", 4), History("", {}, "", 5)}, 3.0);
    EXPECT_THAT(Tracker.Gpus(), ElementsAre(HasKey("a 0:1#0"), HasKey("a 0:2#3"), HasKey("0:3"), HasKey("5")));
}

TEST_F(GpuTrackerTest, LatestIsTheNewestSampleWithAReadingAndSilenceBeginsWithALookThatFindsNone) {
    const std::tuple<double, Samples, std::pair<double, double>> looks[] = {
        {100.1, {}, {0.0, 100.1}},
        {101.1, {Sample(101.0)}, {101.0, 0.0}},
        {101.2, {}, {101.0, 101.2}},
        {102.1, {Sample(102.0, kNoReading)}, {101.0, 101.2}},
        {105.1, {Sample(103.0), Sample(104.0), Sample(105.0, kNoReading)}, {104.0, 0.0}},
        {106.1, {}, {104.0, 106.1}}};
    for (const auto& [now, added, expected] : looks) {
        EXPECT_EQ(Tracker.Look({History("a", added)}, now) == nullptr, added.empty()) << now;
        EXPECT_EQ(Times(), expected) << now;
    }
    Tracker.Begin({History("a", {Sample(105.0, kNoReading)})}, 200.0);
    EXPECT_EQ(Times(), std::pair(104.0, 0.0));
}

TEST_F(GpuTrackerTest, PeriodsAreMeasuredFromNewSamplesAndBoundedAfterASuspension) {
    Tracker.Begin({}, 99.0);
    Tracker.Look({History("a", {Sample(98.0), Sample(100.0)}), History("b", {Sample(100.0)})}, 100.1);
    EXPECT_THAT(Tracker.Gpus(), ElementsAre(HasPeriod(0.0), HasPeriod(0.0)));
    Tracker.Look({History("a", {Sample(100.0), Sample(101.25)}), History("b", {Sample(100.5), Sample(101.5)})}, 101.6);
    Tracker.Look({History("a", {}), History("b", {})}, 101.7);
    EXPECT_THAT(Tracker.Gpus(), ElementsAre(HasPeriod(1.25), HasPeriod(1.0)));
    // The cycle over both began 0.5 s ago. The lost GPU, which has no new sample, does not count.
    const auto newest =
        Tracker.Look({History("lost", {Sample(90.0), Sample(95.0)}), History("a", {Sample(101.0), Sample(160.0)}),
                      History("b", {Sample(101.5), Sample(160.25)})},
                     160.5);
    EXPECT_EQ(newest->Key, "b");
    EXPECT_THAT(Tracker.Gpus(), ElementsAre(HasPeriod(0.0), HasPeriod(1.5), HasPeriod(1.5)));
    Tracker.SetInterval(milliseconds(10000), 161.0);
    Tracker.Look({History("a", {Sample(160.0), Sample(161.5)})}, 161.5);
    EXPECT_THAT(Tracker.Gpus(), ElementsAre(HasPeriod(0.0)));
    Tracker.Look({History("a", {Sample(161.5), Sample(171.75)})}, 172.0);
    EXPECT_THAT(Tracker.Gpus(), ElementsAre(HasPeriod(10.25)));
}

TEST_F(GpuTrackerTest, HistoryAndEnergyGoOnByKeyAndANewStartOfNvmlEmptiesWhatOnlyAnIndexNames) {
    // Whether sampling begins or goes on, what the monitor gives, and what is known then: the newest moment, and of
    // each GPU its key, its index, its energy and the moments of its samples.
    const std::tuple<bool, std::vector<GpuTelemetryHistory>, const char*> steps[] = {
        {true, {History("a", {}), History("", {}, "", 1)}, "0; a 0: 0 J; 1 1: 0 J"},
        {false, {History("a", {Sample(2.0)}), History("", {Sample(2.5)}, "", 1)}, "2.5; a 0: 0 J 2; 1 1: 0 J 2.5"},
        // The second one is lost. Then a pause begins and ends, with a sample that no look has seen.
        {false, {History("a", {Sample(3.0)}), History("", {}, "", 1)}, "3; a 0: 200 J 2 3; 1 1: 0 J 2.5"},
        {true,
         {History("a", {Sample(3.0), Sample(4.0)}), History("", {Sample(2.5)}, "", 1)},
         "4; a 0: 400 J 2 3 4; 1 1: 0 J 2.5"},
        // NVML is started anew, and the first one is missing.
        {true, {History("", {}, "", 1), History("b", {})}, "4; 1 1: 0 J; b 0: 0 J"},
        // Another start gives the GPUs other indices, and one of them a history that has begun already.
        {true, {History("", {}, "", 1), History("a", {Sample(9.0)}, "", 2)}, "9; 1 1: 0 J; a 2: 1400 J 2 3 4 9"},
        // The other one gives a sample without a moment first.
        {false,
         {History("", {Sample(0.0), Sample(10.0)}, "", 1), History("a", {Sample(10.0)}, "", 2)},
         "10; 1 1: 0 J 10; a 2: 1600 J 2 3 4 9 10"}};
    for (const auto& [bBegins, histories, expected] : steps) {
        // Memory runs out after the first GPU: nothing is lost, and nothing comes twice.
        DescriptionsLeft = 1;
        EXPECT_THROW(Tracker.Look(histories, 10.0), std::bad_alloc);
        DescriptionsLeft = 2;
        if (bBegins) Tracker.Begin(histories, 10.0);
        if (!bBegins) Tracker.Look(histories, 10.0);
        std::ostringstream known;
        known << Tracker.NewestMoment();
        for (const auto& gpu : Tracker.Gpus()) {
            known << "; " << gpu->Key << ' ' << gpu->Device.Index << ": " << gpu->Energy.Joules << " J";
            for (const GpuTelemetrySample& sample : gpu->Samples) known << ' ' << sample.TimestampSeconds;
        }
        EXPECT_EQ(known.str(), expected);
    }
}

TEST_F(GpuTrackerTest, EnergyIsCountedBetweenPowerReadingsThatAreAtMostThreePeriodsApart) {
    // The interval, a moment, the power then, how long the cycle takes, and the energy and its time afterwards.
    const std::tuple<int, double, double, double, double, double> looks[] = {
        {1000, 10, 100, 0, 0, 0},      {1000, 14, 200, 2, 600, 4}, {1000, 15, -1, 0, 600, 4},
        {1000, 16, 100, 0, 600, 4},    {1000, 19, 100, 0, 900, 7}, {1000, 22.5, 100, 60, 900, 7},
        {100, 25.5, 100, 0, 1200, 10}, {100, 26, 100, 0, 1200, 10}};
    for (const auto& [interval, moment, watts, cycle, joules, seconds] : looks) {
        if (interval != 1000) Tracker.SetInterval(milliseconds(interval), moment);
        Tracker.Look({History("a", {Sample(moment, 50, watts)})}, moment + cycle);
        const EnergyCount& energy = Tracker.Gpus()[0]->Energy;
        EXPECT_EQ(std::pair(energy.Joules, energy.Seconds), std::pair(joules, seconds)) << moment;
    }
}

TEST(SampleHistoryTest, KeepsTheNewestSamplesAndCopiesDoNotChange) {
    std::vector<SampleHistory> copies(1);
    for (int i = 0; i < 6400; ++i) {
        copies.push_back(copies.back());
        copies.back().Append(Sample(i), {2.0 * i, 0.0});
    }
    // A copy that goes on by itself.
    copies[1000].Append(Sample(-1.0));
    EXPECT_EQ(copies[1000].back().TimestampSeconds, -1.0);
    for (size_t end = 1001; end <= 6400; ++end) {
        const SampleHistory& copy = copies[end];
        ASSERT_EQ(copy.size(), std::min<size_t>(end, 6000));
        for (size_t i = 0; i < copy.size(); i += 100) {
            ASSERT_EQ(copy[i].TimestampSeconds, end - copy.size() + i);
            ASSERT_EQ(copy.EnergyAt(i).Joules, 2 * (end - copy.size() + i));
        }
    }
}

TEST(RhythmTest, LooksComeSoonAfterTheBeginningOfACycleAndRarelyWhenThereIsNothing) {
    Rhythm rhythm(milliseconds(1000));
    EXPECT_DOUBLE_EQ(rhythm.AfterStart(10.0), 10.005);
    EXPECT_DOUBLE_EQ(rhythm.AfterNewSample(10.0, 0.0, 10.25), 11.255);
    EXPECT_DOUBLE_EQ(rhythm.AfterNewSample(11.125, 1.125, 11.2), 12.205);
    EXPECT_DOUBLE_EQ(rhythm.AfterNewSample(11.0, 1.0, 11.5), 12.005);
    for (const double wait : {0.01, 0.02, 0.04, 0.08, 0.16, 0.32, 0.64, 1.0, 1.0}) {
        EXPECT_DOUBLE_EQ(rhythm.AfterNothing(20.0), 20.0 + wait);
    }
    rhythm.AfterNewSample(21.0, 0.0, 21.0);
    EXPECT_DOUBLE_EQ(rhythm.AfterNothing(30.0), 30.01);
}

TEST(FeedMomentTest, StateOfAGpuFollowsFromItsReadingsTheSilenceOfTheDriverAndTheFeed) {
    // At 120, in a feed that has sampled since 100 and, if it is paused, was paused at 110: its state, the period, the
    // latest reading, the beginning of silence and the driver's silence of one GPU, what follows, and whether the
    // driver hangs.
    const std::tuple<FeedState, double, double, double, double, GpuState, bool> cases[] = {
        {FeedState::Sampling, 0.0, 99.0, 0.0, 0.0, GpuState::Starting, false},
        {FeedState::Sampling, 0.0, 100.0, 115.1, 4.9, GpuState::Live, false},
        {FeedState::Sampling, 0.0, 100.0, 115.0, 0.0, GpuState::NoData, false},
        {FeedState::Sampling, 0.0, 100.0, 0.0, 5.0, GpuState::NoData, true},
        {FeedState::Sampling, 0.1, 100.0, 119.1, 0.0, GpuState::Live, false},
        {FeedState::Sampling, 0.1, 100.0, 119.0, 1.0, GpuState::NoData, false},
        {FeedState::Sampling, 2.0, 100.0, 114.5, 5.5, GpuState::Live, false},
        {FeedState::Sampling, 2.0, 100.0, 114.0, 6.0, GpuState::NoData, true},
        {FeedState::Paused, 0.1, 100.0, 109.5, 9.0, GpuState::Paused, true},
        {FeedState::Paused, 0.1, 100.0, 109.0, 0.0, GpuState::NoData, false},
        {FeedState::Unavailable, 0.1, 100.0, 109.0, 0.0, GpuState::Unavailable, false}};
    for (const auto& [state, period, latest, silentSince, driverSilence, expected, bHanging] : cases) {
        const FeedGpu gpu = {"", {}, {}, {}, Sample(latest), period, silentSince, {}};
        const FeedData data = {state, "", {}, 100.0, 110.0, {std::make_shared<const FeedGpu>(gpu)}, {}};
        const FeedMoment moment = {std::make_shared<const FeedData>(data), 120.0, {}, driverSilence, false};
        EXPECT_EQ(StateOf(moment, gpu), expected) << latest << ' ' << silentSince;
        EXPECT_EQ(IsDriverHanging(moment), bHanging) << period << ' ' << driverSilence;
        EXPECT_EQ(AgeOf(moment, gpu), 120.0 - latest);
    }
}

}  // namespace
