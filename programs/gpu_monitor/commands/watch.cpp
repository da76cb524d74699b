#include "commands/watch.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <utility>

#include "commands/csv_log.h"
#include "commands/polled_feed.h"
#include "commands/view_control.h"
#include "common/failure.h"
#include "common/left_changes.h"
#include "common/signals.h"
#include "common/take_back.h"
#include "terminal/screen.h"
#include "view/keys.h"

using namespace gpu_feed;

namespace {

/// A driver that starts, or fails to, within this time does so before the screen is opened.
constexpr int kQuickStartMs = 300;
/// Ages and countdowns go on between two readings.
constexpr int kRedrawMs = 1500;
constexpr int kQuickRedrawMs = 100;

/// The live view on the terminal, from its start to its end.
class Watch {
public:
    Watch(const WatchOptions& options, int stopDescriptor)
        : Options(options),
          StopDescriptor(stopDescriptor),
          Feed(options.Interval),
          Log(options.LogPath),
          Control(Feed.Get(), options.Interval, options.SimulateOption) {}

    int Run() {
        if (!Feed.WaitForNews(kQuickStartMs, StopDescriptor)) return kExitSuccess;
        // Fails before the screen is opened if there is no such GPU.
        PolledFeed::Wanted(*Feed->Latest(), Options.Gpu);
        // The sentences on standard error are behind the view.
        if (!LeftChanges().empty()) Control.ShowNotice("A killed program left changes. See gpu_monitor undo.");
        int status = kExitSuccess;
        if (ShowUntilEnd() == ViewEnd::TakeChangesBack) {
            status = TakeBack();
        } else {
            LeaveChanges(Feed.Get(), Options.SimulateOption);
        }
        return std::max(status, EndLog());
    }

private:
    ViewEnd ShowUntilEnd() {
        try {
            return ShowOnScreen();
        } catch (...) {
            TakeBack();
            throw;
        }
    }

    /// Until the user leaves or a stop signal comes.
    ViewEnd ShowOnScreen() {
        Screen screen;
        while (!Control.End()) {
            Feed.TakeNews();
            // Before the moment is taken, so that it shows what an answer has changed.
            Control.OnTime();
            const FeedMoment moment = Feed->Moment();
            const PolledFeed::Gpus wanted = PolledFeed::Wanted(*moment.Data, Options.Gpu);
            if (!wanted.empty()) Control.SelectFirst(wanted.front()->Key);
            AddToLog(moment);
            // Nothing can be taken back while the program is stopped.
            screen.AllowSuspending(!HasChanges(*moment.Data));
            Canvas canvas = screen.Blank();
            Control.Draw(&canvas, moment);
            screen.Show(std::move(canvas));
            if (!Wait(*moment.Data)) return ViewEnd::TakeChangesBack;
            for (int key = screen.ReadKey(); key != NoKey; key = screen.ReadKey()) Control.OnKey(key);
        }
        return *Control.End();
    }

    void AddToLog(const FeedMoment& moment) {
        Log.Add(moment.Data->Gpus);
        if (!Log.Problem().empty() && !std::exchange(bLogProblemShown, true)) Control.ShowNotice(Log.Problem());
    }

    /// Result: the exit status.
    int EndLog() {
        Log.Add(Feed->Latest()->Gpus);
        if (Log.Problem().empty()) return kExitSuccess;
        std::cerr << Log.Problem() << " The latest readings are missing there.\n";
        return kExitFailure;
    }

    /// Waits for a key or news, but not for long. False: a stop signal came, or the terminal has gone.
    bool Wait(const FeedData& data) const {
        const bool bImpatient = Control.IsTuning() || data.State == FeedState::Starting;
        pollfd descriptors[] = {{StopDescriptor, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}, {Feed.Descriptor(), POLLIN, 0}};
        if (poll(descriptors, 3, bImpatient ? kQuickRedrawMs : kRedrawMs) <= 0) return true;
        const bool bTerminalGone = (descriptors[1].revents & (POLLHUP | POLLERR)) != 0;
        return descriptors[0].revents == 0 && !bTerminalGone;
    }

    /// Whether there are changes to take back. An open panel may have asked for one that is not published yet.
    bool HasChanges(const FeedData& data) const { return Control.IsTuning() || !OutstandingChanges(data).empty(); }

    int TakeBack() {
        return HasChanges(*Feed->Latest()) ? TakeChangesBack(Feed.Get(), Options.SimulateOption) : kExitSuccess;
    }

    const WatchOptions Options;
    const int StopDescriptor;
    PolledFeed Feed;
    CsvLog Log;
    ViewControl Control;
    bool bLogProblemShown = false;
};

}  // namespace

int RunWatch(const WatchOptions& options) {
    Screen::RequireTerminal();
    return Watch(options, CatchStopSignals()).Run();
}
