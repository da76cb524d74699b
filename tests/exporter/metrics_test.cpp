#include <gmock/gmock.h>
#include <prometheus/text_serializer.h>

#include <sstream>

#include "gpu_feed/limit_reasons.h"
#include "metrics/exporter_metrics.h"
#include "metrics/gpu_metrics.h"

using namespace gpu_feed;

namespace {

std::string Replaced(std::string text, const std::string& old, const std::string& replacement) {
    for (size_t at = 0; (at = text.find(old, at)) != std::string::npos; at += replacement.size()) {
        text.replace(at, old.size(), replacement);
    }
    return text;
}

/// Everything is seen at 1000 s.
struct MetricsTest : testing::Test {
    static FeedGpu MakeGpu(unsigned int index, const std::string& key, double read = 999.5, double silentSince = 0.0) {
        FeedGpu gpu{key, {"A100", index, key, {}, {}, {}, {}}, {}, {}, {}, 1.0, silentSince, {}};
        gpu.Latest.TimestampSeconds = read;
        return gpu;
    }

    void Publish(const std::vector<FeedGpu>& gpus, FeedState state = FeedState::Sampling, double samplingSince = 1.0) {
        FeedData data{state, "No \"driver\".", std::chrono::milliseconds(750), samplingSince, 0.0, {}, {}};
        for (const FeedGpu& gpu : gpus) data.Gpus.push_back(std::make_shared<const FeedGpu>(gpu));
        Moment.Data = std::make_shared<const FeedData>(std::move(data));
    }

    /// The lines of the page that begin with `prefix`, without it, and of labels only the values, between slashes.
    static std::string Page(const prometheus::Collectable& metrics, const std::string& prefix) {
        std::istringstream page(prometheus::TextSerializer().Serialize(metrics.Collect()));
        std::string lines;
        for (std::string line; std::getline(page, line);) {
            if (line.rfind(prefix, 0) == 0) lines += line.substr(prefix.size()) + ", ";
        }
        for (const char* label :
             {"gpu", "uuid", "name", "driver_version", "vbios_version", "architecture", "pci_bus_id", "reason", "pid",
              "process", "version", "simulated", "state", "status"}) {
            for (const std::string before : {"{", "\","}) lines = Replaced(lines, before + label + "=\"", "/");
        }
        return Replaced(lines, "\"}", "/");
    }

