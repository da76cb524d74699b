// What a program that is linked with the shared library has compiled into itself. A failure here, or a new field, means
// that the next version needs another major number.

#include <gmock/gmock.h>
#include <nvml_gpu_monitor.h>

#if defined(__LP64__) && defined(__GLIBCXX__)

namespace {

using testing::ElementsAre;

/// Where `fields` are in `record`, and then its size.
template <typename Record, typename... Fields>
std::vector<size_t> LayoutOf(const Record& record, const Fields&... fields) {
    const auto address = [](const auto& object) { return reinterpret_cast<uintptr_t>(&object); };
    return {(address(fields) - address(record))..., sizeof(Record)};
}

TEST(LayoutTest, RecordsKeepTheirFieldsInPlace) {
    SCOPED_TRACE("Undo this change, or raise NVML_GPU_MONITOR_VERSION_MAJOR: programs are linked with this layout.");
    const GpuDeviceInfo d;
    EXPECT_THAT(LayoutOf(d, d.Name, d.Index, d.Uuid, d.PciBusId, d.DriverVersion, d.VbiosVersion, d.Architecture,
                         d.Bar1TotalBytes),
                ElementsAre(0, 32, 40, 72, 104, 136, 168, 200, 208));
    const GpuTelemetrySample s;
    EXPECT_THAT(
        LayoutOf(s, s.TimestampSeconds, s.TemperatureC, s.GpuUtilizationPercent, s.MemoryUtilizationPercent,
                 s.EncoderUtilizationPercent, s.DecoderUtilizationPercent, s.VramUsedBytes, s.VramTotalBytes,
                 s.Bar1UsedBytes, s.Bar1TotalBytes, s.PowerWatts, s.PowerLimitWatts, s.DefaultPowerLimitWatts,
                 s.MinimumPowerLimitWatts, s.MaximumPowerLimitWatts, s.FanPercent, s.GraphicsClockMHz, s.SmClockMHz,
                 s.MemoryClockMHz, s.VideoClockMHz, s.PerformanceState, s.PcieGeneration, s.PcieWidth,
                 s.PcieReceiveMiBPerSecond, s.PcieTransmitMiBPerSecond, s.PerformanceLimitReasons, s.FrameTimeMs),
        ElementsAre(0, 8, 12, 16, 20, 24, 32, 40, 48, 56, 64, 72, 80, 88, 96, 104, 108, 112, 116, 120, 124, 128, 132,
                    136, 144, 152, 160, 168));
    const GpuProcessMemory p;
    EXPECT_THAT(LayoutOf(p, p.Pid, p.VramUsedBytes), ElementsAre(0, 8, 16));
    const GpuTelemetryHistory h;
    EXPECT_THAT(LayoutOf(h, h.Device, h.Samples, h.ProcessMemory), ElementsAre(0, 208, 288, 312));
    const GpuClockPair pair;
    EXPECT_THAT(LayoutOf(pair, pair.GraphicsClockMHz, pair.MemoryClockMHz), ElementsAre(0, 4, 8));
    const GpuClockCapabilities c;
    EXPECT_THAT(LayoutOf(c, c.DeviceIndex, c.DeviceUuid, c.DeviceName, c.SupportedPairs, c.CurrentGraphicsClockMHz,
                         c.CurrentMemoryClockMHz, c.CanControl, c.Status),
                ElementsAre(0, 8, 40, 72, 96, 100, 104, 112, 144));
    const GpuClockState state;
    EXPECT_THAT(LayoutOf(state, state.Valid, state.GraphicsClockMHz, state.MemoryClockMHz), ElementsAre(0, 4, 8, 12));
    const GpuPowerCapabilities w;
    EXPECT_THAT(LayoutOf(w, w.DeviceIndex, w.DeviceUuid, w.State, w.CurrentWatts, w.DefaultWatts, w.MinimumWatts,
                         w.MaximumWatts, w.Status),
                ElementsAre(0, 8, 40, 48, 56, 64, 72, 80, 112));
    EXPECT_EQ(sizeof(NvmlGpuMonitor), 160 + sizeof(std::mutex));
}

}  // namespace

#endif
