#include "commands/view_control.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <utility>

#include "view/key_help.h"
#include "view/keys.h"
#include "view/leaving_dialog.h"

using namespace gpu_feed;

namespace {

using std::chrono::milliseconds;

constexpr double kNoticeSeconds = 3.0;

constexpr std::array<double, 7> kSpans = {60.0, 120.0, 300.0, 600.0, 1800.0, 3600.0, 0.0};
constexpr std::array<milliseconds, 7> kIntervals = {milliseconds(100),  milliseconds(200),  milliseconds(500),
                                                    milliseconds(1000), milliseconds(2000), milliseconds(5000),
                                                    milliseconds(10000)};

/// The orders of the processes, each with its name in a sentence.
constexpr std::array<std::pair<ProcessOrder, const char*>, 5> kOrders = {{{ProcessOrder::Memory, "VRAM"},
                                                                          {ProcessOrder::Cpu, "CPU"},
                                                                          {ProcessOrder::Pid, "PID"},
                                                                          {ProcessOrder::User, "user"},
                                                                          {ProcessOrder::Name, "command"}}};

}  // namespace

struct ViewControl::KeyAction {
    int Key;
    void (ViewControl::*Act)();
};

/// The digits, which show and hide plots, are not among them.
const ViewControl::KeyAction ViewControl::kKeyActions[] = {
    {'q', &ViewControl::Leave},
    {'?', &ViewControl::OpenHelp},
    {'h', &ViewControl::OpenHelp},
    {'t', &ViewControl::OpenPanel},
    {'\t', &ViewControl::SelectNext},
    {RightKey, &ViewControl::SelectNext},
    {BackTabKey, &ViewControl::SelectPrevious},
    {LeftKey, &ViewControl::SelectPrevious},
    {'g', &ViewControl::SelectByNumber},
    {'a', &ViewControl::ShowOneOrAllGpus},
    {EnterKey, &ViewControl::ShowSelectedGpu},
    {UpKey, &ViewControl::GoUp},
    {DownKey, &ViewControl::GoDown},
    {PageUpKey, &ViewControl::ScrollPageUp},
    {PageDownKey, &ViewControl::ScrollPageDown},
    {HomeKey, &ViewControl::ScrollToFirst},
    {EndKey, &ViewControl::ScrollToLast},
    {'+', &ViewControl::ZoomIn},
    {'=', &ViewControl::ZoomIn},
    {'-', &ViewControl::ZoomOut},
    {' ', &ViewControl::PauseOrResume},
    {'i', &ViewControl::LengthenInterval},
    {'I', &ViewControl::ShortenInterval},
    {'s', &ViewControl::SortDifferently},
};

ViewControl::ViewControl(FeedRequests* feed, milliseconds interval, std::string simulateOption)
    : Feed(feed), SimulateOption(std::move(simulateOption)), Interval(interval) {}

void ViewControl::SelectFirst(const std::string& gpuKey) {
    if (Choice.Gpu.empty()) Choice.Gpu = gpuKey;
}

void ViewControl::OnTime() {
    if (Panel) Panel->OnTime();
}

void ViewControl::Draw(Canvas* canvas, const FeedMoment& moment) {
    Processes = DrawView(canvas, moment, Choice);
    if (Panel) Panel->Draw(canvas, moment);
    if (bHelp) DrawHelp(canvas);
    if (bLeaving) DrawLeaving(canvas, *moment.Data);
}

// ---- Keys ----

void ViewControl::OnKey(int key) {
    if (key == ResizeKey || Ending) return;
    if (bHelp) {
        bHelp = false;
    } else if (bLeaving) {
        OnLeavingKey(key);
    } else if (Panel) {
        Panel->OnKey(key);
        if (Panel->IsClosed()) Panel.reset();
    } else if (Choice.GpuNumber) {
        OnNumberKey(key);
    } else {
        OnViewKey(key);
    }
}

void ViewControl::OnViewKey(int key) {
    if (key >= '1' && key < '1' + static_cast<int>(kPlotCount)) Choice.Plots.flip(static_cast<size_t>(key - '1'));
    for (const KeyAction& action : kKeyActions) {
        if (action.Key == key) (this->*action.Act)();
    }
}

