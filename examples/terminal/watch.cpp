#include "watch.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <future>
#include <iostream>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "clock.h"
#include "dialog.h"
#include "failure.h"
#include "live_feed.h"
#include "output.h"
#include "screen.h"
#include "signals.h"
#include "text_layout.h"
#include "tuning_panel.h"
#include "watch_view.h"

namespace {

using std::chrono::milliseconds;

/// A driver that starts, or fails to, within this time does so before the screen is opened.
constexpr int kQuickStartMs = 300;
/// Ages and countdowns go on between two readings.
constexpr int kRedrawMs = 1500;
constexpr int kQuickRedrawMs = 100;
constexpr double kNoticeSeconds = 3.0;
constexpr milliseconds kRestorePatience{3000};

constexpr std::array<double, 7> kSpans = {60.0, 120.0, 300.0, 600.0, 1800.0, 3600.0, 0.0};
constexpr std::array<milliseconds, 7> kIntervals = {milliseconds(100),  milliseconds(200),  milliseconds(500),
                                                    milliseconds(1000), milliseconds(2000), milliseconds(5000),
                                                    milliseconds(10000)};

/// The live view: what the user sees and does.
class Watch {
public:
    Watch(const WatchOptions& options, int stopDescriptor)
        : Options(options), StopDescriptor(stopDescriptor), Feed(options.Interval) {}

    int Run() {
        if (!Wait(kQuickStartMs)) return kExitSuccess;
        RequireUsable();
        try {
            return ShowOnScreen() ? Restore() : TellKept();
        } catch (...) {
            Restore();
            throw;
        }
    }

private:
    /// Until the user leaves or a stop signal comes. Result: whether changes are to be taken back.
    bool ShowOnScreen() {
        Screen screen;
        do {
            Feed.TakeNews();
            RequireUsable();
            if (Panel) Panel->OnTime();
            Draw(&screen);
            if (!Wait(IsImpatient() ? kQuickRedrawMs : kRedrawMs)) return true;
            for (int key = screen.ReadKey(); key != NoKey && !bLeft; key = screen.ReadKey()) OnKey(key);
        } while (!bLeft);
        return bRestoreWanted;
    }

    /// Waits for a key or news, but not for long. False: a stop signal came, or the terminal has gone.
    bool Wait(int timeoutMs) const {
        pollfd descriptors[] = {{StopDescriptor, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}, {Feed.Descriptor(), POLLIN, 0}};
        if (poll(descriptors, 3, timeoutMs) <= 0) return true;
        const bool bTerminalGone = (descriptors[1].revents & (POLLHUP | POLLERR)) != 0;
        return descriptors[0].revents == 0 && !bTerminalGone;
    }

    bool IsImpatient() { return (Panel && Panel->IsWaiting()) || Feed->Latest()->State == FeedState::Starting; }

    /// Throws `Failure` when it is known that there is nothing to show.
    void RequireUsable() {
        if (bUsable || Feed->Latest()->State == FeedState::Starting) return;
        Feed.RequireUsable(Options.Gpu);
        bUsable = true;
        for (const auto& gpu : Feed->Latest()->Gpus) {
            if (Choice.Gpu.empty() || gpu->Device.Index == Options.Gpu) Choice.Gpu = gpu->Key;
        }
    }

    void Draw(Screen* screen) {
        if (NowSeconds() >= NoticeUntil) Choice.Notice.clear();
        Canvas canvas = screen->Blank();
        DrawView(&canvas, *Feed->Latest(), Feed.operator->(), Choice);
        if (Panel) Panel->Draw(&canvas);
        if (bHelp) DrawHelp(&canvas);
        if (bLeaving) DrawLeaving(&canvas);
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
            case 'i': ChangeInterval(1); break;
            case 'I': ChangeInterval(-1); break;
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
        const auto data = Feed->Latest();
        const auto count = static_cast<std::ptrdiff_t>(data->Gpus.size());
        if (count == 0) return;
        const auto isSelected = [this](const auto& gpu) { return gpu->Key == Choice.Gpu; };
        const auto place = std::find_if(data->Gpus.begin(), data->Gpus.end(), isSelected) - data->Gpus.begin();
        Choice.Gpu = data->Gpus[static_cast<size_t>((place + step + count) % count)]->Key;
    }

    /// The entry of `list` that stands `step` behind `value`, or the one at the end.
    template <typename List, typename Value>
    static Value Neighbour(const List& list, const Value& value, std::ptrdiff_t step) {
        const auto place = std::find(list.begin(), list.end(), value) - list.begin();
        const auto last = static_cast<std::ptrdiff_t>(list.size()) - 1;
        return list[static_cast<size_t>(std::clamp<std::ptrdiff_t>(place + step, 0, last))];
    }

    void Zoom(int step) {
        Choice.Seconds = Neighbour(kSpans, Choice.Seconds, step);
        Tell("Time axis: " + SpanText(Choice.Seconds));
    }

    void PauseOrResume() {
        if (Feed->Latest()->State == FeedState::Paused) {
            Feed->Resume();
            Tell("Sampling goes on");
        } else {
            Feed->Pause();
            Tell("Sampling is paused; space resumes");
        }
    }

