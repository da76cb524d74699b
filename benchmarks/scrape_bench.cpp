// What scrapes of gpu_exporter cost, and whether many at once succeed: a real exporter on simulated GPUs whose calls
// take as long as on hardware, and clients that ask for compressed pages, as Prometheus does.

#include <time.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "exporter_process.h"
#include "quantile.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr const char* kCompressed = "Accept-Encoding: gzip\r\n";
constexpr Seconds kScrapeInterval(5.0);
/// Pages asked for one after the other.
constexpr int kPagesAlone = 100;

struct Options {
    int Boards = 64;
    int Scrapers = 50;
    double LoadSeconds = 10.0;
    double QuietSeconds = 60.0;
};

/// What scrapes have taken, in milliseconds.
struct Scrapes {
    std::vector<double> Durations;
    int Failed = 0;

    void Add(const Scrapes& other) {
        Durations.insert(Durations.end(), other.Durations.begin(), other.Durations.end());
        Failed += other.Failed;
    }
};

size_t CountLines(const std::string& text, const std::string& begin) {
    std::istringstream lines(text);
    size_t count = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(begin, 0) == 0) ++count;
    }
    return count;
}

void Print(const char* what, double value, const char* unit) {
    std::printf("%-52s %10.2f %s\n", what, value, unit);
}

class Measurement {
public:
    explicit Measurement(const Options& options)
        : Chosen(options), Exporter("--simulate=" + std::to_string(options.Boards), "NVML_SIM_DELAYS=realistic") {
        if (Exporter.Port == 0) throw std::runtime_error(Exporter.Log);
        // The duration of a cycle is known after the second one.
        while (CountLines(Exporter.Get("/metrics").Body, "gpu_exporter_cycle_duration_seconds ") == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    void PrintPage() const {
        const std::string page = Exporter.Get("/metrics").Body;
        const size_t all = CountLines(page, "") - CountLines(page, "#");
        const size_t ofGpus = CountLines(page, "gpu_") - CountLines(page, "gpu_exporter_");
        Print("series of a GPU", static_cast<double>(ofGpus) / Chosen.Boards, "");
        Print("series of the exporter itself", static_cast<double>(all - ofGpus), "");
        PrintBytes("page", page.size());
        PrintBytes("page, gzip", Exporter.Get("/metrics", kCompressed).Body.size());
    }

    /// One scrape after the other; `cpuPerSecond` is what the exporter takes without them.
    void PrintAlone(const char* what, const std::string& fields, double cpuPerSecond) {
        Scrapes scrapes;
        const double cpuBefore = CpuSeconds();
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < kPagesAlone; ++i) Scrape(fields, &scrapes);
        const double quiet = cpuPerSecond * Seconds(Clock::now() - start).count();
        Failed += scrapes.Failed;
        Print(what, Quantile(&scrapes.Durations, 0.5), "ms, median");
        Print("    CPU time of the exporter", 1e3 * (CpuSeconds() - cpuBefore - quiet) / kPagesAlone, "ms");
    }

    /// CPU time per second while scrapes come at this interval; 0: none come.
    double CpuPerSecond(Seconds interval) {
        Scrapes scrapes;
        const double cpuBefore = CpuSeconds();
        const Clock::time_point start = Clock::now();
        const auto end = start + Seconds(Chosen.QuietSeconds);
        if (interval.count() == 0.0) std::this_thread::sleep_until(end);
        for (auto next = start + interval; next <= end && interval.count() > 0.0; next += interval) {
            std::this_thread::sleep_until(next);
            Scrape(kCompressed, &scrapes);
        }
        Failed += scrapes.Failed;
        return (CpuSeconds() - cpuBefore) / Seconds(Clock::now() - start).count();
    }

    void PrintLoad() {
        std::vector<Scrapes> ofScrapers(static_cast<size_t>(Chosen.Scrapers));
        std::vector<std::thread> scrapers;
        scrapers.reserve(ofScrapers.size());
        const auto end = Clock::now() + Seconds(Chosen.LoadSeconds);
        for (Scrapes& scrapes : ofScrapers) {
            scrapers.emplace_back([this, &scrapes, end] {
                while (Clock::now() < end) Scrape(kCompressed, &scrapes);
            });
        }
        for (std::thread& scraper : scrapers) scraper.join();
        Scrapes all;
        for (const Scrapes& scrapes : ofScrapers) all.Add(scrapes);
        Failed += all.Failed;
        std::printf("%d scrapers at once for %.0f s:\n", Chosen.Scrapers, Chosen.LoadSeconds);
        Print("    scrapes", static_cast<double>(all.Durations.size()), "");
        Print("    failed", all.Failed, "");
        Print("    median", Quantile(&all.Durations, 0.5), "ms");
        Print("    99th percentile", Quantile(&all.Durations, 0.99), "ms");
        Print("    slowest", Quantile(&all.Durations, 1.0), "ms");
    }

    void Run() {
        PrintPage();
        const double quiet = CpuPerSecond(Seconds(0.0));
        PrintAlone("a scrape alone", {}, quiet);
        PrintAlone("a scrape alone, gzip", kCompressed, quiet);
        Print("CPU time per minute without a scrape", 1e3 * 60.0 * quiet, "ms");
        Print("CPU time per minute with a scrape every 5 s", 1e3 * 60.0 * CpuPerSecond(kScrapeInterval), "ms");
        PrintLoad();
    }

    int FailedScrapes() const { return Failed; }

private:
    void PrintBytes(const char* what, size_t bytes) const {
        Print(what, static_cast<double>(bytes), "bytes");
        Print("    for each GPU", static_cast<double>(bytes) / Chosen.Boards, "bytes");
    }

    void Scrape(const std::string& fields, Scrapes* scrapes) const {
        const Clock::time_point start = Clock::now();
        const HttpAnswer answer = Exporter.Get("/metrics", fields);
        scrapes->Durations.push_back(1e3 * Seconds(Clock::now() - start).count());
        if (answer.Status != 200) ++scrapes->Failed;
    }

    /// What the exporter has taken so far.
    double CpuSeconds() const {
        clockid_t clock{};
        timespec time{};
        if (clock_getcpuclockid(Exporter.Id, &clock) != 0 || clock_gettime(clock, &time) != 0) {
            throw std::runtime_error("The CPU time of the exporter cannot be read.");
        }
        return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
    }

    const Options Chosen;
    ExporterProcess Exporter;
    int Failed = 0;
};

/// Result: whether every scrape succeeded. Throws what the parser throws.
bool Run(int argc, char** argv) {
    CLI::App app("Measures what scrapes of gpu_exporter cost.", "scrape_bench");
    Options options;
    app.add_option("--boards", options.Boards, "Simulated GPUs")->capture_default_str();
    app.add_option("--scrapers", options.Scrapers, "Clients at once")->capture_default_str();
    app.add_option("--load", options.LoadSeconds, "Seconds for which they scrape")->capture_default_str();
    app.add_option("--quiet", options.QuietSeconds,
                   "Seconds for which the exporter is watched with few scrapes or none")
        ->capture_default_str();
    app.parse(argc, argv);
    Measurement measurement(options);
    measurement.Run();
    return measurement.FailedScrapes() == 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv) ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
