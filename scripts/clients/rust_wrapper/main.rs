//! Prints what the Rust wrapper of NVML reads, in gpu_monitor's names and units: a line "GPU NAME VALUE" for each value.
//! What the wrapper reports as an error is left out, as gpu_monitor leaves it out.

use nvml_wrapper::enum_wrappers::device::{Clock, ClockId, PcieUtilCounter, TemperatureSensor};
use nvml_wrapper::enums::device::UsedGpuMemory;
use nvml_wrapper::error::NvmlError;
use nvml_wrapper::{Device, Nvml};
use std::collections::BTreeMap;
use std::fmt::Display;

fn watts(milliwatts: u32) -> f64 {
    f64::from(milliwatts) / 1000.0
}

fn mebibytes(kibibytes: u32) -> f64 {
    f64::from(kibibytes) / 1024.0
}

fn print<T: Display>(gpu: u32, name: &str, value: Result<T, NvmlError>) {
    if let Ok(value) = value {
        println!("{gpu} {name} {value}");
    }
}

/// A process can be in both lists.
fn print_processes(gpu: u32, device: &Device) {
    let mut processes = BTreeMap::new();
    let lists = [device.running_compute_processes(), device.running_graphics_processes()];
    for process in lists.into_iter().flatten().flatten() {
        if let UsedGpuMemory::Used(bytes) = process.used_gpu_memory {
            processes.insert(process.pid, bytes);
        }
    }
    for (pid, bytes) in processes {
        println!("{gpu} process {pid} {bytes}");
    }
}

fn print_readings(gpu: u32, device: &Device) {
    print(gpu, "gpu_utilization_percent", device.utilization_rates().map(|rates| rates.gpu));
    print(gpu, "memory_utilization_percent", device.utilization_rates().map(|rates| rates.memory));
    print(gpu, "encoder_utilization_percent", device.encoder_utilization().map(|coder| coder.utilization));
    print(gpu, "decoder_utilization_percent", device.decoder_utilization().map(|coder| coder.utilization));
    print(gpu, "vram_used_bytes", device.memory_info().map(|memory| memory.used));
    print(gpu, "bar1_used_bytes", device.bar1_memory_info().map(|memory| memory.used));
    print(gpu, "power_watts", device.power_usage().map(watts));
    print(gpu, "temperature_c", device.temperature(TemperatureSensor::Gpu));
    print(gpu, "fan_percent", device.fan_speed(0));
    print(gpu, "graphics_clock_mhz", device.clock(Clock::Graphics, ClockId::Current));
    print(gpu, "sm_clock_mhz", device.clock_info(Clock::SM));
    print(gpu, "memory_clock_mhz", device.clock_info(Clock::Memory));
    print(gpu, "video_clock_mhz", device.clock_info(Clock::Video));
    print(gpu, "performance_state", device.performance_state().map(|state| state.as_c()));
    print(gpu, "pcie_generation", device.current_pcie_link_gen());
    print(gpu, "pcie_width", device.current_pcie_link_width());
    print(gpu, "pcie_receive_mib_per_second", device.pcie_throughput(PcieUtilCounter::Receive).map(mebibytes));
    print(gpu, "pcie_transmit_mib_per_second", device.pcie_throughput(PcieUtilCounter::Send).map(mebibytes));
    print(gpu, "performance_limit_reasons", device.current_throttle_reasons().map(|reasons| reasons.bits()));
}

fn print_identity(gpu: u32, device: &Device) {
    print(gpu, "index", device.index());
    print(gpu, "name", device.name());
    print(gpu, "uuid", device.uuid());
    print(gpu, "pci_bus_id", device.pci_info().map(|pci| pci.bus_id));
    print(gpu, "vbios_version", device.vbios_version());
    print(gpu, "vram_total_bytes", device.memory_info().map(|memory| memory.total));
    print(gpu, "bar1_total_bytes", device.bar1_memory_info().map(|memory| memory.total));
    print(gpu, "power_limit_watts", device.enforced_power_limit().map(watts));
    print(gpu, "default_power_limit_watts", device.power_management_limit_default().map(watts));
    let range = || device.power_management_limit_constraints();
    print(gpu, "minimum_power_limit_watts", range().map(|range| watts(range.min_limit)));
    print(gpu, "maximum_power_limit_watts", range().map(|range| watts(range.max_limit)));
}

fn main() -> Result<(), NvmlError> {
    let nvml = Nvml::init()?;
    for gpu in 0..nvml.device_count()? {
        // Found by its place, then anew by what it says of itself, as clients do that are given an id.
        let device = nvml.device_by_index(gpu)?;
        let device = nvml.device_by_uuid(device.uuid()?)?;
        print(gpu, "driver_version", nvml.sys_driver_version());
        print_identity(gpu, &device);
        print_readings(gpu, &device);
        print_processes(gpu, &device);
    }
    Ok(())
}
