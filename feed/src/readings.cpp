#include "gpu_feed/readings.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <sstream>
#include <string>

namespace {

constexpr double kMiB = 1024.0 * 1024.0;

template <int GpuTelemetrySample::*Field>
Json Whole(const GpuTelemetrySample& sample) {
    return sample.*Field == -1 ? Json() : Json(sample.*Field);
}

// A host's profiler supplies one of these fields, so infinity and NaN, which JSON does not have, are possible.
template <double GpuTelemetrySample::*Field>
Json Decimal(const GpuTelemetrySample& sample) {
    const double value = sample.*Field;
    return std::isfinite(value) && value >= 0.0 ? Json(value) : Json();
}

template <uint64_t GpuTelemetrySample::*Field, uint64_t GpuTelemetrySample::*Total>
Json Bytes(const GpuTelemetrySample& sample) {
    return sample.*Total == 0 ? Json() : Json(sample.*Field);
}

template <std::string GpuDeviceInfo::*Field>
Json Text(const GpuDeviceInfo& device) {
    return (device.*Field).empty() ? Json() : Json(device.*Field);
}

Json Index(const GpuDeviceInfo& device) {
    return device.Index;
}

Json Bar1Total(const GpuDeviceInfo& device) {
    return device.Bar1TotalBytes == 0 ? Json() : Json(device.Bar1TotalBytes);
}

struct ReasonBit {
    uint64_t Bit;
    const char* Word;
    bool bDanger = false;
};

constexpr uint64_t kIdleBit = 0x1;
constexpr ReasonBit kReasonBits[] = {
    {kIdleBit, "idle"},
    {0x2, "application clocks"},
    {0x4, "power cap"},
    {0x8, "hardware slowdown", true},
    {0x10, "sync boost"},
    {0x20, "thermal", true},
    {0x40, "hardware thermal", true},
    {0x80, "power brake", true},
    {0x100, "display clocks"},
};

std::string Hexadecimal(uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

Json LimitMask(const GpuTelemetrySample& sample) {
    return sample.PerformanceLimitReasons == 0 ? Json() : Json(sample.PerformanceLimitReasons);
}

}  // namespace

std::vector<ClockReason> ClockReasons(const GpuTelemetrySample& sample) {
    std::vector<ClockReason> reasons;
    uint64_t unknown = sample.PerformanceLimitReasons;
    for (const auto& [bit, word, bDanger] : kReasonBits) {
        if ((sample.PerformanceLimitReasons & bit) != 0) reasons.push_back({word, bit == kIdleBit, bDanger});
        unknown &= ~bit;
    }
    if (unknown != 0) reasons.push_back({Hexadecimal(unknown)});
    return reasons;
}

Json PerformanceLimits(const GpuTelemetrySample& sample) {
    Json words;
    for (const ClockReason& reason : ClockReasons(sample)) words.push_back(reason.Word);
    return words;
}

const std::vector<Reading>& Readings() {
    using S = GpuTelemetrySample;
    // clang-format off
    static const std::vector<Reading> kReadings = {
        {"gpu_utilization_percent", "GPU utilization", "%", Whole<&S::GpuUtilizationPercent>, "util", 4},
        {"memory_utilization_percent", "Memory utilization", "%", Whole<&S::MemoryUtilizationPercent>, "mem", 4},
        {"encoder_utilization_percent", "Encoder utilization", "%", Whole<&S::EncoderUtilizationPercent>},
        {"decoder_utilization_percent", "Decoder utilization", "%", Whole<&S::DecoderUtilizationPercent>},
        {"vram_used_bytes", "VRAM used", "MiB", Bytes<&S::VramUsedBytes, &S::VramTotalBytes>, "vram", 6, 0, kMiB},
        {"vram_total_bytes", "VRAM total", "MiB", Bytes<&S::VramTotalBytes, &S::VramTotalBytes>, nullptr, 0, 0, kMiB},
        {"bar1_used_bytes", "BAR1 used", "MiB", Bytes<&S::Bar1UsedBytes, &S::Bar1TotalBytes>, nullptr, 0, 0, kMiB},
        {"bar1_total_bytes", "BAR1 total", "MiB", Bytes<&S::Bar1TotalBytes, &S::Bar1TotalBytes>, nullptr, 0, 0, kMiB},
        {"power_watts", "Power", "W", Decimal<&S::PowerWatts>, "power", 6, 1},
        {"power_limit_watts", "Power limit", "W", Decimal<&S::PowerLimitWatts>, nullptr, 0, 1},
        {"default_power_limit_watts", "Default power limit", "W", Decimal<&S::DefaultPowerLimitWatts>, nullptr, 0, 1},
        {"minimum_power_limit_watts", "Minimum power limit", "W", Decimal<&S::MinimumPowerLimitWatts>, nullptr, 0, 1},
        {"maximum_power_limit_watts", "Maximum power limit", "W", Decimal<&S::MaximumPowerLimitWatts>, nullptr, 0, 1},
        {"temperature_c", "Temperature", "C", Whole<&S::TemperatureC>, "temp", 4},
        {"fan_percent", "Fan", "%", Whole<&S::FanPercent>, "fan", 4},
        {"graphics_clock_mhz", "Graphics clock", "MHz", Whole<&S::GraphicsClockMHz>, "gfx", 5},
        {"sm_clock_mhz", "SM clock", "MHz", Whole<&S::SmClockMHz>},
        {"memory_clock_mhz", "Memory clock", "MHz", Whole<&S::MemoryClockMHz>, "mem", 5},
        {"video_clock_mhz", "Video clock", "MHz", Whole<&S::VideoClockMHz>},
        {"performance_state", "Performance state", "", Whole<&S::PerformanceState>},
        {"pcie_generation", "PCIe generation", "", Whole<&S::PcieGeneration>},
        {"pcie_width", "PCIe width", "lanes", Whole<&S::PcieWidth>},
        {"pcie_receive_mib_per_second", "PCIe receive", "MiB/s", Decimal<&S::PcieReceiveMiBPerSecond>, nullptr, 0, 1},
        {"pcie_transmit_mib_per_second", "PCIe transmit", "MiB/s", Decimal<&S::PcieTransmitMiBPerSecond>, nullptr, 0,
         1},
        {"frame_time_ms", "Frame time", "ms", Decimal<&S::FrameTimeMs>, nullptr, 0, 2},
        {"performance_limit_reasons", nullptr, "", LimitMask},
        {"performance_limits", "Limited by", "", PerformanceLimits, "limited by", 21},
    };
    // clang-format on
    return kReadings;
}

const Reading& ReadingOf(const std::string& key) {
    const auto hasKey = [&key](const Reading& reading) { return reading.Key == key; };
    return *std::find_if(Readings().begin(), Readings().end(), hasKey);
}

const std::vector<IdentityField>& IdentityFields() {
    static const std::vector<IdentityField> kFields = {
        {"index", "Index", "", Index},
        {"name", "Name", "", Text<&GpuDeviceInfo::Name>},
        {"uuid", "UUID", "", Text<&GpuDeviceInfo::Uuid>},
        {"pci_bus_id", "PCI bus id", "", Text<&GpuDeviceInfo::PciBusId>},
        {"architecture", "Architecture", "", Text<&GpuDeviceInfo::Architecture>},
        {"driver_version", "Driver version", "", Text<&GpuDeviceInfo::DriverVersion>},
        {"vbios_version", "VBIOS version", "", Text<&GpuDeviceInfo::VbiosVersion>},
        {"bar1_total_bytes", "BAR1 size", "MiB", Bar1Total, kMiB},
    };
    return kFields;
}

bool HasAnyReading(const GpuTelemetrySample& sample) {
    // The frame time comes from the host, so it says nothing about the GPU.
    GpuTelemetrySample gpuOnly = sample;
    gpuOnly.FrameTimeMs = -1.0;
    const auto isRead = [&gpuOnly](const Reading& reading) { return !reading.Get(gpuOnly).is_null(); };
    return std::any_of(Readings().begin(), Readings().end(), isRead);
}

ClockGroups GroupByMemoryClock(const std::vector<GpuClockPair>& pairs) {
    ClockGroups groups;
    for (const GpuClockPair& pair : pairs) groups[pair.MemoryClockMHz].push_back(pair.GraphicsClockMHz);
    return groups;
}
