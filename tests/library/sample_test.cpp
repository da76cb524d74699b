// One reading of one GPU.

#include <cstdint>
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

// The sample of a board with fixed_boards::DistinctReadings.
// clang-format off
const GpuTelemetrySample kSample = {0.0, 61, 62, 63, 64, 65, 5'000'000'000, 16376ULL << 20U, 12'000'000, 16ULL << 30U,
                                    4294967.295, 320.0, 320.0, 150.0, 352.0, 66, 2100, 2101, 9501, 1785, 2, 4, 16,
                                    4294967295.0 / 1024.0, 0.5, UINT64_MAX, -1.0};
// clang-format on

class SampleTest : public MonitorTest {
protected:
    GpuTelemetrySample Read(bool bExpected = true) {
        GpuTelemetrySample sample;
        EXPECT_EQ(Monitor.ReadCurrentSample(&sample), bExpected);
        return sample;
    }
};

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
        Sim.FailFrom(query, simulated_nvml::kNotSupported);
        EXPECT_EQ(FieldsOf(Read()), FieldsOf(expected)) << query << " failing";
        Sim.HideEntryPoint(query);
        EXPECT_EQ(FieldsOf(Read()), FieldsOf(expected)) << query << " missing";
        Monitor.Stop();
        StartOver();
    }
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
    GPUProfiler::Get()->FrameTimeMs = 16.5;
    EXPECT_EQ(Read().FrameTimeMs, 16.5);
    GPUProfiler::Get()->FrameTimeMs = 0.0;
    EXPECT_EQ(Read().FrameTimeMs, -1.0);
}

}  // namespace
