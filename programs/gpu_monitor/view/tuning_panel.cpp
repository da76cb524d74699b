#include "view/tuning_panel.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "gpu_feed/clock.h"
#include "terminal/screen.h"
#include "text/change_text.h"
#include "text/text_layout.h"
#include "text/tuning_format.h"

using namespace gpu_feed;

namespace {

using Kind = TuningChange::Kind;

constexpr double kKeepSeconds = 10.0;
constexpr size_t kLongStep = 10;
/// Graphics clocks that are listed on either side of the chosen one.
constexpr int kNeighbours = 3;
constexpr int kClockWidth = 18;
constexpr size_t kMaxTyped = 10;
constexpr double kRefreshSeconds = 0.5;

template <typename Result>
bool IsReady(const std::future<Result>& answer) {
    return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

/// `place` moved by `steps`, but not beyond the ends of `count` entries.
size_t Moved(size_t place, std::ptrdiff_t steps, size_t count) {
    const auto last = static_cast<std::ptrdiff_t>(count) - 1;
    return static_cast<size_t>(std::clamp<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(place) + steps, 0, last));
}

/// How far a key moves in a list, upwards being more; 0 for keys that do not.
std::ptrdiff_t StepOf(int key) {
    constexpr auto kFar = std::ptrdiff_t{1} << 20;
    switch (key) {
        case UpKey: return 1;
        case DownKey: return -1;
        case PageUpKey: return kLongStep;
        case PageDownKey: return -std::ptrdiff_t{kLongStep};
        case HomeKey: return -kFar;
        case EndKey: return kFar;
        default: return 0;
    }
}

size_t NearestPlace(const std::vector<int>& clocks, int wanted) {
    const auto nearest = std::min_element(
        clocks.begin(), clocks.end(), [wanted](int a, int b) { return std::abs(a - wanted) < std::abs(b - wanted); });
    return static_cast<size_t>(nearest - clocks.begin());
}

}  // namespace

TuningPanel::TuningPanel(MonitorFeed* feed, std::shared_ptr<const FeedGpu> gpu, std::string simulateOption)
    : Feed(feed), Gpu(std::move(gpu)), SimulateOption(std::move(simulateOption)) {
    Ask();
}

void TuningPanel::Ask() {
    CapabilityAnswer = Feed->QueryTuning(Gpu->Key);
    AskedAt = NowSeconds();
    Now = Stage::Asking;
}

// ---- Keys ----

void TuningPanel::OnKey(int key) {
    switch (Now) {
        case Stage::Menu: OnMenuKey(key); break;
        case Stage::ChoosingClocks: OnClockKey(key); break;
        case Stage::ChoosingPower: OnPowerKey(key); break;
        case Stage::Confirming: OnConfirmKey(key); break;
        case Stage::Keeping: OnKeepKey(key); break;
        case Stage::Told:
            if (key == EnterKey || key == EscapeKey) Ask();
            break;
        case Stage::Asking:
            if (key == EscapeKey) Now = Stage::Closed;
            break;
        // A change that is being made has to come to its end.
        case Stage::Applying:
        case Stage::TakingBack:
        case Stage::Closed: break;
    }
}

void TuningPanel::OnMenuKey(int key) {
    if (key == EscapeKey || key == 't' || key == 'q') Now = Stage::Closed;
    if (Capabilities.Clocks.CanControl) {
        if (key == 'c') BeginClocks();
        if (key == 'r') Confirm({Kind::ResetClocks});
    }
    if (key == 'p' && CanSetPower()) BeginPower();
    if (key == 'd' && CanSetDefault()) Confirm({Kind::ResetPower});
}

void TuningPanel::BeginClocks() {
    const GpuClockCapabilities& clocks = Capabilities.Clocks;
    Groups = GroupByMemoryClock(clocks.SupportedPairs);
    const auto running = Groups.find(clocks.CurrentMemoryClockMHz);
    const auto group = running == Groups.end() ? Groups.begin() : running;
    MemoryPlace = static_cast<size_t>(std::distance(Groups.begin(), group));
    GraphicsPlace = NearestPlace(group->second, clocks.CurrentGraphicsClockMHz);
    Now = Stage::ChoosingClocks;
}

GpuClockPair TuningPanel::ChosenPair() const {
    const auto& [memory, graphics] = *std::next(Groups.begin(), static_cast<std::ptrdiff_t>(MemoryPlace));
    return {graphics[GraphicsPlace], memory};
}

