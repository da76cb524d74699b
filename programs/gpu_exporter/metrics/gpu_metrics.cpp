#include "metrics/gpu_metrics.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "gpu_feed/limit_reasons.h"
#include "gpu_feed/readings.h"
#include "metrics/families.h"
#include "metrics/gpu_roster.h"

using gpu_feed::FeedMoment;
using gpu_feed::ReadingId;
using prometheus::MetricFamily;

namespace {

using Page = std::vector<MetricFamily>;
using GpuList = std::vector<const RosterGpu*>;

/// Base units per unit of a reading, as a fraction: so the result is the number that is nearest to the exact one.
struct Scale {
    double Numerator = 1.0;
    double Denominator = 1.0;
};

constexpr Scale kPercent{1.0, 100.0};
constexpr Scale kMegahertz{1e6, 1.0};
constexpr Scale kMebibytes{1024.0 * 1024.0, 1.0};

/// How one reading is exported.
struct ReadingFamily {
    ReadingId Id;
    const char* Name;
    const char* Help;
    Scale ToBaseUnit = {};
};

constexpr ReadingFamily kReadingFamilies[] = {
    {ReadingId::Temperature, "gpu_temperature_celsius", "Temperature of the GPU die."},
    {ReadingId::GpuUtilization, "gpu_utilization_ratio", "Share of time in which the GPU was busy.", kPercent},
    {ReadingId::MemoryUtilization, "gpu_memory_utilization_ratio",
     "Share of time in which the memory controller was busy.", kPercent},
    {ReadingId::EncoderUtilization, "gpu_encoder_utilization_ratio", "Load of the video encoder.", kPercent},
    {ReadingId::DecoderUtilization, "gpu_decoder_utilization_ratio", "Load of the video decoder.", kPercent},
    {ReadingId::VramUsed, "gpu_memory_used_bytes", "Video memory in use, with what the driver reserves."},
    {ReadingId::VramTotal, "gpu_memory_size_bytes", "Size of the video memory."},
    {ReadingId::Bar1Used, "gpu_bar1_used_bytes", "BAR1 aperture in use."},
    {ReadingId::Bar1Total, "gpu_bar1_size_bytes", "Size of the BAR1 aperture."},
    {ReadingId::Power, "gpu_power_watts", "Power that the board draws."},
    {ReadingId::PowerLimit, "gpu_power_limit_watts", "Power limit in force."},
    {ReadingId::DefaultPowerLimit, "gpu_power_limit_default_watts", "Default power limit of the board."},
    {ReadingId::MinimumPowerLimit, "gpu_power_limit_minimum_watts", "Lowest power limit that the driver accepts."},
    {ReadingId::MaximumPowerLimit, "gpu_power_limit_maximum_watts", "Highest power limit that the driver accepts."},
    {ReadingId::Fan, "gpu_fan_speed_ratio", "Fan speed as a share of the nominal maximum; some boards exceed 1.",
     kPercent},
    {ReadingId::GraphicsClock, "gpu_graphics_clock_hertz", "Graphics clock.", kMegahertz},
    {ReadingId::SmClock, "gpu_sm_clock_hertz", "Clock of the streaming multiprocessors.", kMegahertz},
    {ReadingId::MemoryClock, "gpu_memory_clock_hertz", "Memory clock.", kMegahertz},
    {ReadingId::VideoClock, "gpu_video_clock_hertz", "Clock of the video engines.", kMegahertz},
    {ReadingId::PerformanceState, "gpu_performance_state", "Performance state: 0 is the fastest, 15 the slowest."},
    {ReadingId::PcieGeneration, "gpu_pcie_generation",
     "Generation of the PCIe link as it runs now; an idle GPU lowers it."},
    {ReadingId::PcieWidth, "gpu_pcie_width_lanes", "Lanes of the PCIe link as it runs now."},
    {ReadingId::PcieReceive, "gpu_pcie_receive_bytes_per_second", "Data that the GPU receives over PCIe.", kMebibytes},
    {ReadingId::PcieTransmit, "gpu_pcie_transmit_bytes_per_second", "Data that the GPU sends over PCIe.", kMebibytes},
};

/// `labels` with one more.
MetricLabels With(MetricLabels labels, const char* name, std::string value) {
    labels.push_back({name, std::move(value)});
    return labels;
}

void AddInfo(const GpuList& gpus, Page* page) {
    MetricFamily family = MakeFamily("gpu_info",
                                     "What describes the GPU; always 1. A label is empty where the driver "
                                     "did not give its text.");
    for (const RosterGpu* gpu : gpus) AddSeries(gpu->InfoLabels, 1.0, &family);
    AddFamily(std::move(family), page);
}

void AddReadings(const GpuList& gpus, Page* page) {
    for (const ReadingFamily& reading : kReadingFamilies) {
        MetricFamily family = MakeFamily(reading.Name, reading.Help);
        family.metric.reserve(gpus.size());
        const auto [numerator, denominator] = reading.ToBaseUnit;
        for (const RosterGpu* gpu : gpus) {
            const std::optional<double> value = ReadingValue(reading.Id, gpu->Gpu->Latest);
            if (value) AddSeries(gpu->Labels, *value * numerator / denominator, &family);
        }
        AddFamily(std::move(family), page);
    }
}

void AddEnergy(const GpuList& gpus, Page* page) {
    MetricFamily family = MakeFamily("gpu_energy_joules_total",
                                     "Energy that the GPU has used since the exporter saw it first, summed up from its "
                                     "power. Time in which the power was not read adds nothing.",
                                     prometheus::MetricType::Counter);
    for (const RosterGpu* gpu : gpus) {
        const gpu_feed::EnergyCount& energy = gpu->Gpu->Energy;
        const bool bPowerRead = energy.Seconds > 0.0 || ReadingValue(ReadingId::Power, gpu->Gpu->Latest).has_value();
        if (bPowerRead) AddSeries(gpu->Labels, energy.Joules, &family);
    }
    AddFamily(std::move(family), page);
}

void AddLimitReasons(const GpuList& gpus, Page* page) {
    MetricFamily family = MakeFamily("gpu_clock_limit_reason",
                                     "1 while this is a reason why the clocks are not higher, otherwise 0. Every "
                                     "reason is 0 when nothing limits the clocks and also when the reasons could not "
                                     "be read, because the driver answers the same in both cases. The reason idle "
                                     "means that the GPU has nothing to do.");
    family.metric.reserve(gpus.size() * gpu_feed::NamedLimitReasons().size());
    for (const auto& [bit, reason] : gpu_feed::NamedLimitReasons()) {
        std::string word = reason.Word;
        std::replace(word.begin(), word.end(), ' ', '_');
        for (const RosterGpu* gpu : gpus) {
            const bool bInForce = (gpu->Gpu->Latest.PerformanceLimitReasons & bit) != 0;
            AddSeries(With(gpu->Labels, "reason", word), bInForce ? 1.0 : 0.0, &family);
        }
    }
    AddFamily(std::move(family), page);
}

void AddProcesses(const GpuList& gpus, Page* page) {
    MetricFamily family = MakeFamily("gpu_process_memory_bytes",
                                     "Video memory that a process uses on the GPU. The label process is empty where "
                                     "this system does not know the process, which may run in another container.");
    for (const RosterGpu* gpu : gpus) {
        for (const gpu_feed::FeedProcess& process : gpu->Gpu->Processes) {
            MetricLabels labels = With(gpu->Labels, "pid", std::to_string(process.Pid));
            AddSeries(With(std::move(labels), "process", LabelText(process.Name)),
                      static_cast<double>(process.VramUsedBytes), &family);
        }
    }
    AddFamily(std::move(family), page);
}

/// Adds whether each GPU is up and how old its latest reading is. Result: the GPUs that are up.
GpuList AddPresence(const FeedMoment& moment, const GpuRoster& roster, Page* page) {
    MetricFamily up = MakeFamily("gpu_up",
                                 "1 while readings of the GPU come in time, 0 when they are overdue, the GPU "
                                 "is missing or the driver is unavailable. It has no series while the "
                                 "first reading is awaited.");
    MetricFamily age = MakeFamily("gpu_reading_age_seconds", "Age of the latest reading of the GPU.");
    GpuList live;
    for (const RosterGpu& gpu : roster.Gpus) {
        const std::optional<bool> bUp = IsUp(moment, gpu);
        if (!bUp) continue;
        AddSeries(gpu.Labels, *bUp ? 1.0 : 0.0, &up);
        if (gpu.LatestReading != 0.0) AddSeries(gpu.Labels, moment.Now - gpu.LatestReading, &age);
        if (*bUp) live.push_back(&gpu);
    }
    AddFamily(std::move(up), page);
    AddFamily(std::move(age), page);
    return live;
}

}  // namespace

GpuMetrics::GpuMetrics(std::function<FeedMoment()> moment, bool bProcesses)
    : Moment(std::move(moment)), bWithProcesses(bProcesses) {}

Page GpuMetrics::Collect() const {
    const FeedMoment moment = Moment();
    const std::shared_ptr<const GpuRoster> roster = RosterOf(moment.Data);
    Page page;
    const GpuList live = AddPresence(moment, *roster, &page);
    AddInfo(live, &page);
    AddReadings(live, &page);
    AddEnergy(live, &page);
    AddLimitReasons(live, &page);
    if (bWithProcesses) AddProcesses(live, &page);
    return page;
}

std::shared_ptr<const GpuRoster> GpuMetrics::RosterOf(const std::shared_ptr<const gpu_feed::FeedData>& data) const {
    const std::lock_guard<std::mutex> lock(Mutex);
    if (Roster == nullptr || Roster->Data.lock() != data) {
        Roster = std::make_shared<const GpuRoster>(NextRoster(Roster.get(), data));
    }
    return Roster;
}