    FeedMoment Moment{nullptr, 1000.0, {}, 0.25, true};
    const GpuMetrics Gpus{[this] { return Moment; }, true};
    ExporterMetrics Exporter{[this] { return Moment; }, "1.2"};
};

TEST_F(MetricsTest, ReadingsComeInBaseUnitsWithAllTheirDigits) {
    FeedGpu gpu = MakeGpu(3, "A");
    constexpr uint64_t kLimits = kPowerCapReason | kHardwareThermalReason;
    gpu.Latest = {999.5,   29,  57,    25,           100, 0,       85899345921, 85899345922, 1,    2,
                  251.375, 300, 310.5, 100,          350, 110,     1410,        1411,        1593, 1275,
                  0,       4,   16,    0.0009765625, 2.5, kLimits, 16.5};
    gpu.Energy = {1234.5, 10.0};
    Publish({gpu});
    EXPECT_EQ(Replaced(Replaced(Page(Gpus, "gpu_"), "clock_limit_reason/3/A/", ""), "/3/A/", ""),
              "up 1, reading_age_seconds 0.5, infoA100///// 1, temperature_celsius 29, utilization_ratio 0.57, "
              "memory_utilization_ratio 0.25, encoder_utilization_ratio 1, decoder_utilization_ratio 0, "
              "memory_used_bytes 85899345921, memory_size_bytes 85899345922, bar1_used_bytes 1, bar1_size_bytes 2, "
              "power_watts 251.375, power_limit_watts 300, power_limit_default_watts 310.5, power_limit_minimum_watts "
              "100, power_limit_maximum_watts 350, fan_speed_ratio 1.1, graphics_clock_hertz 1410000000, "
              "sm_clock_hertz 1411000000, memory_clock_hertz 1593000000, video_clock_hertz 1275000000, "
              "performance_state 0, pcie_generation 4, pcie_width_lanes 16, pcie_receive_bytes_per_second 1024, "
              "pcie_transmit_bytes_per_second 2621440, energy_joules_total 1234.5, idle/ 0, application_clocks/ 0, "
              "power_cap/ 1, hardware_slowdown/ 0, sync_boost/ 0, thermal/ 0, hardware_thermal/ 1, power_brake/ 0, "
              "display_clocks/ 0, ");
}

TEST_F(MetricsTest, WhatWasNotReadHasNeitherSeriesNorFamily) {
    FeedGpu gpu = MakeGpu(0, "");
    gpu.Latest.PerformanceState = 32;  // NVML does not know the state.
    Publish({gpu, MakeGpu(1, "")});
    EXPECT_EQ(Page(Gpus, "# TYPE gpu_"), "up gauge, reading_age_seconds gauge, info gauge, clock_limit_reason gauge, ");
}

TEST_F(MetricsTest, AGpuThatIsNotLiveHasOnlyItsStateAndItsAge) {
    const FeedGpu live = MakeGpu(0, "A", 999.5, 997.25);
    const FeedGpu silent = MakeGpu(1, "B", 999.5, 997.0);
    Publish({live, silent, MakeGpu(2, "C", 998.5), MakeGpu(3, "D", 0.0)}, FeedState::Sampling, 999.0);
    EXPECT_EQ(Page(Gpus, "gpu_up") + Page(Gpus, "gpu_info"), "/0/A/ 1, /1/B/ 0, /2/C/ 0, /0/A/A100///// 1, ");
    Publish({live, MakeGpu(1, "D", 0.0)}, FeedState::Unavailable);
    EXPECT_EQ(Page(Gpus, "gpu_"),
              "up/0/A/ 0, up/1/D/ 0, up/1/B/ 0, up/2/C/ 0, reading_age_seconds/0/A/ 0.5, "
              "reading_age_seconds/1/B/ 0.5, reading_age_seconds/2/C/ 1.5, ");
    Publish({MakeGpu(0, "B", 998.5)}, FeedState::Sampling, 999.0);
    EXPECT_EQ(Page(Gpus, "gpu_up") + Page(Gpus, "gpu_reading_age_seconds{gpu=\"0\",uuid=\"B\""),
              "/0/B/ 0, /0/A/ 0, /1/D/ 0, /2/C/ 0, } 1.5, ");
}

TEST_F(MetricsTest, ForeignTextsDoNotSpoilThePage) {
    FeedGpu gpu = MakeGpu(0, "A");
    gpu.Device.Name = "a\xff\"b\\\n\xc3\xa9";
    gpu.Processes.resize(1);
    gpu.Processes[0].Name = "\xe2\x82";
    Publish({gpu});
    EXPECT_EQ(Page(Gpus, "gpu_info"), "/0/A/a\xef\xbf\xbd\\\"b\\\\\\n\xc3\xa9///// 1, ");
    EXPECT_EQ(Page(Gpus, "gpu_process_memory_bytes"), "/0/A/0/\xef\xbf\xbd/ 0, ");
}

TEST_F(MetricsTest, TheExporterDescribesItself) {
    FeedGpu silent = MakeGpu(1, "B", 0.0, 50.0);
    silent.PeriodSeconds = 50.0;
    Publish({MakeGpu(0, "A"), silent});
    Exporter.NoteScrape(0.5);
    EXPECT_THAT(Page(Exporter, "gpu_exporter_"),
                testing::StartsWith("build_info/1.2/true/ 1, state/starting/ 0, state/sampling/ 1, state/unavailable/ "
                                    "0, status_info/No \\\"driver\\\"./ 1, interval_seconds 0.75, "
                                    "cycle_duration_seconds 0.25, driver_silence_seconds 0.25, "
                                    "scrape_duration_seconds_count 1, scrape_duration_seconds_sum 0.5, "));
}

}  // namespace
