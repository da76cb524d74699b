// What is read out of a sample, and what is known of processes.

#include "gpu_feed/readings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <limits>

#include "gpu_feed/clock_groups.h"
#include "gpu_feed/limit_reasons.h"
#include "process_names.h"
#include "sampler_clock.h"
#include "simulated_nvml.h"

namespace {

using namespace testing;
using namespace gpu_feed;
using Id = ReadingId;

GpuTelemetrySample DistinctSample() {
    GpuTelemetrySample sample;
    int whole = 0;
    for (int* field : {&sample.GpuUtilizationPercent, &sample.MemoryUtilizationPercent,
                       &sample.EncoderUtilizationPercent, &sample.DecoderUtilizationPercent, &sample.TemperatureC,
                       &sample.FanPercent, &sample.GraphicsClockMHz, &sample.SmClockMHz, &sample.MemoryClockMHz,
                       &sample.VideoClockMHz, &sample.PerformanceState, &sample.PcieGeneration, &sample.PcieWidth}) {
        *field = whole++;
    }
    uint64_t mebibytes = 100;
    for (uint64_t* field :
         {&sample.VramUsedBytes, &sample.VramTotalBytes, &sample.Bar1UsedBytes, &sample.Bar1TotalBytes}) {
        *field = mebibytes++ << 20U;
    }
    double fraction = 0.0;
    for (double* field : {&sample.PowerWatts, &sample.PowerLimitWatts, &sample.DefaultPowerLimitWatts,
                          &sample.MinimumPowerLimitWatts, &sample.MaximumPowerLimitWatts,
                          &sample.PcieReceiveMiBPerSecond, &sample.PcieTransmitMiBPerSecond, &sample.FrameTimeMs}) {
        *field = fraction;
        fraction += 0.125;
    }
    return sample;
}

TEST(ReadingsTest, EachReadingHasItsOwnFieldInTheUnitForPeople) {
    std::vector<std::optional<double>> shown;
    for (const Reading& reading : Readings()) {
        EXPECT_EQ(&ReadingOf(reading.Id), &reading);
        shown.push_back(ShownValue(reading.Id, DistinctSample()));
        EXPECT_EQ(ShownValue(reading.Id, {}), std::nullopt) << reading.Key;
    }
    EXPECT_THAT(shown, ElementsAre(0, 1, 2, 3, 100, 101, 102, 103, 0.0, 0.125, 0.25, 0.375, 0.5, 4, 5, 6, 7, 8, 9, 10,
                                   11, 12, 0.625, 0.75, 0.875));
    EXPECT_EQ(ReadingOf(Id::VramUsed).WholeValue(DistinctSample()), 100 << 20);
    EXPECT_EQ(ReadingValue(Id::VramUsed, DistinctSample()), 100 << 20);
}

TEST(ReadingsTest, OnlyWhatTheDriverAnswersCountsAsRead) {
    const std::pair<int, std::optional<double>> states[] = {{0, 0}, {15, 15}, {16, std::nullopt}, {32, std::nullopt}};
    for (const auto& [state, expected] : states) {
        GpuTelemetrySample sample;
        sample.PerformanceState = state;
        EXPECT_EQ(ReadingValue(Id::PerformanceState, sample), expected) << state;
        EXPECT_EQ(HasAnyReading(sample), expected.has_value()) << state;
    }
    GpuTelemetrySample sample;
    sample.VramUsedBytes = 1;
    EXPECT_EQ(ReadingValue(Id::VramUsed, sample), std::nullopt);
    for (const double notRead : {std::nan(""), std::numeric_limits<double>::infinity(), -0.5}) {
        sample.FrameTimeMs = notRead;
        EXPECT_EQ(ReadingValue(Id::FrameTime, sample), std::nullopt);
    }
    sample.FrameTimeMs = 16.5;
    EXPECT_FALSE(HasAnyReading(sample));
    sample.PerformanceLimitReasons = 1;
    EXPECT_TRUE(HasAnyReading(sample));
}

TEST(ReadingsTest, LimitReasonsThatProtectTheGpuAreADanger) {
    const uint64_t dangers = simulated_nvml::kReasonHardwareSlowdown | simulated_nvml::kReasonHardwareThermal |
                             simulated_nvml::kReasonSoftwareThermal | simulated_nvml::kReasonHardwarePowerBrake;
    for (uint64_t bit = 1; bit != 0; bit <<= 1U) {
        const std::vector<LimitReason> reasons = LimitReasons(bit);
        ASSERT_THAT(reasons, SizeIs(1));
        EXPECT_EQ(reasons[0].bDanger, (bit & dangers) != 0) << reasons[0].Word;
        EXPECT_EQ(reasons[0].bIdle, bit == simulated_nvml::kReasonIdle) << reasons[0].Word;
    }
    std::vector<std::string> words;
    for (const LimitReason& reason : LimitReasons(UINT64_MAX)) words.push_back(reason.Word);
    EXPECT_THAT(words,
                ElementsAre("idle", "application clocks", "power cap", "hardware slowdown", "sync boost", "thermal",
                            "hardware thermal", "power brake", "display clocks", "0xfffffffffffffe00"));
    EXPECT_THAT(LimitReasons(0), IsEmpty());
}

TEST(ReadingsTest, ClocksAreGroupedByMemoryClock) {
    EXPECT_THAT(GroupByMemoryClock({{300, 810}, {1500, 810}, {1500, 5001}}),
                ElementsAre(Pair(5001, ElementsAre(1500)), Pair(810, ElementsAre(300, 1500))));
}

TEST(ProcessNamesTest, ProcessesOfThisSystemHaveNameAndUserTheLargestFirst) {
    sampler_clock::Reset();
    const int pid = getpid();
    const std::string number = std::to_string(getuid());
    const std::vector<GpuProcessMemory> processes = {{3, 10}, {pid, 30}, {INT32_MAX, 20}, {2, 10}};
    const auto isProcess = [](int expectedPid, const std::string& name, const std::string& user) {
        return AllOf(Field(&FeedProcess::Pid, expectedPid), Field(&FeedProcess::Name, name),
                     Field(&FeedProcess::User, user));
    };
    ProcessNames names;
    // Without a thread for the look-up, the user is a number, but only until the next time.
    sampler_clock::RefuseThreads(1);
    EXPECT_THAT(names.Describe({{pid, 30}}, true), ElementsAre(isProcess(pid, "monitor_feed_test", number)));
    std::vector<FeedProcess> described;
    for (int i = 0; i < 1000 && (described.empty() || described[0].User == number); ++i) {
        described = names.Describe(processes, true);
    }
    EXPECT_THAT(described,
                ElementsAre(isProcess(pid, "monitor_feed_test", getpwuid(getuid())->pw_name),
                            isProcess(INT32_MAX, "", ""), Field(&FeedProcess::Pid, 2), Field(&FeedProcess::Pid, 3)));
    prctl(PR_SET_NAME, "15-letters-long");
    EXPECT_EQ(names.Describe(processes, true)[0].Name, "15-letters-long");
    EXPECT_THAT(names.Describe(processes, false),
                Each(AllOf(Field(&FeedProcess::Name, ""), Field(&FeedProcess::User, ""))));
}

}  // namespace
