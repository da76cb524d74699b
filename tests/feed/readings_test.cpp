// What is read out of a sample, and what is known of processes.

#include "gpu_feed/readings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <limits>

#include "gpu_feed/limit_reasons.h"
#include "process_names.h"
#include "sampler_clock.h"

namespace {

using namespace testing;
using namespace gpu_feed;
using Id = ReadingId;

TEST(ReadingsTest, OnlyWhatTheDriverAnswersCountsAsRead) {
    GpuTelemetrySample sample;
    const std::pair<int, std::optional<double>> states[] = {{0, 0}, {15, 15}, {16, std::nullopt}, {32, std::nullopt}};
    for (const auto& [state, expected] : states) {
        sample.PerformanceState = state;
        EXPECT_EQ(ReadingValue(Id::PerformanceState, sample), expected) << state;
        EXPECT_EQ(HasAnyReading(sample), expected.has_value()) << state;
    }
    for (const double notRead : {std::nan(""), std::numeric_limits<double>::infinity(), -0.5}) {
        sample.FrameTimeMs = notRead;
        EXPECT_EQ(ReadingValue(Id::FrameTime, sample), std::nullopt);
    }
    sample.FrameTimeMs = 16.5;
    EXPECT_FALSE(HasAnyReading(sample));
    sample.PerformanceLimitReasons = 1;
    EXPECT_TRUE(HasAnyReading(sample));
    sample.VramUsedBytes = sample.Bar1UsedBytes = sample.Bar1TotalBytes = 1;
    EXPECT_EQ(ReadingValue(Id::VramUsed, sample), std::nullopt);
    EXPECT_EQ(ReadingValue(Id::Bar1Used, sample), 1.0);
}

TEST(ReadingsTest, LimitReasonsThatProtectTheGpuAreADanger) {
    std::string words;
    for (uint64_t bit = 1; bit <= 0x200; bit <<= 1U) {
        const std::vector<LimitReason> reasons = LimitReasons(bit);
        ASSERT_THAT(reasons, SizeIs(1));
        words += reasons[0].Word + (reasons[0].bDanger ? "!, " : ", ");
        EXPECT_EQ(reasons[0].bIdle, bit == 1) << reasons[0].Word;
    }
    EXPECT_EQ(words,
              "idle, application clocks, power cap, hardware slowdown!, sync boost, thermal!, hardware thermal!, "
              "power brake!, display clocks, 0x200, ");
    EXPECT_THAT(LimitReasons(UINT64_MAX), SizeIs(10));
    EXPECT_EQ(LimitReasons(UINT64_MAX).back().Word, "0xfffffffffffffe00");
    EXPECT_THAT(LimitReasons(0), IsEmpty());
}

TEST(ProcessNamesTest, ProcessesOfThisSystemHaveNameAndUserTheLargestFirst) {
    sampler_clock::Reset();
    const auto isProcess = [](int pid, const std::string& name, const std::string& user) {
        return AllOf(Field(&FeedProcess::Pid, pid), Field(&FeedProcess::Name, name), Field(&FeedProcess::User, user));
    };
    const int self = getpid();
    const std::string number = std::to_string(geteuid());
    const passwd* entry = getpwuid(geteuid());
    const std::string user = entry == nullptr ? number : entry->pw_name;
    ProcessNames names;
    // Without a thread that looks the name up, the user is a number, but only until the next time.
    sampler_clock::RefuseThreads(1);
    EXPECT_THAT(names.Describe({{self, 1}}), ElementsAre(isProcess(self, "monitor_feed_test", number)));
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (names.Describe({{self, 1}})[0].User != user) ASSERT_LT(std::chrono::steady_clock::now(), giveUp);
    EXPECT_THAT(names.Describe({{INT32_MAX, 10}, {self, 30}, {INT32_MAX - 1, 10}}),
                ElementsAre(isProcess(self, "monitor_feed_test", user), isProcess(INT32_MAX - 1, "", ""),
                            isProcess(INT32_MAX, "", "")));
    // A name with parentheses must not spoil what follows it in the kernel's line.
    prctl(PR_SET_NAME, "15) letters (l)");
    const FeedProcess renamed = names.Describe({{self, 1}})[0];
    EXPECT_EQ(renamed.Name, "15) letters (l)");
    EXPECT_THAT(renamed.CommandLine, MatchesRegex(".*monitor_feed_test( .*)?"));
    EXPECT_THAT(renamed.MemoryBytes, Optional(AllOf(Gt(1U << 20U), Lt(1U << 30U))));
    EXPECT_EQ(renamed.CpuPercent, std::nullopt);
    std::optional<double> cpuPercent;
    while (!cpuPercent) cpuPercent = names.Describe({{self, 1}})[0].CpuPercent;
    EXPECT_THAT(cpuPercent, Optional(AllOf(Gt(5.0), Lt(200.0)))) << "of one busy thread";
    prctl(PR_SET_NAME, program_invocation_short_name);
}

}  // namespace
