#ifndef VIEW_TEST_H
#define VIEW_TEST_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <clocale>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "view/canvas.h"

/// The locale and the time zone that the expected texts are written for.
class ViewTest : public testing::Test {
protected:
    ViewTest() {
        std::setlocale(LC_CTYPE, "C.UTF-8");
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

constexpr double kNow = 1000.0;
constexpr uint64_t kMebibyte = 1024 * 1024;

/// A GPU that has been read every second for a minute; each reading has a value of its own.
inline gpu_feed::FeedGpu MadeGpu(unsigned int index = 0) {
    gpu_feed::FeedGpu gpu;
    gpu.Key = "key " + std::to_string(index);
    gpu.Device = {"Made Board", index, "", "", "550.120", "", "", 0};
    gpu.Processes = {
        {300, 700 * kMebibyte, "render", "zoe"}, {20, 600 * kMebibyte, "train", "adam"}, {1000, 0, "", ""}};
    GpuTelemetrySample& sample = gpu.Latest;
    sample.GpuUtilizationPercent = 100;
    sample.MemoryUtilizationPercent = 25;
    sample.EncoderUtilizationPercent = 0;
    sample.DecoderUtilizationPercent = 50;
    sample.VramUsedBytes = 3072 * kMebibyte;
    sample.VramTotalBytes = 4096 * kMebibyte;
    sample.PowerWatts = 150.0;
    sample.PowerLimitWatts = 225.0;
    sample.DefaultPowerLimitWatts = 250.0;
    sample.MinimumPowerLimitWatts = 100.0;
    sample.MaximumPowerLimitWatts = 300.0;
    sample.TemperatureC = 75;
    sample.FanPercent = 10;
    sample.GraphicsClockMHz = 2100;
    sample.SmClockMHz = 2101;
    sample.MemoryClockMHz = 9501;
    sample.VideoClockMHz = 1785;
    sample.PerformanceState = 2;
    sample.PcieGeneration = 4;
    sample.PcieWidth = 16;
    sample.PerformanceLimitReasons = 0x4 | 0x40;
    gpu.PeriodSeconds = 1.0;
    for (sample.TimestampSeconds = kNow - 60.0; sample.TimestampSeconds < kNow; sample.TimestampSeconds += 1.0) {
        gpu.Samples.push_back(sample);
    }
    return gpu;
}

inline gpu_feed::FeedData MadeData(const std::vector<gpu_feed::FeedGpu>& gpus) {
    gpu_feed::FeedData data;
    data.State = gpu_feed::FeedState::Sampling;
    data.Status = "The status.";
    data.Interval = std::chrono::seconds(1);
    data.SamplingSince = kNow - 60.0;
    for (const auto& gpu : gpus) data.Gpus.push_back(std::make_shared<gpu_feed::FeedGpu>(gpu));
    return data;
}

/// `data` at a moment of the day whose noon is `kNow`.
inline gpu_feed::FeedMoment MomentOf(const gpu_feed::FeedData& data, double now = kNow, double driverSilence = 0.0) {
    gpu_feed::FeedMoment moment;
    moment.Data = std::make_shared<gpu_feed::FeedData>(data);
    moment.Now = now;
    moment.TimeOfDay = std::chrono::system_clock::time_point(std::chrono::hours(12)) +
                       std::chrono::milliseconds(static_cast<int64_t>((now - kNow) * 1000.0));
    moment.DriverSilence = driverSilence;
    return moment;
}

/// What the row that begins with `start` shows behind it; empty when there is no such row.
inline std::string RowBehind(const std::string& screen, const std::string& start) {
    const size_t place = ('\n' + screen).find('\n' + start);
    if (place == std::string::npos) return "";
    return screen.substr(place + start.size(), screen.find('\n', place) - place - start.size());
}

#endif  // VIEW_TEST_H
