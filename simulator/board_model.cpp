#include "board_model.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <limits>
#include <utility>

namespace simulated_nvml {

namespace {

constexpr double kTickSeconds = 0.05;
/// How long a board has worked when it is first seen: it is warm, and its clocks have settled.
constexpr int64_t kWarmUpTicks = 4800;
/// After this long nothing of an earlier state is left, because the slowest part settles in 20 s. After longer
/// gaps between two readings, only this much is simulated.
constexpr int64_t kMemoryTicks = 36000;

constexpr double kPhaseSeconds = 18.0;
constexpr double kPhaseChangeSeconds = 3.0;
constexpr double kRippleSeconds = 1.3;
constexpr double kIdleDemand = 0.03;

constexpr double kAmbientC = 27.0;
constexpr double kFanStartC = 48.0;
/// How far below its slowdown a board begins to lower its clocks by itself.
constexpr double kHeatMarginC = 8.0;
constexpr double kHeatSeconds = 20.0;
constexpr double kFanSeconds = 4.0;
constexpr double kAveragingSeconds = 0.4;

/// How many processes a board has at most.
constexpr size_t kSlots = 5;

/// Streams of random numbers; each process slot takes three of its own from `kProcesses` on.
constexpr uint64_t kPhases = 0;
constexpr uint64_t kRipple = 1;
constexpr uint64_t kPcie = 2;
constexpr uint64_t kCoders = 3;
constexpr uint64_t kProcesses = 4;
constexpr uint64_t kProcessLoad = kProcesses + 3 * kSlots;

/// One phase of a workload: up to which random number it is taken, and what it asks of the board.
struct Phase {
    double UpTo;
    double Lowest;
    double Highest;
};
using Phases = std::array<Phase, 3>;

const Phases& PhasesOf(Workload load) {
    static constexpr Phases kGame = {{{0.70, 0.80, 1.00}, {0.88, 0.30, 0.55}, {1.0, 0.0, 0.05}}};
    static constexpr Phases kTraining = {{{0.85, 0.95, 1.00}, {0.95, 0.15, 0.40}, {1.0, 0.0, 0.01}}};
    static constexpr Phases kVideo = {{{0.50, 0.10, 0.30}, {0.80, 0.60, 1.00}, {1.0, 0.0, 0.04}}};
    static constexpr Phases kOffice = {{{0.60, 0.0, 0.10}, {0.90, 0.20, 0.50}, {1.0, 0.80, 1.00}}};
    switch (load) {
        case Workload::Training: return kTraining;
        case Workload::Video: return kVideo;
        case Workload::Office: return kOffice;
        case Workload::Game: break;
    }
    return kGame;
}

uint64_t Mix(uint64_t value) {
    value += 0x9E3779B97F4A7C15U;
    value = (value ^ (value >> 30U)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27U)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31U);
}

double Blend(double from, double to, double share) {
    return from + (to - from) * share;
}

double SmoothStep(double share) {
    const double x = std::clamp(share, 0.0, 1.0);
    return x * x * (3.0 - 2.0 * x);
}

/// One tick of `value` on its way to `target`.
double Approach(double value, double target, double seconds) {
    return Blend(value, target, kTickSeconds / seconds);
}

unsigned int Rounded(double value) {
    return static_cast<unsigned int>(std::lround(std::max(value, 0.0)));
}

}  // namespace

BoardModel::BoardModel(Board board, unsigned int index, uint64_t seed, std::shared_ptr<SystemProcesses> processes)
    : Description(std::move(board)),
      Seed(Mix(seed * 64 + index)),
      PhaseOffsetSeconds(kPhaseSeconds * Random(kPhases, -1)),
      System(std::move(processes)),
      Ticks(-kWarmUpTicks),
      Milliwatts(Description.IdlePowerMilliwatts),
      TemperatureC(kAmbientC) {
    if (Description.Fixed.has_value()) Current = *Description.Fixed;
    for (const std::string& name : Description.Unsupported) Unsupported[IndexOf(QueryOf(EntryPointOf(name)))] = true;
    if (Description.Recorded != nullptr) RowInForce = &Description.Recorded->FirstRow();
}

NvmlReturn BoardModel::Verdict(EntryPoint name, Arguments arguments) const {
    if (!Supports(name)) return kNotSupported;
    return RowInForce == nullptr ? kSuccess : Description.Recorded->Verdict(*RowInForce, name, arguments);
}

void BoardModel::PlayTo(double seconds) {
    const RecordedGpu::Row* row = Description.Recorded->RowAt(seconds);
    if (row == nullptr) return;
    RowInForce = row;
    PutOnBoard(*row, &Description, &Current, &InForce);
}

