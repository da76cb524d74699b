#include "commands/stream.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <set>
#include <string>

#include "commands/new_samples.h"
#include "commands/polled_feed.h"
#include "commands/silent_driver.h"
#include "common/failure.h"
#include "common/signals.h"
#include "gpu_feed/clock.h"
#include "gpu_feed/reading_text.h"
#include "terminal/output.h"
#include "text/csv_format.h"
#include "text/json_format.h"
#include "text/stream_format.h"

using namespace gpu_feed;

namespace {

constexpr size_t kTerminalLinesPerHeading = 20;
/// While no reading comes, GPUs are checked for silence this often.
constexpr int kLongestWaitMs = 1000;
/// The stream ends when no GPU has given a reading for this long.
constexpr double kLongestSilenceSeconds = 5.0;
/// A driver counts as hanging after this many checks in a row. One check can be wrong after the process was suspended.
constexpr int kHangsOfHangingDriver = 3;
/// After the driver has been silent for this long, no GPU is reported: it is not known which one the driver waits for.
constexpr double kUnclearSeconds = 1.0;

std::string SecondsText(double seconds) {
    return Number(seconds, seconds < 2.0 ? 1 : 0) + " s";
}

/// Prints the sampler's samples as they come, each exactly once.
class Stream {
public:
    Stream(const StreamOptions& options, int stopDescriptor)
        : Options(options), StopDescriptor(stopDescriptor), StartedAt(NowSeconds()), Feed(options.Interval) {}

    /// Returns at a stop signal, the end of the reader or the wanted count. Throws `Failure`.
    void Run() {
        while (Feed->Latest()->State == FeedState::Starting) {
            if (Feed->Moment().DriverSilence >= kLongestDriverSilenceSeconds) throw DriverIsSilent();
            if (!Feed.WaitForNews(kLongestWaitMs, StopDescriptor)) return;
            Feed.TakeNews();
        }
        // Fails before the heading is printed if there is no such GPU.
        PolledFeed::Wanted(*Feed->Latest(), Options.Gpu);
        if (!Print(Heading())) return;
        do {
            Feed.TakeNews();
            const FeedMoment moment = Feed->Moment();
            const PolledFeed::Gpus wanted = PolledFeed::Wanted(*moment.Data, Options.Gpu);
            if (!PrintCycles(Samples.Take(wanted))) return;
            NoticeSilence(moment, wanted);
        } while (WaitForNews());
    }

private:
    /// Waits for readings, but not for long. False: a stop signal came, or the reader of standard output is gone.
    bool WaitForNews() const {
        pollfd descriptors[] = {{StopDescriptor, POLLIN, 0}, {STDOUT_FILENO, 0, 0}, {Feed.Descriptor(), POLLIN, 0}};
        poll(descriptors, 3, kLongestWaitMs);
        return descriptors[0].revents == 0 && descriptors[1].revents == 0;
    }

    std::string Heading() const {
        switch (Options.Format) {
            case StreamFormat::Text: return StreamHeading();
            case StreamFormat::Csv: return CsvHeading();
            case StreamFormat::Json: break;
        }
        return {};
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
        if (bTerminal && Options.Format == StreamFormat::Text && LinesSinceHeading >= kTerminalLinesPerHeading) {
            if (!Print(StreamHeading())) return false;
            LinesSinceHeading = 0;
        }
        LinesSinceHeading += cycle.size();
        return std::all_of(cycle.begin(), cycle.end(), [this](const Row& row) { return Print(LineOf(row)); });
    }

    std::string LineOf(const Row& row) const {
        const FeedGpu& gpu = *row.Gpu;
        if (Options.Format == StreamFormat::Csv) return CsvLine(gpu.Device, *row.Sample);
        if (Options.Format == StreamFormat::Text) {
            return StreamText(gpu.Device, *row.Sample, row.Sample->TimestampSeconds - StartedAt);
        }
        // The monitor keeps the processes of the latest cycle only.
        const bool bLatest = row.Sample == &gpu.Samples.back();
        return StreamJson(gpu.Device, *row.Sample, bLatest ? &gpu.Processes : nullptr);
    }

    bool Print(const std::string& text) const { return WriteOutput(text, StopDescriptor) == WriteResult::Written; }

    /// Prints on standard error, once per GPU, that it may be lost. Throws `Failure` when no wanted GPU gives readings
    /// any more.
    void NoticeSilence(const FeedMoment& moment, const PolledFeed::Gpus& wanted) {
        const double now = moment.Now;
        HangsSeen = IsDriverHanging(moment) ? HangsSeen + 1 : 0;
        if (HangsSeen >= kHangsOfHangingDriver) {
            throw Failure(DriverSilenceText(moment.DriverSilence));
        }
        if (moment.DriverSilence >= kUnclearSeconds) return;
        bool bAllSilent = true;
        double lastReading = StartedAt;
        for (const auto& gpu : wanted) {
            const bool bSilent = StateOf(moment, *gpu) == GpuState::NoData;
            ReportSilence(*gpu, bSilent, now);
            lastReading = std::max(lastReading, gpu->Latest.TimestampSeconds);
            const bool bLong = gpu->SilentSince != 0.0 && now - gpu->SilentSince >= kLongestSilenceSeconds;
            bAllSilent = bAllSilent && bSilent && bLong;
        }
        if (!bAllSilent) return;
        const std::string who =
            Options.Gpu.empty() ? "No GPU has given a" : GpuName(wanted.front()->Device) + " has given no";
        throw Failure(who + " reading for " + SecondsText(now - lastReading) + '.');
    }

    void ReportSilence(const FeedGpu& gpu, bool bSilent, double now) {
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
    NewSamples Samples;
    std::set<std::string> Silent;
    int HangsSeen = 0;
    int CyclesPrinted = 0;
    size_t LinesSinceHeading = 0;
};

}  // namespace

void RunStream(const StreamOptions& options) {
    // Signals are caught before NVML starts: that can take seconds, and a signal must end it cleanly too.
    const int stopDescriptor = CatchStopSignals();
    Stream(options, stopDescriptor).Run();
}
