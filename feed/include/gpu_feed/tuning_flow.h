#ifndef GPU_FEED_TUNING_FLOW_H
#define GPU_FEED_TUNING_FLOW_H

#include <future>
#include <string>

#include "gpu_feed/feed_requests.h"

namespace gpu_feed {

/// How far a change of a GPU has come.
enum class TuningStep {
    /// The driver is being asked what can be changed.
    Asking,
    /// The user may make a change.
    Ready,
    /// The driver is being asked for the change.
    Applying,
    /// The change is in force, and the user is being asked whether to keep it.
    Keeping,
    /// The driver is being asked to take the change back.
    TakingBack,
    /// The user reads how the change ended: `TuningFlow::Ending`.
    Ended,
};

/// How a change ended, for the user.
struct TuningEnding {
    enum class Kind {
        /// It was made and stays: there is no way back, or it was in force before.
        Done,
        /// The driver has not made it.
        Refused,
        WentBack,
        DidNotGoBack,
    };

    Kind What = Kind::Done;
    /// What happened.
    std::string Sentence = {};
    /// Why; only of `Refused` and `DidNotGoBack`.
    std::string Problem = {};
    /// What the user can do about it; may be empty.
    std::string Advice = {};
};

/// Leads a user interface through changes of one GPU: what can be changed, the change, the question whether to keep it,
/// the way back. A change that the user does not decide to keep goes back, also when the flow is destroyed meanwhile.
///
/// Threads: belongs to one thread. No operation waits for the driver.
class TuningFlow {
public:
    /// How long the user is asked whether to keep a change.
    static constexpr double kKeepSeconds = 10.0;

    /// Asks what can be changed. `feed` must outlive the flow. `simulateOption` ends the commands that the user may
    /// type later; see `CommandOf`.
    TuningFlow(FeedRequests* feed, std::string gpuKey, std::string simulateOption = {});

    /// To be called often, at best once per frame: takes what the feed has answered and, twice a second, asks again
    /// what can be changed, because other programs tune too. Between these two it allocates nothing.
    void Update();

    TuningStep Step() const { return Now; }

    /// The driver's latest answer; the defaults while it is being asked for the first time.
    const TuningCapabilities& Capabilities() const { return Latest; }

    /// What the user is making or made last.
    const TuningChange& Change() const { return Made; }

    /// What `change` will go back to if the user does not keep it, as sentences for the user.
    std::string WayBackText(const FeedData& data, const TuningChange& change) const;

    // ---- Each does nothing in another step than the one that it names ----

    /// Makes a change. Step: `Ready`.
    void Apply(const TuningChange& change);

    /// Lets the change stay. Step: `Keeping`, until the change goes back by itself.
    void Keep();

    /// Takes the change back. Step: as `Keep`.
    void TakeBack();

    /// Goes on after the user has read how a change ended. Step: `Ended`.
    void Dismiss();

    // ---- `Keeping` ----

    /// How long the user has to answer: not more than `kKeepSeconds`, and 0 when the change goes back already.
    double SecondsLeft(const FeedMoment& moment) const;

    /// The changed setting as the driver gives it now, or that it is being read.
    std::string ReadBackText() const;

    /// The feed's record of the change; null when there is none.
    const TuningRecord* RecordIn(const FeedMoment& moment) const;

    // ---- `Ended` ----

    const TuningEnding& Ending() const { return End; }

private:
    void Ask();
    void RequestCapabilities();
    void RefreshCapabilities();
    void TakeResult(const TuningResult& result);
    void WatchDeadline();
    void EndBack(const TuningResult& result);
    void EndWith(TuningEnding ending);

    FeedRequests* Feed;
    std::string GpuKey;
    std::string SimulateOption;
    TuningStep Now = TuningStep::Asking;
    TuningChange Made{TuningChange::Kind::ResetClocks};
    TuningCapabilities Latest;
    /// Whether `Latest` was given after the change.
    bool bReadBack = false;
    TuningEnding End;
    std::future<TuningCapabilities> CapabilityAnswer;
    double AskedAt = 0.0;
    std::future<TuningResult> Answer;
};

/// Why the user cannot set this power limit, as a sentence; empty when there is no reason.
std::string WhyNotPower(double watts, const GpuPowerCapabilities& capabilities);

/// The change that brings this power limit into force.
TuningChange PowerChangeTo(double watts, const GpuPowerCapabilities& capabilities);

}  // namespace gpu_feed

#endif  // GPU_FEED_TUNING_FLOW_H