void BoardModel::AdvanceTo(double seconds) {
    if (Description.Recorded != nullptr) return PlayTo(seconds);
    if (Description.Fixed.has_value()) return;
    const auto target = static_cast<int64_t>(std::floor(seconds / kTickSeconds));
    if (target == Ticks) return;
    const bool bSetBack = target < Ticks;
    const double used = Millijoules;
    const int64_t skipped = target - kMemoryTicks - Ticks;
    if (bSetBack || skipped > 0) {
        Ticks += skipped;
        Millijoules += Milliwatts * kTickSeconds * static_cast<double>(skipped);
    }
    while (Ticks < target) {
        ++Ticks;
        Step();
    }
    // What is simulated again has been counted already.
    if (bSetBack) Millijoules = used;
    Publish();
}

double BoardModel::Seconds() const {
    return static_cast<double>(Ticks) * kTickSeconds + PhaseOffsetSeconds;
}

double BoardModel::Random(uint64_t stream, int64_t place) const {
    const uint64_t bits = Mix(Mix(Seed ^ stream) + static_cast<uint64_t>(place));
    return static_cast<double>(bits >> 11U) * 0x1.0p-53;
}

double BoardModel::PhaseDemand(int64_t phase) const {
    const double choice = Random(kPhases, 2 * phase);
    const Phases& phases = PhasesOf(Description.Load);
    const Phase* chosen = std::find_if(phases.begin(), std::prev(phases.end()),
                                       [choice](const Phase& candidate) { return choice < candidate.UpTo; });
    return Blend(chosen->Lowest, chosen->Highest, Random(kPhases, 2 * phase + 1));
}

double BoardModel::Demand(double seconds) const {
    const auto phase = static_cast<int64_t>(std::floor(seconds / kPhaseSeconds));
    const double intoPhase = seconds - static_cast<double>(phase) * kPhaseSeconds;
    const double base = Blend(PhaseDemand(phase - 1), PhaseDemand(phase), SmoothStep(intoPhase / kPhaseChangeSeconds));

    const auto ripple = static_cast<int64_t>(std::floor(seconds / kRippleSeconds));
    const double intoRipple = seconds / kRippleSeconds - static_cast<double>(ripple);
    const double wave = Blend(Random(kRipple, ripple), Random(kRipple, ripple + 1), SmoothStep(intoRipple)) - 0.5;
    return std::clamp(base * (1.0 + 0.25 * wave), 0.0, 1.0);
}

bool BoardModel::IsIdle(double demand) const {
    return demand < kIdleDemand;
}

void BoardModel::Step() {
    const double demand = Demand(Seconds());
    Reasons = 0;
    ChooseMemoryClock(demand);
    ChooseGraphicsClock(demand);
    UpdatePowerAndHeat(demand);
}

void BoardModel::ChooseMemoryClock(double demand) {
    const std::vector<ClockGroup>& groups = Description.Clocks;
    const size_t wanted = IsIdle(demand) ? SlowestGroupForGraphicsLock() : 0;
    MemoryGroup = wanted;
    if (!InForce.MemoryLock.has_value()) return;
    // The listed clock that comes nearest to the range.
    const auto allowed = std::find_if(groups.begin(), std::prev(groups.end()), [this](const ClockGroup& group) {
        return group.MemoryMHz <= InForce.MemoryLock->Highest;
    });
    const auto locked = static_cast<size_t>(std::distance(groups.begin(), allowed));
    const bool bWithin = groups[wanted].MemoryMHz >= InForce.MemoryLock->Lowest && wanted >= locked;
    if (!bWithin) MemoryGroup = locked;
    if (groups[MemoryGroup].MemoryMHz < groups[wanted].MemoryMHz) Reasons |= kReasonApplicationClocks;
}

size_t BoardModel::SlowestGroupForGraphicsLock() const {
    const std::vector<ClockGroup>& groups = Description.Clocks;
    const unsigned int lowest = InForce.GraphicsLock.has_value() ? InForce.GraphicsLock->Lowest : 0;
    const auto reaches = [lowest](const ClockGroup& group) { return group.GraphicsMHz.front() >= lowest; };
    const auto slowest = std::find_if(groups.rbegin(), groups.rend(), reaches);
    return slowest == groups.rend() ? 0 : static_cast<size_t>(std::distance(slowest, groups.rend()) - 1);
}

