// One reading of one GPU.

#include <cmath>
#include <cstdint>
#include <limits>
#include <tuple>

#include "monitor_test.h"

namespace {

/// Every field that NVML fills, as one value to compare and to print.
auto FieldsOf(const GpuTelemetrySample& s) {
    return std::make_tuple(
        s.TemperatureC, s.GpuUtilizationPercent, s.MemoryUtilizationPercent, s.EncoderUtilizationPercent,
        s.DecoderUtilizationPercent, s.VramUsedBytes, s.VramTotalBytes, s.Bar1UsedBytes, s.Bar1TotalBytes, s.PowerWatts,
        s.PowerLimitWatts, s.DefaultPowerLimitWatts, s.MinimumPowerLimitWatts, s.MaximumPowerLimitWatts, s.FanPercent,
        s.GraphicsClockMHz, s.SmClockMHz, s.MemoryClockMHz, s.VideoClockMHz, s.PerformanceState, s.PcieGeneration,
        s.PcieWidth, s.PcieReceiveMiBPerSecond, s.PcieTransmitMiBPerSecond, s.PerformanceLimitReasons);
}

// The sample of a board with fixed_boards::DistinctReadings, and a sample of which no field was read.
// clang-format off
const GpuTelemetrySample kSample = {0.0, 61, 62, 63, 64, 65, 5'000'000'000, 16376ULL << 20U, 12'000'000, 16ULL << 30U,
                                    4294967.295, 320.0, 320.0, 150.0, 352.0, 66, 2100, 2101, 9501, 1785, 2, 4, 16,
                                    4294967295.0 / 1024.0, 0.5, UINT64_MAX, -1.0};
const GpuTelemetrySample kNothingRead = {0.0, -1, -1, -1, -1, -1, 0, 0, 0, 0, -1.0, -1.0, -1.0, -1.0, -1.0, -1, -1, -1,
                                         -1, -1, -1, -1, -1, -1.0, -1.0, 0, -1.0};
// clang-format on

class SampleTest : public MonitorTest {
protected:
    GpuTelemetrySample Read(bool bExpected = true) {
        GpuTelemetrySample sample;
        EXPECT_EQ(Monitor.ReadCurrentSample(&sample), bExpected);
        return sample;
    }
};

TEST_F(SampleTest, ReadsEveryFieldInItsUnit) {
    EXPECT_EQ(FieldsOf(GpuTelemetrySample{}), FieldsOf(kNothingRead));
    EXPECT_EQ(FieldsOf(Read()), FieldsOf(kSample));
}

TEST_F(SampleTest, ResolvesFirstAndThenQueriesInOrder) {
    Read();
    const size_t secondRead = Sim.Log().size();
    Read();
    EXPECT_EQ(Log(secondRead),
              "?HandleByIndex_v2 HandleByIndex_v2(0) ?Temperature ?UtilizationRates ?MemoryInfo ?PowerUsage ?FanSpeed "
              "?ClockInfo ?PerformanceState ?EncoderUtilization ?DecoderUtilization ?BAR1MemoryInfo "
              "?CurrPcieLinkGeneration ?CurrPcieLinkWidth ?PcieThroughput ?CurrentClocksThrottleReasons "
              "Temperature(0, 0) UtilizationRates(0) MemoryInfo(0) PowerUsage(0) ?EnforcedPowerLimit "
              "?PowerManagementLimit EnforcedPowerLimit(0) ?PowerManagementDefaultLimit PowerManagementDefaultLimit(0) "
              "?PowerManagementLimitConstraints PowerManagementLimitConstraints(0) FanSpeed(0) ClockInfo(0, 0) "
              "ClockInfo(0, 1) ClockInfo(0, 2) ClockInfo(0, 3) PerformanceState(0) EncoderUtilization(0) "
              "DecoderUtilization(0) BAR1MemoryInfo(0) CurrPcieLinkGeneration(0) CurrPcieLinkWidth(0) "
              "PcieThroughput(0, 1) PcieThroughput(0, 0) CurrentClocksThrottleReasons(0) ");
}

TEST_F(SampleTest, QueryThatIsMissingOrFailsLeavesOnlyItsOwnFieldsUnread) {
    using Sample = GpuTelemetrySample;
    const std::pair<const char*, void (*)(Sample&)> cases[] = {
        {"nvmlDeviceGetTemperature", [](Sample& s) { s.TemperatureC = -1; }},
        {"nvmlDeviceGetUtilizationRates", [](Sample& s) { s.GpuUtilizationPercent = s.MemoryUtilizationPercent = -1; }},
        {"nvmlDeviceGetMemoryInfo", [](Sample& s) { s.VramUsedBytes = s.VramTotalBytes = 0; }},
        {"nvmlDeviceGetPowerUsage", [](Sample& s) { s.PowerWatts = -1.0; }},
        {"nvmlDeviceGetFanSpeed", [](Sample& s) { s.FanPercent = -1; }},
        {"nvmlDeviceGetClockInfo",
         [](Sample& s) { s.GraphicsClockMHz = s.SmClockMHz = s.MemoryClockMHz = s.VideoClockMHz = -1; }},
        {"nvmlDeviceGetPerformanceState", [](Sample& s) { s.PerformanceState = -1; }},
        {"nvmlDeviceGetEncoderUtilization", [](Sample& s) { s.EncoderUtilizationPercent = -1; }},
        {"nvmlDeviceGetDecoderUtilization", [](Sample& s) { s.DecoderUtilizationPercent = -1; }},
        {"nvmlDeviceGetBAR1MemoryInfo", [](Sample& s) { s.Bar1UsedBytes = s.Bar1TotalBytes = 0; }},
        {"nvmlDeviceGetCurrPcieLinkGeneration", [](Sample& s) { s.PcieGeneration = -1; }},
        {"nvmlDeviceGetCurrPcieLinkWidth", [](Sample& s) { s.PcieWidth = -1; }},
        {"nvmlDeviceGetPcieThroughput", [](Sample& s) { s.PcieReceiveMiBPerSecond = s.PcieTransmitMiBPerSecond = -1; }},
        {"nvmlDeviceGetCurrentClocksThrottleReasons", [](Sample& s) { s.PerformanceLimitReasons = 0; }},
        {"nvmlDeviceGetEnforcedPowerLimit", [](Sample&) {}},
        {"nvmlDeviceGetPowerManagementLimit", [](Sample&) {}},
        {"nvmlDeviceGetPowerManagementDefaultLimit", [](Sample& s) { s.DefaultPowerLimitWatts = -1.0; }},
        {"nvmlDeviceGetPowerManagementLimitConstraints",
         [](Sample& s) { s.MinimumPowerLimitWatts = s.MaximumPowerLimitWatts = -1.0; }},
    };
    for (const auto& [query, unread] : cases) {
        Sample expected = kSample;
        unread(expected);
        for (const unsigned int code : {simulated_nvml::kNotSupported, simulated_nvml::kNoPermission, 999U}) {
            Sim.FailFrom(query, code);
            EXPECT_EQ(FieldsOf(Read()), FieldsOf(expected)) << query << " failing with " << code;
            Sim.StopFailing();
        }
        Sim.HideEntryPoint(query);
        EXPECT_EQ(FieldsOf(Read()), FieldsOf(expected)) << query << " missing";
        Monitor.Stop();
        StartOver();
    }
}

TEST_F(SampleTest, FurtherQueriesFailEachForItself) {
    Sim.FailFrom("nvmlDeviceGetPcieThroughput", simulated_nvml::kNotSupported, 2);
    Sim.FailFrom("nvmlDeviceGetClockInfo", simulated_nvml::kNotSupported, 3);
    Sim.FailFrom("nvmlDeviceGetEnforcedPowerLimit", simulated_nvml::kUnknown);
    Sim.FailFrom("nvmlDeviceGetPowerManagementLimit", simulated_nvml::kUnknown);
    GpuTelemetrySample expected = kSample;
    expected.PcieTransmitMiBPerSecond = expected.PowerLimitWatts = -1.0;
    expected.MemoryClockMHz = expected.VideoClockMHz = -1;
    EXPECT_EQ(FieldsOf(Read()), FieldsOf(expected));
}

TEST_F(SampleTest, SucceedsWithPowerOrGraphicsClockAlsoWhenTheyAreZero) {
    simulated_nvml::Readings readings = fixed_boards::DistinctReadings();
    readings.PowerMilliwatts = readings.GraphicsMHz = 0;
    Sim.SetBoards(fixed_boards::FixedBoards(1, readings));
    Sim.FailFrom("nvmlDeviceGetClockInfo", simulated_nvml::kNotSupported);
    EXPECT_EQ(Read().PowerWatts, 0.0);
    Sim.StopFailing();
    Sim.FailFrom("nvmlDeviceGetPowerUsage", simulated_nvml::kNotSupported);
    Sim.FailFrom("nvmlDeviceGetClockInfo", simulated_nvml::kNotSupported, 2);
    EXPECT_EQ(Read().GraphicsClockMHz, 0);
    EXPECT_EQ(Read(false).TemperatureC, 61) << "a failure, as the clock cannot be read any more";
}

TEST_F(SampleTest, FrameTimeComesFromTheHostsProfiler) {
    EXPECT_EQ(Read().FrameTimeMs, -1.0) << "no frame";
    const size_t secondRead = Sim.Log().size();
    std::string before;
    GPUProfiler::Get()->OnRead = [&] { before = Log(secondRead); };
    Read();
    EXPECT_EQ(before, "?HandleByIndex_v2 HandleByIndex_v2(0) ") << "the moment of the sample, before any query";
    GPUProfiler::Get()->OnRead = nullptr;
    const std::pair<double, double> cases[] = {{16.5, 16.5}, {0.001, 0.001}, {0.0, -1.0}, {-3.0, -1.0}};
    for (const auto& [frameTime, expected] : cases) {
        GPUProfiler::Get()->FrameTimeMs = frameTime;
        EXPECT_EQ(Read().FrameTimeMs, expected);
    }
    GPUProfiler::Get()->FrameTimeMs = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(std::isnan(Read().FrameTimeMs));
}

TEST_F(SampleTest, ReadingThatCannotBeginLeavesTheDefaults) {
    EXPECT_FALSE(Monitor.ReadCurrentSample(nullptr));
    EXPECT_FALSE(Monitor.ReadCurrentSample(1, nullptr));
    EXPECT_EQ(Log(), "") << "Without a record to fill, nothing is started.";
    const auto expectDefaults = [this](unsigned int index) {
        GpuTelemetrySample sample = kSample;
        sample.TimestampSeconds = 5.0;
        EXPECT_FALSE(Monitor.ReadCurrentSample(index, &sample));
        EXPECT_EQ(FieldsOf(sample), FieldsOf(kNothingRead));
        EXPECT_EQ(sample.TimestampSeconds, 0.0);
    };
    expectDefaults(1);
    EXPECT_TRUE(Monitor.IsAvailable()) << "A reading starts NVML even if the GPU does not exist.";
    Monitor.Stop();
    Sim.RemoveLibrary();
    expectDefaults(0);
}

}  // namespace
