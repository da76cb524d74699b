// What keys do in the live view, with a feed whose answers are made by hand.

#include <gmock/gmock.h>

#include <future>
#include <initializer_list>
#include <utility>

#include "commands/view_control.h"
#include "text/change_text.h"
#include "view/keys.h"
#include "view_test.h"

namespace {

using namespace testing;
using namespace gpu_feed;

/// The view, its feed, and the clock.
class ControlTest : public ViewTest, protected FeedRequests {
protected:
    FeedMoment Moment() const override { return MomentOf(Data, Now, Silence); }
    void SetInterval(std::chrono::milliseconds interval) override { Requested += std::to_string(interval.count()) + ' '; }
    void Pause() override { Requested += "pause "; }
    void Resume() override { Requested += "resume "; }
    std::future<TuningCapabilities> QueryTuning(const std::string&) override {
        Capabilities = {};
        return Capabilities.get_future();
    }
    std::future<TuningResult> Tune(const std::string& gpuKey, const TuningChange& change, double keepSeconds) override {
        Requested += gpuKey + ": " + ActionText(change) + " for " + std::to_string(std::lround(keepSeconds));
        Result = {};
        return Result.get_future();
    }
    void Keep(const std::string& gpuKey, TuningControl) override { Requested += " keep " + gpuKey; }
    std::future<TuningResult> TakeBack(const std::string& gpuKey, TuningControl) override {
        Requested += " take back " + gpuKey;
        Result = {};
        return Result.get_future();
    }

    /// Presses `keys`, then looks at the screen.
    std::string Press(const std::vector<int>& keys) {
        for (const int key : keys) Control.OnKey(key);
        Control.OnTime();
        Canvas canvas(80, 24, true);
        Control.Draw(&canvas, Moment());
        return canvas.Text();
    }

    static constexpr unsigned int kFirst = 1;

    FeedData Data = MadeData({MadeGpu(), MadeGpu(1), MadeGpu(2)});
    double Now = kNow;
    double Silence = 0.0;
    std::string Requested;
    std::promise<TuningCapabilities> Capabilities;
    std::promise<TuningResult> Result;
    ViewControl Control{this, std::chrono::milliseconds(700), "--simulate"};
};
