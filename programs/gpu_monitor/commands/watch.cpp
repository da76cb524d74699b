#include "commands/watch.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <future>
#include <iostream>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "commands/polled_feed.h"
#include "gpu_feed/clock.h"
#include "terminal/failure.h"
#include "terminal/output.h"
#include "terminal/screen.h"
#include "terminal/signals.h"
#include "text/change_text.h"
#include "text/text_layout.h"
#include "view/dialog.h"
#include "view/live_view.h"
#include "view/tuning_panel.h"

using namespace gpu_feed;

namespace {

using std::chrono::milliseconds;

/// A driver that starts, or fails to, within this time does so before the screen is opened.
constexpr int kQuickStartMs = 300;
/// Ages and countdowns go on between two readings.
constexpr int kRedrawMs = 1500;
constexpr int kQuickRedrawMs = 100;
constexpr double kNoticeSeconds = 3.0;
/// How long changes may take to go back when the program ends, at least; a cycle of the sampler can come first.
constexpr double kTakeBackSeconds = 2.0;
constexpr double kTakeBackPeriods = 2.0;
constexpr double kUnknownPeriodSeconds = 6.0;
/// NVML may take as long to start.
constexpr double kLongestStartSeconds = 20.0;

constexpr std::array<double, 7> kSpans = {60.0, 120.0, 300.0, 600.0, 1800.0, 3600.0, 0.0};
constexpr std::array<milliseconds, 7> kIntervals = {milliseconds(100),  milliseconds(200),  milliseconds(500),
                                                    milliseconds(1000), milliseconds(2000), milliseconds(5000),
                                                    milliseconds(10000)};

/// The live view: what the user sees and does.
class Watch {
public:
    Watch(const WatchOptions& options, int stopDescriptor)
        : Options(options), StopDescriptor(stopDescriptor), Interval(options.Interval), Feed(options.Interval) {}

    int Run() {
        if (!Feed.WaitForNews(kQuickStartMs, StopDescriptor)) return kExitSuccess;
        PolledFeed::RequireUsable(*Feed->Latest(), Options.Gpu);
        return IsTakeBackWanted() ? TakeAllBack() : TellKept();
    }

private:
    /// Shows the view until it ends.
    bool IsTakeBackWanted() {
        try {
            return ShowOnScreen();
        } catch (...) {
            TakeAllBack();
            throw;
        }
    }

    /// Until the user leaves or a stop signal comes. Result: whether changes are to be taken back.
    bool ShowOnScreen() {
        Screen screen;
        do {
            Feed.TakeNews();
            const FeedMoment moment = Feed->Moment();
            const std::shared_ptr<const FeedData> data = moment.Data;
            PolledFeed::RequireUsable(*data, Options.Gpu);
            if (Choice.Gpu.empty()) SelectFirst(*data);
            if (Panel) Panel->OnTime();
            // Nothing can be taken back while the program is stopped.
            screen.AllowSuspending(!Panel && Outstanding(*data).empty());
            Draw(moment, &screen);
            if (!Wait(*data)) return true;
            for (int key = screen.ReadKey(); key != NoKey && !bLeft; key = screen.ReadKey()) OnKey(key);
        } while (!bLeft);
        return bTakeBackWanted;
    }

    /// Waits for a key or news, but not for long. False: a stop signal came, or the terminal has gone.
    bool Wait(const FeedData& data) const {
        const bool bImpatient = Panel != nullptr || data.State == FeedState::Starting;
        pollfd descriptors[] = {{StopDescriptor, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}, {Feed.Descriptor(), POLLIN, 0}};
        if (poll(descriptors, 3, bImpatient ? kQuickRedrawMs : kRedrawMs) <= 0) return true;
        const bool bTerminalGone = (descriptors[1].revents & (POLLHUP | POLLERR)) != 0;
        return descriptors[0].revents == 0 && !bTerminalGone;
    }

