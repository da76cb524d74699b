#include "gpu_feed/readings.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace gpu_feed {

namespace {

using Sample = GpuTelemetrySample;

constexpr double kMiB = 1024.0 * 1024.0;
/// NVML gives 32 for a state that it does not know.
constexpr int kLastPerformanceState = 15;

template <int Sample::*Field>
std::optional<int64_t> Whole(const Sample& sample) {
    return sample.*Field == -1 ? std::nullopt : std::optional<int64_t>(sample.*Field);
}

std::optional<int64_t> KnownState(const Sample& sample) {
    const int state = sample.PerformanceState;
    return state < 0 || state > kLastPerformanceState ? std::nullopt : std::optional<int64_t>(state);
}

/// A size counts as read when the total beside it was read.
template <uint64_t Sample::*Field, uint64_t Sample::*Total>
std::optional<int64_t> Bytes(const Sample& sample) {
    return sample.*Total == 0 ? std::nullopt : std::optional(static_cast<int64_t>(sample.*Field));
}

/// The host's profiler supplies the frame time, so infinity and NaN are possible.
template <double Sample::*Field>
std::optional<double> Fraction(const Sample& sample) {
    const double value = sample.*Field;
    return std::isfinite(value) && value >= 0.0 ? std::optional(value) : std::nullopt;
}

template <std::optional<int64_t> (*WholeValue)(const Sample& sample)>
std::optional<double> AsDouble(const Sample& sample) {
    const std::optional<int64_t> value = WholeValue(sample);
    return value ? std::optional(static_cast<double>(*value)) : std::nullopt;
}

template <std::optional<int64_t> (*WholeValue)(const Sample& sample)>
constexpr Reading WholeReading(ReadingId id, const char* key, const char* label, const char* unit,
                               double shownDivisor = 1.0) {
    return {id, key, label, unit, AsDouble<WholeValue>, WholeValue, 0, shownDivisor};
}

template <double Sample::*Field>
constexpr Reading FractionReading(ReadingId id, const char* key, const char* label, const char* unit, int decimals) {
    return {id, key, label, unit, Fraction<Field>, nullptr, decimals};
}

}  // namespace

const std::vector<Reading>& Readings() {
    using S = Sample;
    using Id = ReadingId;
    // clang-format off
    static const std::vector<Reading> kReadings = {
        WholeReading<Whole<&S::GpuUtilizationPercent>>(Id::GpuUtilization, "gpu_utilization_percent", "GPU utilization", "%"),
        WholeReading<Whole<&S::MemoryUtilizationPercent>>(Id::MemoryUtilization, "memory_utilization_percent", "Memory utilization", "%"),
        WholeReading<Whole<&S::EncoderUtilizationPercent>>(Id::EncoderUtilization, "encoder_utilization_percent", "Encoder utilization", "%"),
        WholeReading<Whole<&S::DecoderUtilizationPercent>>(Id::DecoderUtilization, "decoder_utilization_percent", "Decoder utilization", "%"),
        WholeReading<Bytes<&S::VramUsedBytes, &S::VramTotalBytes>>(Id::VramUsed, "vram_used_bytes", "VRAM used", "MiB", kMiB),
        WholeReading<Bytes<&S::VramTotalBytes, &S::VramTotalBytes>>(Id::VramTotal, "vram_total_bytes", "VRAM total", "MiB", kMiB),
        WholeReading<Bytes<&S::Bar1UsedBytes, &S::Bar1TotalBytes>>(Id::Bar1Used, "bar1_used_bytes", "BAR1 used", "MiB", kMiB),
        WholeReading<Bytes<&S::Bar1TotalBytes, &S::Bar1TotalBytes>>(Id::Bar1Total, "bar1_total_bytes", "BAR1 total", "MiB", kMiB),
        FractionReading<&S::PowerWatts>(Id::Power, "power_watts", "Power", "W", 1),
        FractionReading<&S::PowerLimitWatts>(Id::PowerLimit, "power_limit_watts", "Power limit", "W", 1),
        FractionReading<&S::DefaultPowerLimitWatts>(Id::DefaultPowerLimit, "default_power_limit_watts", "Default power limit", "W", 1),
        FractionReading<&S::MinimumPowerLimitWatts>(Id::MinimumPowerLimit, "minimum_power_limit_watts", "Minimum power limit", "W", 1),
        FractionReading<&S::MaximumPowerLimitWatts>(Id::MaximumPowerLimit, "maximum_power_limit_watts", "Maximum power limit", "W", 1),
        WholeReading<Whole<&S::TemperatureC>>(Id::Temperature, "temperature_c", "Temperature", "C"),
        WholeReading<Whole<&S::FanPercent>>(Id::Fan, "fan_percent", "Fan", "%"),
        WholeReading<Whole<&S::GraphicsClockMHz>>(Id::GraphicsClock, "graphics_clock_mhz", "Graphics clock", "MHz"),
        WholeReading<Whole<&S::SmClockMHz>>(Id::SmClock, "sm_clock_mhz", "SM clock", "MHz"),
        WholeReading<Whole<&S::MemoryClockMHz>>(Id::MemoryClock, "memory_clock_mhz", "Memory clock", "MHz"),
        WholeReading<Whole<&S::VideoClockMHz>>(Id::VideoClock, "video_clock_mhz", "Video clock", "MHz"),
        WholeReading<KnownState>(Id::PerformanceState, "performance_state", "Performance state", ""),
        WholeReading<Whole<&S::PcieGeneration>>(Id::PcieGeneration, "pcie_generation", "PCIe generation", ""),
        WholeReading<Whole<&S::PcieWidth>>(Id::PcieWidth, "pcie_width", "PCIe width", "lanes"),
        FractionReading<&S::PcieReceiveMiBPerSecond>(Id::PcieReceive, "pcie_receive_mib_per_second", "PCIe receive", "MiB/s", 1),
        FractionReading<&S::PcieTransmitMiBPerSecond>(Id::PcieTransmit, "pcie_transmit_mib_per_second", "PCIe transmit", "MiB/s", 1),
        FractionReading<&S::FrameTimeMs>(Id::FrameTime, "frame_time_ms", "Frame time", "ms", 2),
    };
    // clang-format on
    return kReadings;
}

const Reading& ReadingOf(ReadingId id) {
    return Readings()[static_cast<size_t>(id)];
}

std::optional<double> ReadingValue(ReadingId id, const GpuTelemetrySample& sample) {
    return ReadingOf(id).Value(sample);
}

std::optional<double> ShownValue(ReadingId id, const GpuTelemetrySample& sample) {
    const std::optional<double> value = ReadingValue(id, sample);
    return value ? std::optional(*value / ReadingOf(id).ShownDivisor) : std::nullopt;
}

bool HasAnyReading(const GpuTelemetrySample& sample) {
    const auto isAnswered = [&sample](const Reading& reading) {
        return reading.Id != ReadingId::FrameTime && reading.Value(sample).has_value();
    };
    return sample.PerformanceLimitReasons != 0 || std::any_of(Readings().begin(), Readings().end(), isAnswered);
}

}  // namespace gpu_feed