    void ChangeInterval(int step) {
        // An interval from the command line need not be one of these.
        const auto* const present = std::lower_bound(kIntervals.begin(), kIntervals.end(), Options.Interval);
        Options.Interval = Neighbour(kIntervals, present == kIntervals.end() ? kIntervals.back() : *present, step);
        Feed->SetInterval(Options.Interval);
        Tell("Interval: " + IntervalText(Options.Interval));
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
        if (Feed->Latest()->Find(Choice.Gpu) == nullptr) return;
        Panel = std::make_unique<TuningPanel>(Feed.operator->(), &Ledger, Choice.Gpu, Options.SimulateOption);
    }

    // ---- Leaving ----

    void Leave() {
        bLeaving = !Ledger.Entries().empty();
        bLeft = !bLeaving;
    }

    void OnLeavingKey(int key) {
        bRestoreWanted = key == 'r';
        bLeft = key == 'r' || key == 'k';
        if (key == EscapeKey) bLeaving = false;
    }

    void DrawLeaving(Canvas* canvas) const {
        DialogLines lines = {{"These changes outlast the program:"}};
        for (const auto& [place, entry] : Ledger.Entries()) {
            lines.push_back({GpuInSentence(entry.Device) + ": " + ActionText(entry.InForce), Style::Strong});
        }
        lines.push_back({""});
        lines.push_back({"r  take them back and leave", Style::Strong});
        lines.push_back({"k  keep them and leave", Style::Strong});
        lines.push_back({"Esc stays", Style::Dim});
        DrawDialog(canvas, "Leave", lines);
    }

    /// Takes back what is changed, within a time, and tells about each. Result: the exit status.
    int Restore() {
        std::vector<std::pair<ChangeLedger::Entry, std::future<TuningResult>>> answers;
        for (const auto& [place, entry] : Ledger.Entries()) {
            answers.emplace_back(entry, Request(Feed.operator->(), place.first, entry.Before));
        }
        const auto deadline = std::chrono::steady_clock::now() + kRestorePatience;
        int status = kExitSuccess;
        for (auto& [entry, answer] : answers) {
            if (!TellRestored(entry, &answer, deadline)) status = kExitFailure;
        }
        return status;
    }

    bool TellRestored(const ChangeLedger::Entry& entry, std::future<TuningResult>* answer,
                      std::chrono::steady_clock::time_point deadline) const {
        const bool bAnswered = answer->wait_until(deadline) == std::future_status::ready;
        const TuningResult result =
            bAnswered ? answer->get() : TuningResult{GpuClockOperationResult::Error, "The driver does not answer."};
        const std::string who = GpuInSentence(entry.Device);
        if (result.Result == GpuClockOperationResult::Success) {
            std::cerr << who << ": taken back: " << ActionText(entry.Before) << ".\n";
            return true;
        }
        std::cerr << who << ": not taken back: " << result.Error
                  << "\nTo try again: " << CommandOf(entry.Before, entry.Device.Index, Options.SimulateOption) << '\n';
        return false;
    }

    /// Tells how what is kept can be undone.
    int TellKept() const {
        for (const auto& [place, entry] : Ledger.Entries()) {
            std::cerr << GpuInSentence(entry.Device) << ": kept: " << ActionText(entry.InForce)
                      << ". To undo it: " << CommandOf(entry.Before, entry.Device.Index, Options.SimulateOption)
                      << '\n';
        }
        return kExitSuccess;
    }

    WatchOptions Options;
    const int StopDescriptor;
    LiveFeed Feed;
    ViewChoice Choice;
    double NoticeUntil = 0.0;
    ChangeLedger Ledger;
    std::unique_ptr<TuningPanel> Panel;
    bool bUsable = false;
    bool bHelp = false;
    /// Whether the user is being asked what becomes of the changes.
    bool bLeaving = false;
    bool bRestoreWanted = false;
    bool bLeft = false;
};

/// Waits until every wanted GPU has given a reading, or none for too long. Result: those GPUs.
std::vector<GpuOnPage> FirstReadings(LiveFeed* feed, std::shared_ptr<const FeedData>* data,
                                     std::optional<unsigned int> only) {
    for (;;) {
        *data = (*feed)->Latest();
        std::vector<GpuOnPage> pages;
        bool bComplete = true;
        for (const auto& gpu : (*data)->Gpus) {
            if (only.value_or(gpu->Device.Index) != gpu->Device.Index) continue;
            bComplete = bComplete && (*feed)->StateOf(*gpu) != GpuState::Starting;
            pages.push_back(OnPage(*gpu, *feed->operator->()));
        }
        if (bComplete) return pages;
        pollfd news = {feed->Descriptor(), POLLIN, 0};
        poll(&news, 1, kQuickRedrawMs);
        feed->TakeNews();
    }
}

std::string PageText(const GpuOnPage& page, int width) {
    const int summary = SummaryHeight(width);
    const int processes = 1 + static_cast<int>(page.Gpu.Processes.size());
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
    LiveFeed feed(options.Interval);
    feed.WaitForStart(options.Gpu, -1);
    std::shared_ptr<const FeedData> data;
    int status = kExitSuccess;
    std::string text;
    const int width = std::max(static_cast<int>(OutputWidth()), kMinimumViewWidth);
    for (const GpuOnPage& page : FirstReadings(&feed, &data, options.Gpu)) {
        text += (text.empty() ? "" : "\n") + PageText(page, width);
        if (!page.bSilent) continue;
        std::cerr << GpuInSentence(page.Gpu.Device) << " gave no reading.\n";
        status = kExitFailure;
    }
    WriteOutput(text);
    return status;
}