void BoardModel::ChooseGraphicsClock(double demand) {
    const double coolEnough = HeatHeadroom * Description.Clocks.front().GraphicsMHz.front();
    double wanted = WantedGraphicsClock(demand);
    if (wanted > coolEnough) {
        wanted = coolEnough;
        Reasons |= kReasonSoftwareThermal;
    }
    if (TemperatureC >= Description.SlowdownTemperatureC) {
        wanted *= 0.5;
        Reasons |= kReasonHardwareSlowdown | kReasonHardwareThermal;
    }
    GraphicsMHz = HighestClockWithin(wanted, demand);
}

double BoardModel::WantedGraphicsClock(double demand) {
    const std::vector<unsigned int>& clocks = Description.Clocks[MemoryGroup].GraphicsMHz;
    const double lowest = clocks.back();
    const double highest = clocks.front();
    const double free = IsIdle(demand) ? lowest : highest * std::min(1.0, 0.75 + 0.5 * demand);
    const ClockRange range = InForce.GraphicsLock.value_or(ClockRange{0, std::numeric_limits<unsigned int>::max()});
    const double locked = std::clamp(free, std::clamp<double>(range.Lowest, lowest, highest),
                                     std::clamp<double>(range.Highest, lowest, highest));
    if (locked < free) Reasons |= kReasonApplicationClocks;
    // Where a lock makes an idle board run faster, nothing limits its clocks.
    if (IsIdle(demand) && locked <= free) Reasons |= kReasonIdle;
    return locked;
}

double BoardModel::PowerAt(double graphicsMHz, double demand) const {
    const double highest = Description.Clocks.front().GraphicsMHz.front();
    const double speed = graphicsMHz / highest;
    // A slower clock is busy for a larger share of the time with the same work.
    const double busy = speed > 0.0 ? std::min(1.0, demand / speed) : 0.0;
    const double dynamic = static_cast<double>(Description.PeakPowerMilliwatts) - Description.IdlePowerMilliwatts;
    return Description.IdlePowerMilliwatts + dynamic * (0.1 * speed + 0.9 * busy * std::pow(speed, 2.4));
}

unsigned int BoardModel::HighestClockWithin(double highestMHz, double demand) {
    const std::vector<unsigned int>& clocks = Description.Clocks[MemoryGroup].GraphicsMHz;
    const auto allowed =
        std::partition_point(clocks.begin(), std::prev(clocks.end()),
                             [highestMHz](unsigned int clock) { return static_cast<double>(clock) > highestMHz; });
    const auto isTooMuch = [&](unsigned int clock) { return PowerAt(clock, demand) > PowerLimitMilliwatts(); };
    // The usual case comes first, because the search takes most of the time of a step.
    if (!isTooMuch(*allowed)) return *allowed;
    Reasons |= kReasonSoftwarePowerCap;
    return *std::partition_point(allowed, std::prev(clocks.end()), isTooMuch);
}

void BoardModel::UpdatePowerAndHeat(double demand) {
    const double highest = Description.Clocks.front().GraphicsMHz.front();
    Milliwatts = Approach(Milliwatts, PowerAt(GraphicsMHz, demand), kAveragingSeconds);
    Millijoules += Milliwatts * kTickSeconds;
    // What keeps an idle board busy is too little to show at its low clock either.
    const double busy = IsIdle(demand) ? demand : std::min(1.0, demand * highest / GraphicsMHz);
    GpuPercent = Approach(GpuPercent, 100.0 * busy, kAveragingSeconds);

    const double kelvinPerMilliwatt =
        (Description.FullLoadTemperatureC - kAmbientC) / Description.DefaultPowerLimitMilliwatts;
    const double cooling = 1.25 - 0.25 * FanPercent / 100.0;
    TemperatureC = Approach(TemperatureC, kAmbientC + kelvinPerMilliwatt * cooling * Milliwatts, kHeatSeconds);

    const double fanShare = (TemperatureC - kFanStartC) / (Description.FullLoadTemperatureC - kFanStartC);
    const double fanTarget = fanShare < 0.0 ? 0.0 : std::clamp(30.0 + 70.0 * fanShare, 30.0, 100.0);
    FanPercent = Approach(FanPercent, fanTarget, kFanSeconds);

    const bool bHot = TemperatureC > Description.SlowdownTemperatureC - kHeatMarginC;
    HeatHeadroom = std::clamp(HeatHeadroom + (bHot ? -0.002 : 0.001), 0.4, 1.0);
}

