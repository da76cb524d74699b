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

SampleHistory Kept(const Samples& samples) {
    SampleHistory history;
    for (const GpuTelemetrySample& sample : samples) history.Append(sample);
    return history;
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

    /// What is kept of each GPU: key, index, energy and the moments of its samples.
    std::string Known() const {
        std::ostringstream text;
        for (const auto& gpu : Tracker.Gpus()) {
            text << gpu->Key << '#' << gpu->Device.Index << " J" << gpu->Energy.Joules << ':';
            for (const GpuTelemetrySample& sample : gpu->Samples) text << ' ' << sample.TimestampSeconds;
            text << "; ";
        }
        return text.str();
    }

    bool bMemoryLeft = true;
    GpuTracker Tracker{milliseconds(1000), [this](const std::vector<GpuProcessMemory>& processes) {
                           if (!bMemoryLeft) throw std::bad_alloc();
                           return std::vector<FeedProcess>(processes.size());
                       }};
};

TEST_F(GpuTrackerTest, EveryGpuHasAKeyOfItsOwnAndKeepsIt) {
    for (const double now : {3.0, 4.0}) {
        Tracker.Look({History("a", {Sample(1.0)}, "0:1"), History("a", {Sample(2.0)}, "0:2", 3),
                      History("", {}, "0:3", 4), History("", {}, "", 5)},
                     now);
        EXPECT_THAT(Tracker.Gpus(), ElementsAre(HasKey("a"), HasKey("a 0:2#3"), HasKey("0:3"), HasKey("5")));
        EXPECT_EQ(Tracker.Gpus()[1]->Latest.TimestampSeconds, 2.0);
    }
}

