#include "text/identity.h"

namespace {

constexpr double kMiB = 1024.0 * 1024.0;

template <std::string GpuDeviceInfo::*Field>
std::string TextOf(const GpuDeviceInfo& device) {
    return device.*Field;
}

std::optional<uint64_t> Index(const GpuDeviceInfo& device) {
    return device.Index;
}

std::optional<uint64_t> Bar1Total(const GpuDeviceInfo& device) {
    return device.Bar1TotalBytes == 0 ? std::nullopt : std::optional(device.Bar1TotalBytes);
}

}  // namespace

const std::vector<IdentityField>& IdentityFields() {
    using Device = GpuDeviceInfo;
    static const std::vector<IdentityField> kFields = {
        {"index", "Index", "", nullptr, Index},
        {"name", "Name", "", TextOf<&Device::Name>},
        {"uuid", "UUID", "", TextOf<&Device::Uuid>},
        {"pci_bus_id", "PCI bus id", "", TextOf<&Device::PciBusId>},
        {"architecture", "Architecture", "", TextOf<&Device::Architecture>},
        {"driver_version", "Driver version", "", TextOf<&Device::DriverVersion>},
        {"vbios_version", "VBIOS version", "", TextOf<&Device::VbiosVersion>},
        {"bar1_total_bytes", "BAR1 size", "MiB", nullptr, Bar1Total, kMiB},
    };
    return kFields;
}