void TuningPanel::OnClockKey(int key) {
    if (key == EscapeKey) Now = Stage::Menu;
    if (key == EnterKey) Confirm({Kind::LockClocks, ChosenPair()});
    const int graphics = ChosenPair().GraphicsClockMHz;
    // The highest memory clock comes first, and stands on the right.
    if (key == LeftKey) MemoryPlace = Moved(MemoryPlace, 1, Groups.size());
    if (key == RightKey) MemoryPlace = Moved(MemoryPlace, -1, Groups.size());
    const auto& clocks = std::next(Groups.begin(), static_cast<std::ptrdiff_t>(MemoryPlace))->second;
    // The highest graphics clock stands at the top of its list.
    const int listKey = key == HomeKey ? EndKey : key == EndKey ? HomeKey : key;
    GraphicsPlace = Moved(NearestPlace(clocks, graphics), StepOf(listKey), clocks.size());
}

void TuningPanel::BeginPower() {
    const GpuPowerCapabilities& power = Capabilities.Power;
    Watts = std::clamp(power.CurrentWatts, power.MinimumWatts, power.MaximumWatts);
    Typed.clear();
    Problem.clear();
    Now = Stage::ChoosingPower;
}

double TuningPanel::ChosenWatts() const {
    return Typed.empty() ? Watts : std::strtod(Typed.c_str(), nullptr);
}

void TuningPanel::OnPowerKey(int key) {
    const GpuPowerCapabilities& power = Capabilities.Power;
    const bool bPoint = key == '.' && Typed.find('.') == std::string::npos;
    const bool bTyped = (key >= '0' && key <= '9') || bPoint;
    if (key == EscapeKey) Now = Stage::Menu;
    if (bTyped && Typed.size() < kMaxTyped) Typed += static_cast<char>(key);
    if (key == BackspaceKey && !Typed.empty()) Typed.pop_back();
    const int upOrDown = key == RightKey ? UpKey : key == LeftKey ? DownKey : key;
    if (const std::ptrdiff_t step = StepOf(upOrDown); step != 0) {
        const double whole = step > 0 ? std::floor(ChosenWatts()) : std::ceil(ChosenWatts());
        Watts = std::clamp(whole + static_cast<double>(step), power.MinimumWatts, power.MaximumWatts);
        Typed.clear();
    }
    Problem.clear();
    if (key == EnterKey) ChoosePower();
}

void TuningPanel::ChoosePower() {
    const GpuPowerCapabilities& power = Capabilities.Power;
    const double watts = ChosenWatts();
    if (!IsInRange(watts, power)) {
        Problem = "This GPU takes " + RangeText(power) + '.';
    } else if (IsSameLimit(watts, power.CurrentWatts)) {
        Problem = "This limit is in force already.";
    } else if (IsSameLimit(watts, power.DefaultWatts)) {
        Confirm({Kind::ResetPower});
    } else {
        Confirm({Kind::SetPower, {}, watts});
    }
}

void TuningPanel::OnConfirmKey(int key) {
    if (key == EnterKey || key == 'y') Apply();
    if (key == EscapeKey || key == 'n') Now = Stage::Menu;
}

void TuningPanel::OnKeepKey(int key) {
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    const TuningRecord* record = data->FindTuning(Gpu->Key, Wanted.Control());
    // It goes back already.
    if (record == nullptr || record->Deadline <= NowSeconds()) return;
    if (key == 'y') {
        Feed->Keep(Gpu->Key, Wanted.Control());
        Ask();
    }
    if (key == 'n' || key == EscapeKey) {
        Answer = Feed->TakeBack(Gpu->Key, Wanted.Control());
        Now = Stage::TakingBack;
    }
}

// ---- Changes ----

void TuningPanel::Confirm(const TuningChange& change) {
    Wanted = change;
    Now = Stage::Confirming;
}

void TuningPanel::Apply() {
    Answer = Feed->Tune(Gpu->Key, Wanted, kKeepSeconds);
    Now = Stage::Applying;
}

void TuningPanel::OnTime() {
    RefreshCapabilities();
    if (Now == Stage::Applying && IsReady(Answer)) TakeResult(Answer.get());
    if (Now == Stage::TakingBack && IsReady(Answer)) TellTakenBack(Answer.get());
    if (Now == Stage::Keeping) WatchDeadline();
}

void TuningPanel::RefreshCapabilities() {
    const bool bShown = Now == Stage::Menu || Now == Stage::Confirming || Now == Stage::Keeping;
    // Not while something is chosen from the last answer.
    if ((bShown || Now == Stage::Asking) && CapabilityAnswer.valid() && IsReady(CapabilityAnswer)) {
        Capabilities = CapabilityAnswer.get();
        bReadBack = Now == Stage::Keeping;
        if (Now == Stage::Asking) Now = Stage::Menu;
    }
    if (bShown && !CapabilityAnswer.valid() && NowSeconds() >= AskedAt + kRefreshSeconds) {
        CapabilityAnswer = Feed->QueryTuning(Gpu->Key);
        AskedAt = NowSeconds();
    }
}