    void SelectFirst(const FeedData& data) {
        for (const auto& gpu : data.Gpus) {
            if (Choice.Gpu.empty() || gpu->Device.Index == Options.Gpu) Choice.Gpu = gpu->Key;
        }
    }

    void Draw(const FeedMoment& moment, Screen* screen) {
        if (moment.Now >= NoticeUntil) Choice.Notice.clear();
        Canvas canvas = screen->Blank();
        DrawView(&canvas, moment, Choice);
        if (Panel) Panel->Draw(&canvas);
        if (bHelp) DrawHelp(&canvas);
        if (bLeaving) DrawLeaving(*moment.Data, &canvas);
        screen->Show(canvas);
    }

    // ---- Keys ----

    void OnKey(int key) {
        if (key == ResizeKey) return;
        if (bHelp) {
            bHelp = false;
        } else if (bLeaving) {
            OnLeavingKey(key);
        } else if (Panel) {
            Panel->OnKey(key);
            if (Panel->IsClosed()) Panel.reset();
        } else {
            OnViewKey(key);
        }
    }

    void OnViewKey(int key) {
        if (key >= '1' && key < '1' + static_cast<int>(kPlotCount)) Choice.Plots.flip(static_cast<size_t>(key - '1'));
        switch (key) {
            case 'q': Leave(); break;
            case '?':
            case 'h': bHelp = true; break;
            case '\t':
            case RightKey: SelectGpu(1); break;
            case BackTabKey:
            case LeftKey: SelectGpu(-1); break;
            case '-': Zoom(1); break;
            case '+':
            case '=': Zoom(-1); break;
            case ' ': PauseOrResume(); break;
            case 'i': LongerInterval(); break;
            case 'I': ShorterInterval(); break;
            case 's': SortDifferently(); break;
            case 't': OpenPanel(); break;
            default: break;
        }
    }

    void Tell(const std::string& notice) {
        Choice.Notice = notice;
        NoticeUntil = NowSeconds() + kNoticeSeconds;
    }

    void SelectGpu(int step) {
        const std::shared_ptr<const FeedData> data = Feed->Latest();
        const auto count = static_cast<std::ptrdiff_t>(data->Gpus.size());
        if (count == 0) return;
        const auto isSelected = [this](const auto& gpu) { return gpu->Key == Choice.Gpu; };
        const auto place = std::find_if(data->Gpus.begin(), data->Gpus.end(), isSelected) - data->Gpus.begin();
        Choice.Gpu = data->Gpus[static_cast<size_t>((place + step + count) % count)]->Key;
    }

    void Zoom(int step) {
        const std::ptrdiff_t place = std::find(kSpans.begin(), kSpans.end(), Choice.Seconds) - kSpans.begin() + step;
        const auto last = static_cast<std::ptrdiff_t>(kSpans.size()) - 1;
        Choice.Seconds = kSpans[static_cast<size_t>(std::clamp<std::ptrdiff_t>(place, 0, last))];
        Tell("Plots: " + SpanText(Choice.Seconds));
    }

    void PauseOrResume() {
        bPaused = !bPaused;
        if (bPaused) {
            Feed->Pause();
            Tell("Pause; space resumes");
        } else {
            Feed->Resume();
            Tell("Sampling goes on");
        }
    }

    void LongerInterval() {
        const auto* const longer = std::upper_bound(kIntervals.begin(), kIntervals.end(), Interval);
        SetInterval(longer == kIntervals.end() ? kIntervals.back() : *longer);
    }

    void ShorterInterval() {
        const auto* const notShorter = std::lower_bound(kIntervals.begin(), kIntervals.end(), Interval);
        SetInterval(notShorter == kIntervals.begin() ? kIntervals.front() : *std::prev(notShorter));
    }

    void SetInterval(milliseconds interval) {
        Interval = interval;
        Feed->SetInterval(interval);
        Tell("Interval: " + IntervalText(interval));
    }

