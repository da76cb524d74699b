#include "metrics/exporter_metrics.h"

#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <utility>

#include "metrics/families.h"

using gpu_feed::FeedMoment;
using gpu_feed::FeedState;
using prometheus::MetricFamily;
using prometheus::MetricType;

namespace {

using Page = std::vector<MetricFamily>;

double TimeOfDaySeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

double Seconds(const timeval& time) {
    constexpr double kMicro = 1e-6;
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * kMicro;
}

void AddStatus(const FeedMoment& moment, Page* page) {
    constexpr std::pair<FeedState, const char*> kStates[] = {
        {FeedState::Starting, "starting"}, {FeedState::Sampling, "sampling"}, {FeedState::Unavailable, "unavailable"}};
    MetricFamily family = MakeFamily("gpu_exporter_state",
                                     "1 for what the exporter does now, 0 for what it does not: starting (the driver "
                                     "is being asked), sampling, or unavailable (it cannot use the driver).");
    for (const auto& [state, word] : kStates) {
        AddSeries({{"state", word}}, moment.Data->State == state ? 1.0 : 0.0, &family);
    }
    AddFamily(std::move(family), page);
    if (moment.Data->Status.empty()) return;
    AddSingle(MakeFamily("gpu_exporter_status_info", "What the exporter says of the driver; always 1."),
              {{"status", LabelText(moment.Data->Status)}}, 1.0, page);
}

void AddCycle(const FeedMoment& moment, Page* page) {
    const double interval = std::chrono::duration<double>(moment.Data->Interval).count();
    if (interval > 0.0) {
        AddSingle(MakeFamily("gpu_exporter_interval_seconds", "Pause between two cycles over the GPUs."), {}, interval,
                  page);
    }
    double period = 0.0;
    for (const auto& gpu : moment.Data->Gpus) {
        if (StateOf(moment, *gpu) == gpu_feed::GpuState::Live) period = std::max(period, gpu->PeriodSeconds);
    }
    if (period > 0.0) {
        AddSingle(MakeFamily("gpu_exporter_cycle_duration_seconds", "How long the latest cycle over all GPUs took."),
                  {}, std::max(0.0, period - interval), page);
    }
    AddSingle(
        MakeFamily("gpu_exporter_driver_silence_seconds",
                   "How long the exporter has been waiting for an answer of the driver; 0 while it does not wait."),
        {}, moment.DriverSilence, page);
}

void AddProcess(double startedAt, Page* page) {
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) == 0) {
        AddSingle(MakeFamily("process_cpu_seconds_total", "Processor time of the exporter.", MetricType::Counter), {},
                  Seconds(usage.ru_utime) + Seconds(usage.ru_stime), page);
    }
    uint64_t pages = 0;
    uint64_t residentPages = 0;
    if (std::ifstream("/proc/self/statm") >> pages >> residentPages) {
        AddSingle(MakeFamily("process_resident_memory_bytes", "Resident memory of the exporter."), {},
                  static_cast<double>(residentPages) * static_cast<double>(sysconf(_SC_PAGESIZE)), page);
    }
    AddSingle(MakeFamily("process_start_time_seconds", "When the exporter started, in seconds since 1970."), {},
              startedAt, page);
}

}  // namespace

ExporterMetrics::ExporterMetrics(std::function<FeedMoment()> moment, std::string version)
    : Moment(std::move(moment)),
      Version(std::move(version)),
      StartedAt(TimeOfDaySeconds()),
      ScrapeDurations({0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1.0, 2.5, 10.0}) {}

Page ExporterMetrics::Collect() const {
    const FeedMoment moment = Moment();
    Page page;
    AddSingle(
        MakeFamily("gpu_exporter_build_info", "Version of the exporter, and whether its GPUs are simulated; always 1."),
        {{"version", Version}, {"simulated", moment.bSimulated ? "true" : "false"}}, 1.0, &page);
    AddStatus(moment, &page);
    AddCycle(moment, &page);
    MetricFamily scrapes = MakeFamily("gpu_exporter_scrape_duration_seconds",
                                      "How long the exporter took to answer a scrape.", MetricType::Histogram);
    scrapes.metric.push_back(ScrapeDurations.Collect());
    AddFamily(std::move(scrapes), &page);
    AddProcess(StartedAt, &page);
    return page;
}