void TuningPanel::TakeResult(const TuningResult& result) {
    if (result.Result != GpuClockOperationResult::Success) {
        DialogLines lines = {{"The driver did not do it:"}, {result.Error, Style::Alarm}};
        if (result.Result == GpuClockOperationResult::NoPermission) lines.push_back({kRightsAdvice});
        Tell(lines);
        return;
    }
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    const TuningRecord* record = data->FindTuning(Gpu->Key, Wanted.Control());
    if (record == nullptr || (record->Deadline == 0.0 && record->InForce == Wanted)) {
        Tell({{"Done: " + OutcomeText(Wanted) + '.'}});
        return;
    }
    // An answer that is under way may be older than the change.
    CapabilityAnswer = Feed->QueryTuning(Gpu->Key);
    bReadBack = false;
    Now = Stage::Keeping;
}

/// The feed takes the change back by itself.
void TuningPanel::WatchDeadline() {
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    const TuningRecord* record = data->FindTuning(Gpu->Key, Wanted.Control());
    if (record == nullptr || record->Deadline != 0.0) return;
    const bool bFailed = !record->Problem.empty();
    TellTakenBack({bFailed ? GpuClockOperationResult::Error : GpuClockOperationResult::Success, record->Problem});
}

void TuningPanel::TellTakenBack(const TuningResult& result) {
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    const TuningRecord* record = data->FindTuning(Gpu->Key, Wanted.Control());
    if (record == nullptr || result.Result == GpuClockOperationResult::Success) {
        Tell({{"It went back" + (record == nullptr ? "." : " to: " + OutcomeText(record->InForce) + '.')}});
        return;
    }
    Tell({{"It could not go back:"},
          {result.Error, Style::Alarm},
          {"To try again: " + CommandOf(record->Previous, Gpu->Device.Index, SimulateOption)}});
}

void TuningPanel::Tell(DialogLines lines) {
    Message = std::move(lines);
    Now = Stage::Told;
}

const TuningRecord* TuningPanel::Record(const FeedData& data, TuningControl control) const {
    const TuningRecord* record = data.FindTuning(Gpu->Key, control);
    return record == nullptr || !record->IsOutstanding() ? nullptr : record;
}

std::optional<TuningChange> TuningPanel::WayBack(const FeedData& data) const {
    if (Wanted.Control() == TuningControl::Power) return PowerWayBack(Wanted, Capabilities.Power);
    if (const TuningRecord* record = Record(data, TuningControl::Clocks)) return record->InForce;
    return Wanted.What == Kind::ResetClocks ? std::nullopt : std::optional(TuningChange{Kind::ResetClocks});
}

std::string TuningPanel::WayBackText() const {
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    const std::optional<TuningChange> back = WayBack(*data);
    if (!back) return "There is no way back: what is in force now cannot be set again.";
    if (*back == Wanted) return "That is in force already.";
    const bool bExact = Wanted.Control() == TuningControl::Clocks || PowerUndo(Capabilities.Power).has_value();
    return "Then you are asked whether to keep it. Without an answer within 10 s it goes back to: " +
           OutcomeText(*back) + '.' + (bExact ? "" : " What is in force now cannot be set again.");
}

// ---- What is shown ----

void TuningPanel::Draw(Canvas* canvas) const {
    Dialog dialog = Content();
    dialog.Title = "Tune " + GpuTitle(Gpu->Device);
    DrawDialog(canvas, dialog);
}

Dialog TuningPanel::Content() const {
    switch (Now) {
        case Stage::Asking: return WaitDialog("Asking what can be changed");
        case Stage::Menu: return MenuDialog();
        case Stage::ChoosingClocks: return ClockDialog();
        case Stage::ChoosingPower: return PowerDialog();
        case Stage::Confirming: return ConfirmDialog();
        case Stage::Applying: return WaitDialog("Changing");
        case Stage::Keeping: return KeepDialog();
        case Stage::TakingBack: return WaitDialog("Going back");
        case Stage::Told: return {"", Message, "Enter goes on"};
        case Stage::Closed: break;
    }
    return {};
}

Dialog TuningPanel::WaitDialog(const std::string& what) const {
    const double wait = Feed->Moment().DriverSilence;
    Dialog dialog = {"", {{what + " ..."}}, Now == Stage::Asking ? "Esc closes" : "Ctrl-C leaves"};
    if (wait >= 1.0) {
        dialog.Lines.push_back({"The driver has not answered for " + Number(wait, 0) + " s.", Style::Warning});
    }
    return dialog;
}

