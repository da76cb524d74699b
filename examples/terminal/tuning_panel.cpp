#include "tuning_panel.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "clock.h"
#include "screen.h"
#include "text_format.h"
#include "text_layout.h"
#include "tuning_format.h"

namespace {

using Kind = TuningChange::Kind;

constexpr double kKeepSeconds = 10.0;
constexpr size_t kLongStep = 10;
/// Graphics clocks that are listed on either side of the chosen one.
constexpr int kNeighbours = 3;
constexpr size_t kMaxTyped = 8;

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

std::string Capitalized(std::string text) {
    text.front() = static_cast<char>(text.front() - 'a' + 'A');
    return text;
}

}  // namespace

TuningPanel::TuningPanel(MonitorFeed* feed, ChangeLedger* ledger, std::string gpuKey, std::string simulateOption)
    : Feed(feed),
      Ledger(ledger),
      GpuKey(std::move(gpuKey)),
      SimulateOption(std::move(simulateOption)),
      Data(feed->Latest()),
      Gpu(Data->Find(GpuKey)) {
    Ask();
}

bool TuningPanel::IsWaiting() const {
    return Now == Stage::Asking || Now == Stage::Applying || Now == Stage::Keeping || Now == Stage::Reverting;
}

void TuningPanel::Ask() {
    CapabilityAnswer = Feed->QueryTuning(GpuKey);
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
        case Stage::Told: Ask(); break;
        case Stage::Asking:
            if (key == EscapeKey) Now = Stage::Closed;
            break;
        // A change that is being made has to come to its end.
        case Stage::Applying:
        case Stage::Reverting:
        case Stage::Closed: break;
    }
}

void TuningPanel::OnMenuKey(int key) {
    if (key == EscapeKey || key == 't' || key == 'q') Now = Stage::Closed;
    if (Capabilities.Clocks.CanControl) {
        if (key == 'c') BeginClocks();
        if (key == 'r') Confirm({Kind::ResetClocks});
    }
    if (CanSetPower()) {
        if (key == 'p') BeginPower();
        if (key == 'd') Confirm({Kind::ResetPower});
    }
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
    GraphicsPlace = Moved(NearestPlace(clocks, graphics), StepOf(key), clocks.size());
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
    const bool bDigit = (key >= '0' && key <= '9') || key == '.';
    if (key == EscapeKey) Now = Stage::Menu;
    if (bDigit && Typed.size() < kMaxTyped) Typed += static_cast<char>(key);
    if (key == BackspaceKey && !Typed.empty()) Typed.pop_back();
    const int sideways = (key == RightKey ? UpKey : key == LeftKey ? DownKey : key);
    if (const std::ptrdiff_t step = StepOf(sideways); step != 0) {
        const double next = std::round(ChosenWatts()) + static_cast<double>(step);
        Watts = std::clamp(next, power.MinimumWatts, power.MaximumWatts);
        Typed.clear();
    }
    Problem.clear();
    if (key != EnterKey) return;
    if (IsInRange(ChosenWatts(), power)) {
        Confirm({Kind::SetPower, {}, ChosenWatts()});
    } else {
        Problem = "This GPU takes " + RangeText(power) + '.';
    }
}

void TuningPanel::OnConfirmKey(int key) {
    if (key == EnterKey || key == 'y') Apply();
    if (key == EscapeKey || key == 'n') Now = Stage::Menu;
}

void TuningPanel::OnKeepKey(int key) {
    if (key == 'y') Ask();
    if (key == 'n' || key == EscapeKey) Revert();
}

// ---- Changes ----

TuningChange TuningPanel::Original(const TuningChange& change) const {
    if (ControlOf(change) == TuningControl::Clocks) return {Kind::ResetClocks};
    return PowerUndo(Capabilities.Power).value_or(TuningChange{Kind::ResetPower});
}

void TuningPanel::Confirm(const TuningChange& change) {
    Wanted = change;
    Undo = Ledger->UndoOf(GpuKey, change, Original(change));
    Now = Stage::Confirming;
}

void TuningPanel::Apply() {
    Ledger->Note(*Gpu, Wanted, Original(Wanted));
    Answer = Request(Feed, GpuKey, Wanted);
    Now = Stage::Applying;
}

void TuningPanel::OnTime() {
    if (Now == Stage::Asking && IsReady(CapabilityAnswer)) {
        Capabilities = CapabilityAnswer.get();
        Now = Stage::Menu;
    } else if (Now == Stage::Applying && IsReady(Answer)) {
        TakeResult(Answer.get());
    } else if (Now == Stage::Reverting && IsReady(Answer)) {
        TakeRevertResult(Answer.get());
    } else if (Now == Stage::Keeping && NowSeconds() >= Deadline) {
        Revert();
    }
}

void TuningPanel::TakeResult(const TuningResult& result) {
    if (result.Result != GpuClockOperationResult::Success) {
        Ledger->Note(*Gpu, Undo, Original(Undo));
        DialogLines lines = {{"It was not changed:"}, {result.Error, Style::Alarm}};
        if (result.Result == GpuClockOperationResult::NoPermission) lines.push_back({kRightsAdvice});
        Tell(lines);
    } else if (CanUndo()) {
        Deadline = NowSeconds() + kKeepSeconds;
        Now = Stage::Keeping;
    } else {
        Tell({{"Done."}});
    }
}

void TuningPanel::Revert() {
    Answer = Request(Feed, GpuKey, Undo);
    Now = Stage::Reverting;
}

