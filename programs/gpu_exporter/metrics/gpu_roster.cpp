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
        const auto known = std::find_if(next.Gpus.begin(), next.Gpus.end(), [&gpu](const RosterGpu& each) {
            return each.Key == gpu.Key || each.Labels == gpu.Labels;
        });
        if (known == next.Gpus.end()) {
            next.Gpus.push_back(gpu);
            next.Gpus.back().Gpu = nullptr;
        } else if (known->Key == gpu.Key) {
            // The feed knows no earlier readings of a GPU that comes back.
            known->LatestReading = std::max(known->LatestReading, gpu.LatestReading);
        }
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