TEST_F(GpuTrackerTest, LatestIsTheNewestSampleWithAReadingAndSilenceBeginsWithALookThatFindsNone) {
    Samples samples;
    const std::tuple<double, Samples, std::pair<double, double>> looks[] = {
        {100.1, {}, {0.0, 100.1}},
        {101.1, {Sample(101.0)}, {101.0, 0.0}},
        {101.2, {}, {101.0, 101.2}},
        {102.1, {Sample(102.0, kNoReading)}, {101.0, 101.2}},
        {105.1, {Sample(103.0), Sample(104.0), Sample(105.0, kNoReading)}, {104.0, 0.0}},
        {106.1, {}, {104.0, 106.1}}};
    for (const auto& [now, added, expected] : looks) {
        samples.insert(samples.end(), added.begin(), added.end());
        EXPECT_EQ(Tracker.Look({History("a", samples)}, now) == nullptr, added.empty()) << now;
        EXPECT_EQ(Times(), expected) << now;
    }
    Tracker.Begin({History("a", samples)}, 200.0);
    EXPECT_EQ(Times(), std::pair(104.0, 0.0));
    bMemoryLeft = false;
    EXPECT_THROW(Tracker.Look({History("a", {Sample(201.0)})}, 202.0), std::bad_alloc);
    bMemoryLeft = true;
    EXPECT_NE(Tracker.Look({History("a", {Sample(201.0)})}, 202.1), nullptr);
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

TEST_F(GpuTrackerTest, HistoryAndEnergyGoOnByKeyAndANewStartOfNvmlEmptiesTheHistory) {
    Tracker.Begin({History("a", {}), History("b", {}, "", 1)}, 1.0);
    EXPECT_EQ(Tracker.NewestMoment(), 0.0);
    Tracker.Look({History("a", {Sample(2.0)}), History("b", {Sample(2.25)}, "", 1)}, 2.5);
    EXPECT_EQ(Tracker.NewestMoment(), 2.25);
    // "b" is lost.
    Tracker.Look({History("a", {Sample(3.0)}), History("b", {}, "", 1)}, 3.5);
    const GpuTracker::GpuList before = Tracker.Gpus();
    EXPECT_EQ(Known(), "a#0 J200: 2 3; b#1 J0: 2.25; ");
    // After a pause, with a sample that no look has seen.
    Tracker.Begin({History("a", {Sample(2.0), Sample(3.0), Sample(4.0)}), History("b", {Sample(2.25)}, "", 1)}, 5.0);
    EXPECT_EQ(Known(), "a#0 J400: 2 3 4; b#1 J0: 2.25; ");
    // After a new start of NVML, which gave the GPUs other indices.
    Tracker.Begin({History("b", {}), History("a", {Sample(7.0)}, "", 1)}, 6.5);
    EXPECT_EQ(Known(), "b#0 J0:; a#1 J400: 7; ");
    EXPECT_EQ(Tracker.Gpus()[0]->Latest.TimestampSeconds, 2.25);
    Tracker.Look({History("b", {Sample(8.0)}), History("a", {Sample(8.0)}, "", 1)}, 8.5);
    EXPECT_EQ(Known(), "b#0 J0: 8; a#1 J600: 7 8; ");
    EXPECT_EQ(before[0]->Samples.size(), 2);
}

TEST(EnergyTest, IsCountedBetweenPowerReadingsThatAreNotFartherApartThanThreePeriods) {
    struct Case {
        const char* Name;
        /// From a sample to the look that finds it.
        double Delay;
        /// A moment and watts; without a moment: milliseconds of a new interval.
        std::vector<std::pair<double, double>> Samples;
        double Joules;
        double Seconds;
    };
    const Case cases[] = {{"a slope", 0.01, {{10, 100}, {11, 200}, {12, 200}}, 350, 2},
                          {"not read", 0.01, {{10, 100}, {11, -1}, {12, 100}, {13, 100}}, 100, 1},
                          {"three periods", 0.01, {{10, 100}, {13, 100}, {16.1, 100}, {17.1, 100}}, 400, 4},
                          {"slow cycles", 4, {{10, 100}, {15, 100}, {20, 100}}, 1000, 10},
                          {"quicker", 0.01, {{10, 9}, {0, 100}, {12, 9}, {12.125, 9}, {12.625, 9}}, 19.125, 2.125},
                          {"slower", 0.01, {{10, 9}, {0, 10000}, {40, 9}}, 270, 30}};
    for (const Case& each : cases) {
        GpuTracker tracker(milliseconds(1000), [](const auto&) { return std::vector<FeedProcess>(); });
        for (const auto& [moment, value] : each.Samples) {
            if (moment == 0.0) {
                tracker.SetInterval(milliseconds(static_cast<int>(value)), 0.0);
            } else {
                tracker.Look({History("a", {Sample(moment, 50, value)})}, moment + each.Delay);
            }
        }
        const FeedGpu& gpu = *tracker.Gpus().at(0);
        EXPECT_DOUBLE_EQ(gpu.Energy.Joules, each.Joules) << each.Name;
        EXPECT_DOUBLE_EQ(gpu.Samples.EnergyAt(gpu.Samples.size() - 1).Seconds, each.Seconds) << each.Name;
    }
}

TEST(SampleHistoryTest, DropsTheOldestAndSharesItsSamplesWithCopiesThatDoNotChange) {
    SampleHistory history;
    std::vector<SampleHistory> copies;
    for (int i = 0; i < 6700; ++i) {
        if (i % 67 == 0) copies.push_back(history);
        history.Append(Sample(i), {10.0 * i, 0.5 * i});
    }
    for (size_t end = 0; end < 6700; end += 67) {
        const SampleHistory& copy = copies[end / 67];
        ASSERT_EQ(copy.size(), std::min<size_t>(end, 6000));
        for (size_t i = 0; i < copy.size(); ++i) {
            const auto expected = static_cast<double>(end - copy.size() + i);
            ASSERT_EQ(copy[i].TimestampSeconds, expected) << end;
            ASSERT_EQ(copy.EnergyAt(i).Seconds, 0.5 * expected) << end;
        }
    }
    // One that has gone on by itself from a place within a block.
    copies[3].Append(Sample(-1.0));
    EXPECT_EQ(copies[3].back().TimestampSeconds, -1.0);
    EXPECT_EQ(copies[4][201].TimestampSeconds, 201.0);
    EXPECT_EQ(&copies[4][201], &copies[50][201]);
    EXPECT_EQ(copies[3].rbegin()[1].TimestampSeconds, 200.0);
}

TEST(RhythmTest, LooksComeSoonAfterTheBeginningOfACycleAndRarelyWhenThereIsNothing) {
    Rhythm rhythm(milliseconds(1000));
    EXPECT_DOUBLE_EQ(rhythm.AfterStart(10.0), 10.005);
    EXPECT_DOUBLE_EQ(rhythm.AfterNewSample(Kept({Sample(10.0)}), 10.25), 11.255);
    EXPECT_DOUBLE_EQ(rhythm.AfterNewSample(Kept({Sample(10.0), Sample(11.125)}), 11.2), 12.205);
    EXPECT_DOUBLE_EQ(rhythm.AfterNewSample(Kept({Sample(1.0), Sample(10.0), Sample(11.0)}), 11.5), 12.005);
    for (const double wait : {0.01, 0.02, 0.04, 0.08, 0.16, 0.32, 0.64, 1.0, 1.0}) {
        EXPECT_DOUBLE_EQ(rhythm.AfterNothing(20.0), 20.0 + wait);
    }
    rhythm.AfterNewSample(Kept({Sample(21.0)}), 21.0);
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
