// What the feed makes of histories, and when it looks for them: without a thread, a clock or a driver.

#include "gpu_tracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "rhythm.h"

namespace {

using namespace testing;
using namespace gpu_feed;
using std::chrono::milliseconds;

constexpr int kNoReading = -1;

GpuTelemetrySample Sample(double seconds, int temperatureC = 50) {
    GpuTelemetrySample sample;
    sample.TimestampSeconds = seconds;
    sample.TemperatureC = temperatureC;
    return sample;
}

GpuTelemetryHistory History(const std::string& uuid, std::deque<GpuTelemetrySample> samples,
                            const std::string& busId = "", unsigned int index = 0) {
    GpuTelemetryHistory history;
    history.Device.Uuid = uuid;
    history.Device.PciBusId = busId;
    history.Device.Index = index;
    history.Samples = std::move(samples);
    return history;
}

class GpuTrackerTest : public Test {
protected:
    /// The moments of the latest reading and of the beginning of silence.
    static auto IsGpu(double latest, double silentSince) {
        return Pointee(AllOf(Field(&FeedGpu::Latest, Field(&GpuTelemetrySample::TimestampSeconds, latest)),
                             Field(&FeedGpu::SilentSince, DoubleEq(silentSince))));
    }

    std::vector<double> Periods() const {
        std::vector<double> periods;
        for (const auto& gpu : Tracker.Gpus()) periods.push_back(gpu->PeriodSeconds);
        return periods;
    }