void BoardModel::Publish() {
    const double demand = Demand(Seconds());
    Current.TemperatureC = Rounded(TemperatureC);
    Current.PowerMilliwatts = Rounded(Milliwatts);
    Current.FanPercent = Rounded(FanPercent);
    Current.GraphicsMHz = GraphicsMHz;
    Current.SmMHz = GraphicsMHz;
    Current.MemoryMHz = Description.Clocks[MemoryGroup].MemoryMHz;
    Current.VideoMHz = VideoClockMHz(GraphicsMHz);
    Current.PerformanceState = MemoryGroup == 0 ? 0 : (MemoryGroup + 1 == Description.Clocks.size() ? 8 : 5);
    Current.LimitReasons = Reasons;
    PublishLoad(demand);
    PublishPcie(demand);
    PublishProcesses();
}

void BoardModel::PublishLoad(double demand) {
    const auto phase = static_cast<int64_t>(std::floor(Seconds() / kPhaseSeconds));
    const bool bRecords = Description.Load == Workload::Game && Random(kCoders, 2 * phase) < 0.5;
    const bool bPlays = Description.Load == Workload::Video;
    Current.GpuPercent = Rounded(GpuPercent);
    Current.MemoryPercent = Rounded(GpuPercent * Blend(0.35, 0.65, Random(kCoders, 2 * phase + 1)));
    Current.EncoderPercent = bRecords ? Rounded(40.0 * demand) : 0;
    Current.DecoderPercent = bPlays ? Rounded(60.0 * demand) : 0;
}

void BoardModel::PublishPcie(double demand) {
    const auto second = static_cast<int64_t>(std::floor(Seconds()));
    const double linkKiB = 900000.0 * Description.MaxPcieWidth / 16.0 * Description.MaxPcieGeneration;
    Current.PcieGeneration = IsIdle(demand) ? 1 : Description.MaxPcieGeneration;
    Current.PcieWidth = Description.MaxPcieWidth;
    Current.PcieReceiveKiBPerSecond = Rounded(linkKiB * demand * (0.2 + 0.4 * Random(kPcie, 2 * second)));
    Current.PcieTransmitKiBPerSecond = Rounded(linkKiB * demand * (0.05 + 0.1 * Random(kPcie, 2 * second + 1)));
}

void BoardModel::PublishProcesses() {
    Current.ComputeProcesses.clear();
    Current.GraphicsProcesses.clear();
    Current.VramUsedBytes = kReservedVramBytes;
    Current.Bar1UsedBytes = std::min<uint64_t>(kReservedVramBytes / 32, Description.Bar1TotalBytes);
    const auto freeBytes = static_cast<double>(Description.VramTotalBytes - kReservedVramBytes);
    unsigned int percentLeft = Current.GpuPercent;
    for (size_t slot = 0; slot < kSlots; ++slot) {
        // Every slot runs one program after another, each for its own time; the first slot is never empty.
        const double lifeSeconds = 40.0 + 23.0 * static_cast<double>(slot);
        const auto life = slot == 0 ? 0 : static_cast<int64_t>(std::floor(Seconds() / lifeSeconds));
        const uint64_t stream = kProcesses + 3 * slot;
        if (slot != 0 && Random(stream, life) > 0.6) continue;
        Process process;
        process.Pid = ProcessIdAt(slot, Random(stream + 1, life));
        const double share = slot == 1 ? 0.5 : 0.1;
        process.UsedBytes =
            static_cast<uint64_t>(freeBytes * share * (0.3 + 0.7 * Random(stream + 2, life))) & ~uint64_t{0xFFFF};
        process.GpuPercent = static_cast<unsigned int>(percentLeft * Random(kProcessLoad + slot, life));
        Current.VramUsedBytes += process.UsedBytes;
        percentLeft -= process.GpuPercent;
        // The seed alone decides about memory and load, whichever processes this system has.
        if (process.Pid == 0) continue;
        if (!Description.bDraws || slot % 2 == 1) Current.ComputeProcesses.push_back(process);
        if (Description.bDraws) Current.GraphicsProcesses.push_back(process);
    }
}

unsigned int BoardModel::ProcessIdAt(size_t slot, double choice) {
    const std::vector<unsigned int>& scripted = Description.ProcessIds;
    const size_t count = scripted.empty() ? System->Count() : scripted.size();
    if (slot >= count) return 0;
    // The first id is for the first slot; the other slots share the rest, so that a board lists no id twice.
    constexpr size_t kSharing = kSlots - 1;
    const size_t choices = slot == 0 ? 1 : (count - 1 - slot) / kSharing + 1;
    const size_t place = slot + kSharing * static_cast<size_t>(choice * static_cast<double>(choices));
    return scripted.empty() ? System->IdAt(place) : scripted[place];
}

}  // namespace simulated_nvml
