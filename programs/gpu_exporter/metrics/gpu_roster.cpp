#include "metrics/gpu_roster.h"

#include <algorithm>

using gpu_feed::FeedGpu;

namespace {

RosterGpu EntryOf(const FeedGpu& gpu) {
    const GpuDeviceInfo& device = gpu.Device;
    RosterGpu entry;
    entry.Gpu = &gpu;
    entry.Key = gpu.Key;
    entry.Labels = {{"gpu", std::to_string(device.Index)}, {"uuid", LabelText(device.Uuid)}};
    entry.InfoLabels = entry.Labels;
    const MetricLabels description = {{"name", LabelText(device.Name)},
                                      {"driver_version", LabelText(device.DriverVersion)},
                                      {"vbios_version", LabelText(device.VbiosVersion)},
                                      {"architecture", LabelText(device.Architecture)},
                                      {"pci_bus_id", LabelText(device.PciBusId)}};
    entry.InfoLabels.insert(entry.InfoLabels.end(), description.begin(), description.end());
    entry.LatestReading = gpu.Latest.TimestampSeconds;
    return entry;
}

}  // namespace

GpuRoster NextRoster(const GpuRoster* before, const std::shared_ptr<const gpu_feed::FeedData>& data) {
    GpuRoster next{data, {}};
    for (const auto& gpu : data->Gpus) next.Gpus.push_back(EntryOf(*gpu));
    if (before == nullptr) return next;
    for (const RosterGpu& gpu : before->Gpus) {
        const auto isSame = [&gpu](const RosterGpu& each) { return each.Key == gpu.Key || each.Labels == gpu.Labels; };
        if (std::any_of(next.Gpus.begin(), next.Gpus.end(), isSame)) continue;
        next.Gpus.push_back(gpu);
        next.Gpus.back().Gpu = nullptr;
    }
    return next;
}

std::optional<bool> IsUp(const gpu_feed::FeedMoment& moment, const RosterGpu& gpu) {
    using gpu_feed::GpuState;
    if (gpu.Gpu == nullptr) return false;
    const GpuState state = StateOf(moment, *gpu.Gpu);
    if (state == GpuState::Starting && gpu.LatestReading == 0.0) return std::nullopt;
    return state == GpuState::Live;
}