    bool bMemoryLeft = true;
    GpuTracker Tracker{milliseconds(1000), [this](const std::vector<GpuProcessMemory>& processes) {
                           if (!bMemoryLeft) throw std::bad_alloc();
                           return std::vector<FeedProcess>(processes.size());
                       }};
};

TEST_F(GpuTrackerTest, EveryGpuHasAKeyOfItsOwnAndKeepsIt) {
    const std::vector<GpuTelemetryHistory> histories = {History("a", {Sample(1.0)}, "0:1", 0),
                                                        History("a", {Sample(2.0)}, "0:2", 3),
                                                        History("", {}, "0:3", 4), History("", {}, "", 5)};
    for (const double now : {3.0, 4.0}) {
        Tracker.Look(histories, now);
        std::vector<std::string> keys;
        for (const auto& gpu : Tracker.Gpus()) keys.push_back(gpu->Key);
        EXPECT_THAT(keys, ElementsAre("a", "a 0:2#3", "0:3", "5"));
        EXPECT_EQ(Tracker.Gpus()[1]->Latest.TimestampSeconds, 2.0);
    }
}

TEST_F(GpuTrackerTest, LatestIsTheNewestSampleWithAReadingAndSilenceBeginsWithALookThatFindsNone) {
    Tracker.Begin({History("a", {})}, 100.0);
    EXPECT_THAT(Tracker.Gpus(), ElementsAre(IsGpu(0.0, 0.0)));
    std::deque<GpuTelemetrySample> samples;
    struct Step {
        std::deque<GpuTelemetrySample> NewSamples;
        double Now;
        double ExpectedLatest;
        double ExpectedSilence;
    };
    const Step steps[] = {{{}, 100.1, 0.0, 100.1},
                          {{Sample(101.0)}, 101.1, 101.0, 0.0},
                          {{}, 101.2, 101.0, 101.2},
                          {{Sample(102.0, kNoReading)}, 102.1, 101.0, 101.2},
                          {{Sample(103.0), Sample(104.0), Sample(105.0, kNoReading)}, 105.1, 104.0, 0.0}};
    for (const Step& step : steps) {
        samples.insert(samples.end(), step.NewSamples.begin(), step.NewSamples.end());
        const auto newest = Tracker.Look({History("a", samples)}, step.Now);
        EXPECT_EQ(newest == nullptr, step.NewSamples.empty()) << step.Now;
        EXPECT_THAT(Tracker.Gpus(), ElementsAre(IsGpu(step.ExpectedLatest, step.ExpectedSilence))) << step.Now;
    }
    Tracker.Look({History("a", samples)}, 106.0);
    Tracker.Begin({History("a", samples)}, 200.0);
    EXPECT_THAT(Tracker.Gpus(), ElementsAre(IsGpu(104.0, 0.0)));
}

TEST_F(GpuTrackerTest, PeriodsAreMeasuredFromNewSamplesAndBoundedAfterASuspension) {
    Tracker.Begin({}, 99.0);
    Tracker.Look({History("a", {Sample(98.0), Sample(100.0)}), History("b", {Sample(100.0)})}, 100.1);
    EXPECT_THAT(Periods(), ElementsAre(0.0, 0.0));
    Tracker.Look({History("a", {Sample(100.0), Sample(101.25)}), History("b", {Sample(100.5), Sample(101.5)})}, 101.6);
    EXPECT_THAT(Periods(), ElementsAre(1.25, 1.0));
    // The cycle over both began 0.5 s ago. The lost GPU, which has no new sample, does not count.
    const std::deque<GpuTelemetrySample> suspended = {Sample(101.0), Sample(160.0)};
    const auto newest = Tracker.Look({History("lost", {Sample(90.0), Sample(95.0)}), History("a", suspended),
                                      History("b", {Sample(101.5), Sample(160.25)})},
                                     160.5);
    EXPECT_EQ(newest->Key, "b");
    EXPECT_THAT(Periods(), ElementsAre(0.0, 1.5, 1.5));
    Tracker.SetInterval(milliseconds(10000), 161.0);
    Tracker.Look({History("a", {Sample(160.0), Sample(161.5)})}, 161.5);
    EXPECT_THAT(Periods(), ElementsAre(0.0));
    Tracker.Look({History("a", {Sample(161.5), Sample(171.75)})}, 172.0);
    EXPECT_THAT(Periods(), ElementsAre(10.25));
}

TEST_F(GpuTrackerTest, LookThatRunsOutOfMemoryChangesNothing) {
    Tracker.Look({History("a", {Sample(1.0)})}, 1.5);
    bMemoryLeft = false;
    EXPECT_THROW(Tracker.Look({History("a", {Sample(1.0), Sample(2.0)})}, 2.5), std::bad_alloc);
    EXPECT_THAT(Tracker.Gpus(), ElementsAre(IsGpu(1.0, 0.0)));
    bMemoryLeft = true;
    EXPECT_THAT(Tracker.Look({History("a", {Sample(1.0), Sample(2.0)})}, 2.6), IsGpu(2.0, 0.0));
}

TEST(RhythmTest, LooksComeSoonAfterTheBeginningOfACycleAndRarelyWhenThereIsNothing) {
    Rhythm rhythm(milliseconds(1000));
    EXPECT_DOUBLE_EQ(rhythm.AfterStart(10.0), 10.005);
    EXPECT_DOUBLE_EQ(rhythm.AfterNewSample({Sample(10.0)}, 10.25), 11.255);
    EXPECT_DOUBLE_EQ(rhythm.AfterNewSample({Sample(10.0), Sample(11.125)}, 11.25), 12.255);
    EXPECT_DOUBLE_EQ(rhythm.AfterNewSample({Sample(10.0), Sample(11.125)}, 11.2), 12.205);
    EXPECT_DOUBLE_EQ(rhythm.AfterNewSample({Sample(1.0), Sample(10.0), Sample(11.0)}, 11.5), 12.005);
    for (const double wait : {0.01, 0.02, 0.04, 0.08, 0.16, 0.32, 0.64, 1.0, 1.0}) {
        EXPECT_DOUBLE_EQ(rhythm.AfterNothing(20.0), 20.0 + wait);
    }
    rhythm.AfterNewSample({Sample(21.0)}, 21.0);
    EXPECT_DOUBLE_EQ(rhythm.AfterNothing(30.0), 30.01);
}

TEST(FeedMomentTest, StateOfAGpuFollowsFromItsReadingsTheSilenceOfTheDriverAndTheFeed) {
    struct Case {
        FeedState Feed;
        double Period;
        double Latest;
        double SilentSince;
        double DriverSilence;
        GpuState Expected;
        bool bHanging;
    };
    // At 120, in a feed that samples since 100 or was paused at 110.
    const Case cases[] = {{FeedState::Sampling, 0.0, 0.0, 0.0, 0.0, GpuState::Starting, false},
                          {FeedState::Sampling, 0.0, 99.0, 0.0, 0.0, GpuState::Starting, false},
                          {FeedState::Sampling, 0.0, 100.0, 0.0, 0.0, GpuState::Live, false},
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
    for (const Case& each : cases) {
        FeedData data;
        data.State = each.Feed;
        data.SamplingSince = 100.0;
        data.PausedAt = 110.0;
        FeedGpu gpu;
        gpu.Latest = Sample(each.Latest);
        gpu.PeriodSeconds = each.Period;
        gpu.SilentSince = each.SilentSince;
        data.Gpus = {std::make_shared<const FeedGpu>(gpu)};
        const FeedMoment moment = {std::make_shared<const FeedData>(data), 120.0, {}, each.DriverSilence, false};
        const auto place = &each - cases;
        EXPECT_EQ(StateOf(moment, gpu), each.Expected) << place;
        EXPECT_EQ(IsDriverHanging(moment), each.bHanging) << place;
        EXPECT_EQ(AgeOf(moment, gpu), 120.0 - each.Latest) << place;
    }
}

}  // namespace