void TuningPanel::TakeRevertResult(const TuningResult& result) {
    if (result.Result == GpuClockOperationResult::Success) {
        Ledger->Note(*Gpu, Undo, Original(Undo));
        Tell({{"Taken back: " + ActionText(Undo) + '.'}});
    } else {
        Tell({{"It could not be taken back:"},
              {result.Error, Style::Alarm},
              {"To try again: " + CommandOf(Undo, Gpu->Device.Index, SimulateOption)}});
    }
}

void TuningPanel::Tell(DialogLines lines) {
    lines.push_back({""});
    lines.push_back({"Any key goes on", Style::Dim});
    Message = std::move(lines);
    Now = Stage::Told;
}

// ---- What is shown ----

void TuningPanel::Draw(Canvas* canvas) const {
    DrawDialog(canvas, "Tune " + GpuTitle(Gpu->Device), Lines());
}

DialogLines TuningPanel::Lines() const {
    switch (Now) {
        case Stage::Asking: return WaitLines("Asking what can be changed");
        case Stage::Menu: return MenuLines();
        case Stage::ChoosingClocks: return ClockLines();
        case Stage::ChoosingPower: return PowerLines();
        case Stage::Confirming: return ConfirmLines();
        case Stage::Applying: return WaitLines("Changing");
        case Stage::Keeping: return KeepLines();
        case Stage::Reverting: return WaitLines("Taking it back");
        case Stage::Told: return Message;
        case Stage::Closed: break;
    }
    return {};
}

DialogLines TuningPanel::WaitLines(const std::string& what) const {
    const double wait = Feed->DriverWait();
    const std::string text = what + " ...";
    if (wait < 1.0) return {{text}};
    return {{text}, {"The driver has not answered for " + Number(wait, 0) + " s. Ctrl-C leaves.", Style::Warning}};
}

DialogLines TuningPanel::MenuLines() const {
    const GpuClockCapabilities& clocks = Capabilities.Clocks;
    const GpuPowerCapabilities& power = Capabilities.Power;
    DialogLines lines = {{"Clocks", Style::Title}, {clocks.Status}};
    if (clocks.CanControl) {
        lines.push_back({"Running " + ClocksText(clocks.CurrentGraphicsClockMHz, clocks.CurrentMemoryClockMHz)});
        lines.push_back({"c  lock to a pair      r  release", Style::Strong});
    }
    lines.push_back({""});
    lines.push_back({"Power limit", Style::Title});
    lines.push_back({power.Status});
    if (CanSetPower()) {
        lines.push_back({"In force " + WattsText(power.CurrentWatts) + ", default " + WattsText(power.DefaultWatts) +
                         ", range " + RangeText(power)});
        lines.push_back({"p  set a limit         d  set the default", Style::Strong});
    }
    lines.push_back({""});
    lines.push_back({"Esc closes", Style::Dim});
    return lines;
}

DialogLines TuningPanel::ClockLines() const {
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
        lines.push_back({Right(clock, 18), offset == 0 ? Style::Selected : Style::Normal});
    }
    lines.push_back({""});
    lines.push_back({"Up Down PgUp PgDn graphics   Left Right memory   Enter choose   Esc back", Style::Dim});
    return lines;
}

DialogLines TuningPanel::PowerLines() const {
    const GpuPowerCapabilities& power = Capabilities.Power;
    const PowerLevels levels = {ChosenWatts(), ChosenWatts(), power.DefaultWatts, power.MinimumWatts,
                                power.MaximumWatts};
    return {{"Limit  " + (Typed.empty() ? WattsNumber(Watts) : Typed + '_') + " W", Style::Strong},
            {"", Style::Normal, levels},
            {"Range " + RangeText(power) + ", default " + WattsText(power.DefaultWatts)},
            {Problem, Style::Alarm},
            {"Arrows 1 W   PgUp PgDn 10 W   digits type a limit   Enter choose   Esc back", Style::Dim}};
}

DialogLines TuningPanel::ConfirmLines() const {
    DialogLines lines = {
        {"This will " + ActionText(Wanted) + ", for every program that uses this GPU.", Style::Strong}};
    if (CanUndo()) {
        lines.push_back({"Then you are asked whether to keep it. Without an answer within 10 s it goes back: it will " +
                         ActionText(Undo) + '.'});
    }
    if (Undo.What == Kind::ResetClocks) {
        lines.push_back({"A lock that another program has set cannot be brought back: NVML does not tell it."});
    }
    lines.push_back({""});
    lines.push_back({"Enter apply   Esc back", Style::Dim});
    return lines;
}

DialogLines TuningPanel::KeepLines() const {
    const std::shared_ptr<const FeedData> latest = Feed->Latest();
    const FeedGpu* gpu = latest->Find(GpuKey);
    const GpuTelemetrySample now = gpu == nullptr ? GpuTelemetrySample() : gpu->Latest;
    const std::string inForce = ControlOf(Wanted) == TuningControl::Clocks
                                    ? "Running " + ClocksText(now.GraphicsClockMHz, now.MemoryClockMHz)
                                    : "In force " + WattsText(now.PowerLimitWatts);
    const double left = std::max(std::ceil(Deadline - NowSeconds()), 0.0);
    return {{Capitalized(ActionText(Wanted)) + ": the driver took it."},
            {inForce, Style::Strong},
            {""},
            {"Keep it?   y keep   n go back", Style::Strong},
            {"Going back in " + Number(left, 0) + " s", Style::Warning}};
}