void ViewControl::OnNumberKey(int key) {
    constexpr size_t kMostDigits = 4;
    std::string& digits = *Choice.GpuNumber;
    if (key >= '0' && key <= '9' && digits.size() < kMostDigits) digits += static_cast<char>(key);
    if (key == BackspaceKey && !digits.empty()) digits.pop_back();
    if (key != EnterKey && key != EscapeKey) return;
    const std::string number = std::move(digits);
    Choice.GpuNumber.reset();
    if (key == EscapeKey || number.empty()) return;
    const FeedMoment moment = Feed->Moment();
    for (const auto& gpu : moment.Data->Gpus) {
        if (gpu->Device.Index == std::stoul(number)) return Select(gpu->Key);
    }
    ShowNotice("There is no GPU " + number);
}

void ViewControl::OnLeavingKey(int key) {
    if (key == 'r') Ending = ViewEnd::TakeChangesBack;
    if (key == 'k') Ending = ViewEnd::KeepChanges;
    if (key == EscapeKey) bLeaving = false;
}

void ViewControl::Leave() {
    bLeaving = !OutstandingChanges(*Feed->Moment().Data).empty();
    if (!bLeaving) Ending = ViewEnd::KeepChanges;
}

void ViewControl::OpenPanel() {
    const std::shared_ptr<const FeedGpu> gpu = Feed->Moment().Data->Find(Choice.Gpu);
    if (gpu != nullptr) Panel = std::make_unique<TuningPanel>(Feed, gpu, SimulateOption);
}

void ViewControl::SelectGpu(int step) {
    const FeedMoment moment = Feed->Moment();
    const auto& gpus = moment.Data->Gpus;
    const auto count = static_cast<std::ptrdiff_t>(gpus.size());
    if (count == 0) return;
    const auto isSelected = [this](const auto& gpu) { return gpu->Key == Choice.Gpu; };
    const auto place = std::find_if(gpus.begin(), gpus.end(), isSelected) - gpus.begin();
    Select(gpus[static_cast<size_t>((place + step + count) % count)]->Key);
}

void ViewControl::Select(const std::string& gpuKey) {
    Choice.Gpu = gpuKey;
    // The list of all GPUs' processes stays where it is.
    if (!Choice.bAllGpus) Choice.Processes.First = 0;
}

void ViewControl::ShowAllGpus(bool bAll) {
    if (bAll != Choice.bAllGpus) Choice.Processes.First = 0;
    Choice.bAllGpus = bAll;
}

void ViewControl::GoTo(int step) {
    Choice.bAllGpus ? SelectGpu(step) : Scroll(step);
}

void ViewControl::Scroll(int lines) {
    const int first = std::min(Choice.Processes.First, Processes.Last());
    Choice.Processes.First = std::clamp(first + lines, 0, Processes.Last());
}

void ViewControl::Zoom(int step) {
    const std::ptrdiff_t place = std::find(kSpans.begin(), kSpans.end(), Choice.Seconds) - kSpans.begin() + step;
    const auto last = static_cast<std::ptrdiff_t>(kSpans.size()) - 1;
    Choice.Seconds = kSpans[static_cast<size_t>(std::clamp<std::ptrdiff_t>(place, 0, last))];
    ShowNotice("Plots: " + SpanText(Choice.Seconds));
}

void ViewControl::PauseOrResume() {
    bPaused = !bPaused;
    if (bPaused) {
        Feed->Pause();
        ShowNotice("Paused; space resumes");
    } else {
        Feed->Resume();
        ShowNotice("Sampling goes on");
    }
}

void ViewControl::LengthenInterval() {
    const auto* const longer = std::upper_bound(kIntervals.begin(), kIntervals.end(), Interval);
    SetInterval(longer == kIntervals.end() ? kIntervals.back() : *longer);
}

void ViewControl::ShortenInterval() {
    const auto* const notShorter = std::lower_bound(kIntervals.begin(), kIntervals.end(), Interval);
    SetInterval(notShorter == kIntervals.begin() ? kIntervals.front() : *std::prev(notShorter));
}

void ViewControl::SetInterval(milliseconds interval) {
    Interval = interval;
    Feed->SetInterval(interval);
    ShowNotice("Interval: " + IntervalText(interval));
}

void ViewControl::SortDifferently() {
    const size_t next = (static_cast<size_t>(Choice.Processes.Order) + 1) % kOrders.size();
    Choice.Processes.Order = kOrders[next].first;
    ShowNotice(std::string("Processes by ") + kOrders[next].second);
}

void ViewControl::ShowNotice(const std::string& notice) {
    Choice.Notice = notice;
    Choice.NoticeUntil = Feed->Moment().Now + kNoticeSeconds;
}
