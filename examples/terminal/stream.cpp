#include "stream.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "clock.h"
#include "driver.h"
#include "json_format.h"
#include "nvml_gpu_monitor.h"
#include "output.h"
#include "rhythm.h"
#include "signals.h"
#include "text_format.h"
#include "watch.h"

namespace {

constexpr size_t kTerminalLinesPerHeading = 20;

/// Waits until `moment` of the steady clock, in seconds. False: before that came a stop signal or the end of whoever
/// reads standard output.
bool WaitUntil(double moment, int stopDescriptor) {
    pollfd descriptors[] = {{stopDescriptor, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    for (;;) {
        // Rounded up: waking a moment early would cost another round.
        const double milliseconds = std::max(moment - NowSeconds(), 0.0) * 1000.0 + 1.0;
        const int ready = poll(descriptors, 2, static_cast<int>(milliseconds));
        if (ready > 0) return false;
        if (ready == 0 && NowSeconds() >= moment) return true;
    }
}

/// One sample that is to be printed. Points into a snapshot.
struct Row {
    const GpuTelemetryHistory* Gpu;
    const GpuTelemetrySample* Sample;
};
using Rows = std::vector<Row>;

/// Prints the sampler's samples as they come, each exactly once.
class Stream {
public:
    Stream(const StreamOptions& options, const NvmlGpuMonitor& monitor, int stopDescriptor, double startedAt)
        : Options(options),
          Monitor(monitor),
          StopDescriptor(stopDescriptor),
          StartedAt(startedAt),
          SamplerRhythm(options.Interval),
          GpuWatch(options.Gpu, startedAt) {}

    /// Returns at a stop signal, the end of the reader or the wanted count. Throws `Failure`.
    void Run() {
        if (!Options.bJson && !Print(StreamHeading())) return;
        double nextLook = SamplerRhythm.AfterStart(NowSeconds());
        while (WaitUntil(nextLook, StopDescriptor)) {
            const std::vector<GpuTelemetryHistory> gpus = Monitor.Snapshot();
            const double now = NowSeconds();
            if (!PrintCycles(gpus, NewRows(gpus))) return;
            GpuWatch.OnLook(now, SamplerRhythm.Period());
            nextLook = NextLook(gpus, now);
        }
    }

private:
    bool IsWanted(const GpuTelemetryHistory& gpu) const {
        return Options.Gpu.value_or(gpu.Device.Index) == gpu.Device.Index;
    }

    /// The samples that have not been printed, in the order in which they were taken.
    Rows NewRows(const std::vector<GpuTelemetryHistory>& gpus) {
        Rows rows;
        for (const GpuTelemetryHistory& gpu : gpus) {
            if (IsWanted(gpu)) AddNewRows(gpu, &rows);
        }
        std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
            return a.Sample->TimestampSeconds < b.Sample->TimestampSeconds;
        });
        return rows;
    }

    void AddNewRows(const GpuTelemetryHistory& gpu, Rows* rows) {
        double& printedUntil = PrintedUntil[gpu.Device.Index];
        const auto isPrinted = [printedUntil](const GpuTelemetrySample& sample) {
            return sample.TimestampSeconds != 0.0 && sample.TimestampSeconds <= printedUntil;
        };
        const auto firstNew = std::find_if(gpu.Samples.rbegin(), gpu.Samples.rend(), isPrinted).base();
        for (auto sample = firstNew; sample != gpu.Samples.end(); ++sample) {
            // Without a timestamp the GPU could not even be asked.
            if (sample->TimestampSeconds == 0.0) continue;
            rows->push_back({&gpu, &*sample});
            printedUntil = sample->TimestampSeconds;
        }
    }

    /// Prints `rows` cycle by cycle. False: the stream ends here.
    bool PrintCycles(const std::vector<GpuTelemetryHistory>& gpus, const Rows& rows) {
        for (auto first = rows.begin(); first != rows.end();) {
            // A cycle reads the GPUs by ascending index, so the next one begins where the index does not ascend.
            const auto descends = [](const Row& a, const Row& b) { return b.Gpu->Device.Index <= a.Gpu->Device.Index; };
            const auto lastOfCycle = std::adjacent_find(first, rows.end(), descends);
            const auto end = lastOfCycle == rows.end() ? lastOfCycle : lastOfCycle + 1;
            const Rows cycle(first, end);
            if (!PrintCycle(cycle)) return false;
            WatchCycle(gpus, cycle);
            if (++CyclesPrinted == Options.Count) return false;
            first = end;
        }
        return true;
    }

    bool PrintCycle(const Rows& cycle) {
        if (bTerminal && !Options.bJson && LinesSinceHeading >= kTerminalLinesPerHeading) {
            if (!Print(StreamHeading())) return false;
            LinesSinceHeading = 0;
        }
        LinesSinceHeading += cycle.size();
        return std::all_of(cycle.begin(), cycle.end(), [this](const Row& row) { return Print(LineOf(row)); });
    }

    std::string LineOf(const Row& row) const {
        const GpuTelemetryHistory& gpu = *row.Gpu;
        if (!Options.bJson) return StreamText(gpu.Device, *row.Sample, row.Sample->TimestampSeconds - StartedAt);
        // The monitor keeps the processes of the latest cycle only.
        const bool bLatest = row.Sample == &gpu.Samples.back();
        return StreamJson(gpu.Device, *row.Sample, bLatest ? &gpu.ProcessMemory : nullptr);
    }

    bool Print(const std::string& text) const { return WriteOutput(text, StopDescriptor) == WriteResult::Written; }

    void WatchCycle(const std::vector<GpuTelemetryHistory>& gpus, const Rows& cycle) {
        for (const GpuTelemetryHistory& gpu : gpus) {
            if (!IsWanted(gpu)) continue;
            const auto isOfGpu = [&gpu](const Row& row) { return row.Gpu == &gpu; };
            const auto row = std::find_if(cycle.begin(), cycle.end(), isOfGpu);
            GpuWatch.OnCycle(gpu.Device.Index, row == cycle.end() ? nullptr : row->Sample);
        }
    }

    /// When to look again after `gpus` were seen at `now`. Goes by all GPUs: also one that is not wanted shows the
    /// sampler's rhythm.
    double NextLook(const std::vector<GpuTelemetryHistory>& gpus, double now) {
        const GpuTelemetryHistory* newest = nullptr;
        for (const GpuTelemetryHistory& gpu : gpus) {
            if (gpu.Samples.empty() || gpu.Samples.back().TimestampSeconds <= NewestSeen) continue;
            newest = &gpu;
            NewestSeen = gpu.Samples.back().TimestampSeconds;
        }
        return newest == nullptr ? SamplerRhythm.AfterNothing(now) : SamplerRhythm.AfterNewSample(*newest, now);
    }

    const StreamOptions& Options;
    const NvmlGpuMonitor& Monitor;
    const int StopDescriptor;
    const double StartedAt;
    const bool bTerminal = isatty(STDOUT_FILENO) == 1;
    Rhythm SamplerRhythm;
    Watch GpuWatch;
    std::map<unsigned int, double> PrintedUntil;
    double NewestSeen = 0.0;
    int CyclesPrinted = 0;
    size_t LinesSinceHeading = 0;
};

}  // namespace

void RunStream(const StreamOptions& options) {
    // Before NVML starts, which can take seconds, so that a signal ends that cleanly too.
    const int stopDescriptor = CatchStopSignals();
    const double startedAt = NowSeconds();
    NvmlGpuMonitor monitor;
    monitor.SetSampleInterval(options.Interval);
    monitor.Start();
    RequireDriver(monitor);
    if (options.Gpu) RequireGpu(monitor.Snapshot(), *options.Gpu);
    Stream(options, monitor, stopDescriptor, startedAt).Run();
}