Dialog TuningPanel::MenuDialog() const {
    const GpuClockCapabilities& clocks = Capabilities.Clocks;
    const GpuPowerCapabilities& power = Capabilities.Power;
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    DialogLines lines = {{"Clocks", Style::Title}, {clocks.Status}};
    const auto addChanged = [&](TuningControl control) {
        const TuningRecord* record = Record(*data, control);
        if (record != nullptr) lines.push_back({"Changed here: " + OutcomeText(record->InForce), Style::Warning});
    };
    addChanged(TuningControl::Clocks);
    if (clocks.CanControl) {
        lines.push_back({"Running " + ClocksText(clocks.CurrentGraphicsClockMHz, clocks.CurrentMemoryClockMHz)});
        lines.push_back({"c  lock to a pair      r  release", Style::Strong});
    }
    lines.push_back({""});
    lines.push_back({"Power limit", Style::Title});
    lines.push_back({power.Status});
    addChanged(TuningControl::Power);
    if (CanSetPower()) {
        lines.push_back({"In force " + WattsText(power.CurrentWatts) + ", default " + WattsText(power.DefaultWatts) +
                         ", range " + RangeText(power)});
        lines.push_back(
            {CanSetDefault() ? "p  set a limit         d  set the default" : "p  set a limit", Style::Strong});
    }
    return {"", lines, "Esc closes"};
}

Dialog TuningPanel::ClockDialog() const {
    const auto group = std::next(Groups.begin(), static_cast<std::ptrdiff_t>(MemoryPlace));
    DialogLines lines = {
        {"Memory    " + std::to_string(group->first) + " MHz (" + std::to_string(Groups.size() - MemoryPlace) + " of " +
             std::to_string(Groups.size()) + ')',
         Style::Strong},
        {"Graphics"}};
    const std::vector<int>& clocks = group->second;
    for (int offset = kNeighbours; offset >= -kNeighbours; --offset) {
        const std::ptrdiff_t place = static_cast<std::ptrdiff_t>(GraphicsPlace) + offset;
        const bool bListed = place >= 0 && place < static_cast<std::ptrdiff_t>(clocks.size());
        const std::string clock = bListed ? std::to_string(clocks[static_cast<size_t>(place)]) + " MHz" : "";
        lines.push_back({Right(clock, kClockWidth), offset == 0 ? Style::Selected : Style::Normal});
    }
    return {"", lines, "Up Down graphics   Left Right memory   Enter chooses   Esc back"};
}

Dialog TuningPanel::PowerDialog() const {
    const GpuPowerCapabilities& power = Capabilities.Power;
    const double watts = ChosenWatts();
    const PowerLevels levels = {watts, watts, power.DefaultWatts, power.MinimumWatts, power.MaximumWatts};
    DialogLines lines = {{"Limit  " + (Typed.empty() ? WattsNumber(Watts) : Typed + '_') + " W", Style::Strong},
                         {"", Style::Normal, levels},
                         {"Range " + RangeText(power) + ", default " + WattsText(power.DefaultWatts)},
                         {Problem, Style::Alarm}};
    return {"", lines, "Arrows 1 W   PgUp PgDn 10 W   or type it   Enter chooses   Esc back"};
}

Dialog TuningPanel::ConfirmDialog() const {
    DialogLines lines = {{"This will " + ActionText(Wanted) + ", for every program that uses this GPU.", Style::Strong},
                         {WayBackText()}};
    if (Wanted.What == Kind::LockClocks) {
        lines.push_back({"A lock that another program has set cannot be brought back: NVML does not tell it."});
    }
    return {"", lines, "Enter applies   Esc back"};
}

Dialog TuningPanel::KeepDialog() const {
    const std::shared_ptr<const FeedData> data = Feed->Latest();
    const TuningRecord* record = data->FindTuning(Gpu->Key, Wanted.Control());
    const GpuClockCapabilities& clocks = Capabilities.Clocks;
    const std::string now = Wanted.Control() == TuningControl::Clocks
                                ? "Running " + ClocksText(clocks.CurrentGraphicsClockMHz, clocks.CurrentMemoryClockMHz)
                                : "In force " + WattsText(Capabilities.Power.CurrentWatts);
    const double left = record == nullptr ? 0.0 : std::max(std::ceil(record->Deadline - NowSeconds()), 0.0);
    return {"",
            {{"The driver took it: " + OutcomeText(Wanted) + '.'},
             {bReadBack ? now : "Reading it back ...", Style::Strong},
             {""},
             {"Keep it? It goes back in " + Number(left, 0) + " s.", Style::Warning},
             {"What is kept is asked about when you leave with q; Ctrl-C takes it back."}},
            "y keep   n go back"};
}