    void SortDifferently() {
        constexpr std::array<std::pair<ProcessOrder, const char*>, 4> kOrders = {{{ProcessOrder::Memory, "memory"},
                                                                                  {ProcessOrder::Pid, "PID"},
                                                                                  {ProcessOrder::User, "user"},
                                                                                  {ProcessOrder::Name, "name"}}};
        const size_t next = (static_cast<size_t>(Choice.Order) + 1) % kOrders.size();
        Choice.Order = kOrders[next].first;
        Tell(std::string("Processes by ") + kOrders[next].second);
    }

    void OpenPanel() {
        const std::shared_ptr<const FeedGpu> gpu = Feed->Latest()->Find(Choice.Gpu);
        if (gpu != nullptr) Panel = std::make_unique<TuningPanel>(Feed.Get(), gpu, Options.SimulateOption);
    }

    // ---- Leaving ----

    /// What would outlast the program.
    static std::vector<TuningRecord> Outstanding(const FeedData& data) {
        std::vector<TuningRecord> records = data.Tuning;
        const auto isDone = [](const TuningRecord& record) { return !record.IsOutstanding(); };
        records.erase(std::remove_if(records.begin(), records.end(), isDone), records.end());
        return records;
    }

    void Leave() {
        bLeaving = !Outstanding(*Feed->Latest()).empty();
        bLeft = !bLeaving;
    }

    void OnLeavingKey(int key) {
        bTakeBackWanted = key == 'r';
        bLeft = key == 'r' || key == 'k';
        if (key == EscapeKey) bLeaving = false;
    }

    static void DrawLeaving(const FeedData& data, Canvas* canvas) {
        DialogLines lines = {{"These changes outlast the program:"}};
        for (const TuningRecord& record : Outstanding(data)) {
            lines.push_back({GpuInSentence(record.Device) + ": " + OutcomeText(record.InForce), Style::Strong});
        }
        DrawDialog(canvas, {"Leave", lines, "r take them back   k keep them   Esc stay"});
    }

    /// Takes back what is changed, unless that takes too long, and tells about each. Result: the exit status.
    int TakeAllBack() {
        // The panel may have asked for a change that is not told yet.
        if (Outstanding(*Feed->Latest()).empty() && !Panel) return kExitSuccess;
        // A second signal must not end this without a word.
        ExpectFurtherStop();
        std::future<TuningResult> answer = RequestTakeAllBack();
        const bool bAnswered = WaitForAnswer(answer);
        const std::vector<TuningRecord> left = Outstanding(*Feed->Latest());
        if (!bAnswered) Feed.LeaveDriverBehind();
        for (const TuningRecord& record : left) TellNotTakenBack(record, bAnswered);
        return left.empty() ? kExitSuccess : kExitFailure;
    }

    std::future<TuningResult> RequestTakeAllBack() {
        const std::vector<TuningRecord> records = Outstanding(*Feed->Latest());
        // Otherwise a cycle could come first.
        Feed->Pause();
        std::future<TuningResult> answer = Feed->TakeAllBack();
        for (const TuningRecord& record : records) {
            std::cerr << GpuInSentence(record.Device) << ": going back to: " << OutcomeText(record.Before) << " ...\n";
        }
        return answer;
    }

    /// How long taking back may last.
    double Patience() {
        const FeedMoment moment = Feed->Moment();
        if (IsDriverHanging(moment)) return kTakeBackSeconds;
        double patience = kTakeBackSeconds;
        for (const auto& gpu : moment.Data->Gpus) {
            const bool bPeriodKnown = gpu->PeriodSeconds > 0.0;
            patience = std::max(patience, bPeriodKnown ? kTakeBackPeriods * gpu->PeriodSeconds : kUnknownPeriodSeconds);
        }
        return patience;
    }

