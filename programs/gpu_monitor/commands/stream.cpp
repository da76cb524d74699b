#include "commands/stream.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commands/polled_feed.h"
#include "gpu_feed/clock.h"
#include "terminal/failure.h"
#include "terminal/output.h"
#include "terminal/signals.h"
#include "text/json_format.h"
#include "text/stream_format.h"
#include "text/text_layout.h"

using namespace gpu_feed;

namespace {

constexpr size_t kTerminalLinesPerHeading = 20;
/// How often to look whether GPUs are silent while no reading comes.
constexpr int kLongestWaitMs = 1000;
/// Without a reading of any GPU for so long the stream ends.
constexpr double kLongestSilenceSeconds = 5.0;
/// So often a driver has to be found hanging: it seems to once after the process was suspended.
constexpr int kHangsOfHangingDriver = 3;

std::string SecondsText(double seconds) {
    return Number(seconds, seconds < 2.0 ? 1 : 0) + " s";
}

/// One sample that is to be printed. Points into published data.
struct Row {
    const FeedGpu* Gpu;
    const GpuTelemetrySample* Sample;
};
using Rows = std::vector<Row>;

/// Prints the sampler's samples as they come, each exactly once.
class Stream {
public:
    Stream(const StreamOptions& options, int stopDescriptor)
        : Options(options), StopDescriptor(stopDescriptor), StartedAt(NowSeconds()), Feed(options.Interval) {}

    /// Returns at a stop signal, the end of the reader or the wanted count. Throws `Failure`.
    void Run() {
        while (Feed->Latest()->State == FeedState::Starting) {
            if (!Feed.WaitForNews(-1, StopDescriptor)) return;
            Feed.TakeNews();
        }
        PolledFeed::RequireUsable(*Feed->Latest(), Options.Gpu);
        if (!Options.bJson && !Print(StreamHeading())) return;
        do {
            Feed.TakeNews();
            const FeedMoment moment = Feed->Moment();
            if (!PrintCycles(NewRows(*moment.Data))) return;
            NoticeSilence(moment);
        } while (WaitForNews());
    }

private:
    /// Waits for readings, but not for long. False: before that came a stop signal or the end of whoever reads standard
    /// output.
    bool WaitForNews() const {
        pollfd descriptors[] = {{StopDescriptor, POLLIN, 0}, {STDOUT_FILENO, 0, 0}, {Feed.Descriptor(), POLLIN, 0}};
        poll(descriptors, 3, kLongestWaitMs);
        return descriptors[0].revents == 0 && descriptors[1].revents == 0;
    }

    bool IsWanted(const FeedGpu& gpu) const { return Options.Gpu.value_or(gpu.Device.Index) == gpu.Device.Index; }

    /// The samples that have not been printed, in the order in which they were taken.
    Rows NewRows(const FeedData& data) {
        Rows rows;
        for (const auto& gpu : data.Gpus) {
            if (IsWanted(*gpu)) AddNewRows(*gpu, &rows);
        }
        std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
            return a.Sample->TimestampSeconds < b.Sample->TimestampSeconds;
        });
        return rows;
    }

    void AddNewRows(const FeedGpu& gpu, Rows* rows) {
        double& printedUntil = PrintedUntil[gpu.Key];
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
    bool PrintCycles(const Rows& rows) {
        for (auto first = rows.begin(); first != rows.end();) {
            // A cycle reads the GPUs by ascending index, so the next one begins where the index does not ascend.
            const auto descends = [](const Row& a, const Row& b) { return b.Gpu->Device.Index <= a.Gpu->Device.Index; };
            const auto lastOfCycle = std::adjacent_find(first, rows.end(), descends);
            const auto end = lastOfCycle == rows.end() ? lastOfCycle : lastOfCycle + 1;
            if (!PrintCycle(Rows(first, end)) || ++CyclesPrinted == Options.Count) return false;
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
        const FeedGpu& gpu = *row.Gpu;
        if (!Options.bJson) return StreamText(gpu.Device, *row.Sample, row.Sample->TimestampSeconds - StartedAt);
        // The monitor keeps the processes of the latest cycle only.
        const bool bLatest = row.Sample == &gpu.Samples.back();
        return StreamJson(gpu.Device, *row.Sample, bLatest ? &gpu.Processes : nullptr);
    }

    bool Print(const std::string& text) const { return WriteOutput(text, StopDescriptor) == WriteResult::Written; }

    /// Says so once per GPU on standard error when it seems lost. Throws `Failure` when no GPU that is shown gives
    /// readings any more.
    void NoticeSilence(const FeedMoment& moment) {
        const double now = moment.Now;
        HangsSeen = IsDriverHanging(moment) ? HangsSeen + 1 : 0;
        bool bAllSilent = true;
        double lastReading = StartedAt;
        for (const auto& gpu : moment.Data->Gpus) {
            if (!IsWanted(*gpu)) continue;
            const bool bSilent = StateOf(moment, *gpu) == GpuState::NoData;
            TellSilence(*gpu, bSilent, now);
            lastReading = std::max(lastReading, gpu->Latest.TimestampSeconds);
            const bool bLong = gpu->SilentSince != 0.0 && now - gpu->SilentSince >= kLongestSilenceSeconds;
            bAllSilent = bAllSilent && bSilent && (bLong || HangsSeen >= kHangsOfHangingDriver);
        }
        if (!bAllSilent) return;
        const std::string who =
            Options.Gpu ? "GPU " + std::to_string(*Options.Gpu) + " has given no" : "No GPU has given a";
        throw Failure(who + " reading for " + SecondsText(now - lastReading) + '.');
    }

    void TellSilence(const FeedGpu& gpu, bool bSilent, double now) {
        if (!bSilent) {
            Silent.erase(gpu.Key);
        } else if (Silent.insert(gpu.Key).second) {
            const double silence = now - std::max(gpu.Latest.TimestampSeconds, StartedAt);
            std::cerr << GpuName(gpu.Device) << " has given no reading for " << SecondsText(silence)
                      << "; it may be lost.\n";
        }
    }

    const StreamOptions& Options;
    const int StopDescriptor;
    const double StartedAt;
    const bool bTerminal = isatty(STDOUT_FILENO) == 1;
    PolledFeed Feed;
    std::map<std::string, double> PrintedUntil;
    std::set<std::string> Silent;
    int HangsSeen = 0;
    int CyclesPrinted = 0;
    size_t LinesSinceHeading = 0;
};

}  // namespace

void RunStream(const StreamOptions& options) {
    // Before NVML starts, which can take seconds, so that a signal ends that cleanly too.
    const int stopDescriptor = CatchStopSignals();
    Stream(options, stopDescriptor).Run();
}
