#ifndef EXAMPLES_READINGS_H
#define EXAMPLES_READINGS_H

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "nvml_gpu_monitor.h"

/// Keeps the order of its keys: JSON output reads in the order of the tables below.
using Json = nlohmann::ordered_json;

/// One value of a sample: the table, JSON and the stream all show it from here.
struct Reading {
    /// JSON key, with the unit of the JSON value.
    const char* Key;
    /// Row name in the text table; null when only JSON has this reading.
    const char* Label;
    /// Unit of the value in text.
    const char* Unit;
    /// Null when the value was not read.
    Json (*Get)(const GpuTelemetrySample& sample);
    /// Column heading and width in the text stream; null when the stream has no column for it.
    const char* StreamHeading = nullptr;
    int StreamWidth = 0;
    /// Digits after the decimal point, in text.
    int Decimals = 0;
    /// What a JSON value is divided by to give the number in text.
    double TextDivisor = 1.0;
};

/// One fact of a GPU's identity.
struct IdentityField {
    const char* Key;
    const char* Label;
    const char* Unit;
    /// Null when the value was not read.
    Json (*Get)(const GpuDeviceInfo& device);
    double TextDivisor = 1.0;
};

/// One reading of one GPU.
struct GpuReading {
    GpuDeviceInfo Device;
    GpuTelemetrySample Sample;
};

/// What the driver tells about the clocks of one GPU.
struct GpuClocks {
    GpuDeviceInfo Device;
    GpuClockCapabilities Capabilities;
};

/// What the driver tells about the power limit of one GPU.
struct GpuPower {
    GpuDeviceInfo Device;
    GpuPowerCapabilities Capabilities;
};

/// Graphics clocks in ascending order for each memory clock, the highest memory clock first. MHz.
using ClockGroups = std::map<int, std::vector<int>, std::greater<>>;

/// Every reading, in the order of output.
const std::vector<Reading>& Readings();

/// The reading with this JSON key, which has to exist.
const Reading& ReadingOf(const std::string& key);

/// Every identity field, in the order of output.
const std::vector<IdentityField>& IdentityFields();

/// False when nothing at all could be read: the GPU did not answer.
bool HasAnyReading(const GpuTelemetrySample& sample);

/// The words of `ClockReasons`; null when there are none.
Json PerformanceLimits(const GpuTelemetrySample& sample);

/// What NVML tells about the clocks.
struct ClockReason {
    std::string Word;
    /// The GPU idles, which is no limit.
    bool bIdle = false;
    /// The hardware protects itself: from heat, or at the command of the power supply.
    bool bDanger = false;
};

/// In the order of NVML's bits.
std::vector<ClockReason> ClockReasons(const GpuTelemetrySample& sample);

/// `pairs` in the order in which the monitor gives them, in groups.
ClockGroups GroupByMemoryClock(const std::vector<GpuClockPair>& pairs);

#endif  // EXAMPLES_READINGS_H