    bool WaitForAnswer(const std::future<TuningResult>& answer) {
        const double deadline = NowSeconds() + Patience();
        while (!HasFurtherStopCome() && NowSeconds() < deadline) {
            if (answer.wait_for(milliseconds(kQuickRedrawMs)) == std::future_status::ready) return true;
        }
        return answer.wait_for(milliseconds(0)) == std::future_status::ready;
    }

    void TellNotTakenBack(const TuningRecord& record, bool bAnswered) const {
        std::cerr << GpuInSentence(record.Device)
                  << ": did not go back: " << (bAnswered ? record.Problem : "The driver has not answered.")
                  << "\nTo try again: " << CommandOf(record.Before, record.Device.Index, Options.SimulateOption)
                  << '\n';
    }

    /// Tells how what is kept can be undone.
    int TellKept() {
        const std::shared_ptr<const FeedData> data = Feed->Latest();
        for (const TuningRecord& record : Outstanding(*data)) {
            std::cerr << GpuInSentence(record.Device) << ": kept: " << OutcomeText(record.InForce)
                      << "\nTo undo it: " << CommandOf(record.Before, record.Device.Index, Options.SimulateOption)
                      << '\n';
        }
        return kExitSuccess;
    }

    const WatchOptions Options;
    const int StopDescriptor;
    milliseconds Interval;
    PolledFeed Feed;
    ViewChoice Choice;
    double NoticeUntil = 0.0;
    std::unique_ptr<TuningPanel> Panel;
    /// As the user wants it; the feed follows.
    bool bPaused = false;
    bool bHelp = false;
    /// Whether the user is being asked what becomes of the changes.
    bool bLeaving = false;
    bool bTakeBackWanted = false;
    bool bLeft = false;
};

/// Waits until every wanted GPU has given a reading, or none for too long. Result: those GPUs. Throws `Failure`.
std::vector<GpuOnPage> FirstReadings(PolledFeed* feed, std::optional<unsigned int> only) {
    for (;;) {
        const FeedMoment moment = (*feed)->Moment();
        PolledFeed::RequireUsable(*moment.Data, only);
        std::vector<GpuOnPage> pages;
        bool bComplete = moment.Data->State != FeedState::Starting;
        for (const auto& gpu : moment.Data->Gpus) {
            if (only.value_or(gpu->Device.Index) != gpu->Device.Index) continue;
            bComplete = bComplete && StateOf(moment, *gpu) != GpuState::Starting;
            pages.push_back(OnPage(moment, gpu));
        }
        if (bComplete) return pages;
        if (moment.DriverSilence >= kLongestStartSeconds) throw Failure("The driver does not answer.");
        feed->WaitForNews(kQuickRedrawMs, -1);
        feed->TakeNews();
    }
}

std::string PageText(const GpuOnPage& page, int width) {
    const int summary = SummaryHeight(width);
    const int processes = 1 + static_cast<int>(page.Gpu->Processes.size());
    Canvas canvas(width, summary + processes, LocaleIsUnicode());
    DrawSummary(&canvas, {0, 0, width, summary}, page);
    DrawProcesses(&canvas, {0, summary, width, processes}, page, ProcessOrder::Memory);
    return canvas.Text();
}

}  // namespace

int RunWatch(const WatchOptions& options) {
    Screen::RequireTerminal();
    return Watch(options, CatchStopSignals()).Run();
}

int PrintView(const WatchOptions& options) {
    PolledFeed feed(options.Interval);
    int status = kExitSuccess;
    std::string text;
    const int width = std::max(static_cast<int>(OutputWidth()), kMinimumViewWidth);
    for (const GpuOnPage& page : FirstReadings(&feed, options.Gpu)) {
        text += (text.empty() ? "" : "\n") + PageText(page, width);
        if (!page.bSilent) continue;
        std::cerr << GpuInSentence(page.Gpu->Device) << " gave no reading.\n";
        status = kExitFailure;
    }
    WriteOutput(text);
    return status;
}
