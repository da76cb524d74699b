#ifndef GPU_FEED_READINGS_H
#define GPU_FEED_READINGS_H

#include <cstdint>
#include <optional>
#include <vector>

#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// Every number of a sample, in the order in which people read them.
enum class ReadingId {
    GpuUtilization,
    MemoryUtilization,
    EncoderUtilization,
    DecoderUtilization,
    VramUsed,
    VramTotal,
    Bar1Used,
    Bar1Total,
    Power,
    PowerLimit,
    DefaultPowerLimit,
    MinimumPowerLimit,
    MaximumPowerLimit,
    Temperature,
    Fan,
    GraphicsClock,
    SmClock,
    MemoryClock,
    VideoClock,
    PerformanceState,
    PcieGeneration,
    PcieWidth,
    PcieReceive,
    PcieTransmit,
    FrameTime,
};

/// How one number of a sample is named, shown and got. This table alone decides what counts as not read.
struct Reading {
    ReadingId Id;
    /// Name for programs, which ends with the unit of `Value`.
    const char* Key;
    /// Name and unit for people. The unit may differ from that of `Value`: see `ShownDivisor`.
    const char* Label;
    const char* Unit;
    /// The value in the unit of `Key`; empty when it was not read.
    std::optional<double> (*Value)(const GpuTelemetrySample& sample);
    /// The same as a whole number with all of its digits; null for readings with a fraction.
    std::optional<int64_t> (*WholeValue)(const GpuTelemetrySample& sample);
    /// Digits after the decimal point for people.
    int Decimals = 0;
    /// `Value` divided by this is in `Unit`.
    double ShownDivisor = 1.0;
};

/// All of them, in the order of `ReadingId`.
const std::vector<Reading>& Readings();

const Reading& ReadingOf(ReadingId id);

/// The value in the unit of the reading's key; empty when it was not read.
std::optional<double> ReadingValue(ReadingId id, const GpuTelemetrySample& sample);

/// The value in the unit for people; empty when it was not read.
std::optional<double> ShownValue(ReadingId id, const GpuTelemetrySample& sample);

/// False when the GPU did not answer a single query. The frame time does not count, because the host measures it.
bool HasAnyReading(const GpuTelemetrySample& sample);

}  // namespace gpu_feed

#endif  // GPU_FEED_READINGS_H
