#include "gpu_facts.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "gpu_feed/gpu_summary.h"
#include "gpu_feed/limit_reasons.h"
#include "gpu_feed/reading_text.h"

using namespace gpu_feed;

namespace gpu_panel {

namespace {

using Sample = GpuTelemetrySample;

constexpr double kFullMemory = 0.95;

float Part(std::optional<double> value, std::optional<double> whole) {
    const double all = whole.value_or(0.0);
    if (!value || all <= 0.0) return -1.0F;
    return static_cast<float>(std::clamp(*value / all, 0.0, 1.0));
}

/// The power that the whole gauge stands for.
double HighestPower(const Sample& sample) {
    return std::max({sample.PowerLimitWatts, sample.DefaultPowerLimitWatts, sample.MaximumPowerLimitWatts});
}

struct Gauge {
    const char* Label;
    ReadingId Shown;
    /// Of the same unit: the value that `Shown` is a part of. Otherwise it is a part of 100.
    std::optional<ReadingId> Whole = std::nullopt;
    /// These limit reasons are about this value.
    uint64_t Reasons = 0;
    Tone Reasoned = Tone::Normal;
};

constexpr std::array<Gauge, GpuFacts::kGaugeCount> kGauges = {{
    {"GPU", ReadingId::GpuUtilization},
    {"Power", ReadingId::Power, ReadingId::PowerLimit, kPowerReasons, Tone::Warning},
    {"Temperature", ReadingId::Temperature, std::nullopt, kThermalReasons, Tone::Danger},
    {"VRAM", ReadingId::VramUsed, ReadingId::VramTotal},
    {"Memory I/O", ReadingId::MemoryUtilization},
    {"Fan", ReadingId::Fan},
    {"Encoder", ReadingId::EncoderUtilization},
    {"Decoder", ReadingId::DecoderUtilization},
}};

/// "1 / 2 MiB"; a part without a whole stands alone.
void WritePart(ReadingId part, ReadingId whole, const Sample& sample, std::string* text) {
    const bool bWhole = ReadingValue(part, sample) && ReadingValue(whole, sample);
    *text += bWhole ? ReadingNumber(part, sample) : ReadingText(part, sample);
    if (!bWhole) return;
    *text += " / ";
    *text += ReadingText(whole, sample);
}

void WriteGauge(const Gauge& gauge, const Sample& sample, GaugeFact* fact) {
    const std::optional<double> value = ReadingValue(gauge.Shown, sample);
    const std::optional<double> whole = gauge.Whole ? ReadingValue(*gauge.Whole, sample) : std::nullopt;
    fact->Label = gauge.Label;
    fact->Value.clear();
    if (gauge.Whole) {
        WritePart(gauge.Shown, *gauge.Whole, sample, &fact->Value);
    } else {
        fact->Value += ReadingText(gauge.Shown, sample);
    }
    fact->Fraction = Part(value, gauge.Whole ? whole : 100.0);
    fact->Look = (sample.PerformanceLimitReasons & gauge.Reasons) != 0 ? gauge.Reasoned : Tone::Normal;
    if (gauge.Shown == ReadingId::Power) {
        fact->Fraction = Part(value, HighestPower(sample));
        fact->Mark = Part(whole, HighestPower(sample));
    }
    if (gauge.Shown == ReadingId::VramUsed && fact->Fraction >= kFullMemory) fact->Look = Tone::Warning;
}

// ---- Details ----

struct Detail {
    const char* Label;
    void (*Write)(const FeedGpu& gpu, std::string* text);
};

template <ReadingId Id>
void WriteReading(const FeedGpu& gpu, std::string* text) {
    *text += ReadingText(Id, gpu.Latest);
}

void WritePerformanceState(const FeedGpu& gpu, std::string* text) {
    if (ReadingValue(ReadingId::PerformanceState, gpu.Latest)) *text += 'P';
    *text += ReadingText(ReadingId::PerformanceState, gpu.Latest);
}

void WriteLink(const FeedGpu& gpu, std::string* text) {
    if (ReadingValue(ReadingId::PcieGeneration, gpu.Latest)) *text += "gen ";
    *text += ReadingText(ReadingId::PcieGeneration, gpu.Latest);
    if (!ReadingValue(ReadingId::PcieWidth, gpu.Latest)) return;
    *text += " x";
    *text += ReadingNumber(ReadingId::PcieWidth, gpu.Latest);
}

void WriteBar1(const FeedGpu& gpu, std::string* text) {
    WritePart(ReadingId::Bar1Used, ReadingId::Bar1Total, gpu.Latest, text);
}

void WriteEnergy(const FeedGpu& gpu, std::string* text) {
    if (gpu.Energy.Seconds <= 0.0) {
        *text += kNotRead;
        return;
    }
    const double wattHours = gpu.Energy.Joules / 3600.0;
    *text += Number(wattHours, wattHours < 10.0 ? 2 : 0);
    *text += " Wh";
}

constexpr std::array<Detail, GpuFacts::kDetailCount> kDetails = {{
    {"Graphics clock", WriteReading<ReadingId::GraphicsClock>},
    {"Memory clock", WriteReading<ReadingId::MemoryClock>},
    {"SM clock", WriteReading<ReadingId::SmClock>},
    {"Video clock", WriteReading<ReadingId::VideoClock>},
    {"State", WritePerformanceState},
    {"Frame time", WriteReading<ReadingId::FrameTime>},
    {"PCIe", WriteLink},
    {"PCIe rx", WriteReading<ReadingId::PcieReceive>},
    {"PCIe tx", WriteReading<ReadingId::PcieTransmit>},
    {"BAR1", WriteBar1},
    {"Energy", WriteEnergy},
}};

}  // namespace

bool GpuFacts::IsCurrent() const {
    return LatestState == GpuState::Live || LatestState == GpuState::Paused;
}

void GpuFacts::Update(const FeedMoment& moment, const std::shared_ptr<const FeedGpu>& gpu) {
    if (Data != moment.Data) {
        // A rescan can give the GPU another index.
        if (Title.empty() || gpu->Device.Index != Shown->Device.Index) Title = GpuTitle(gpu->Device);
        Data = moment.Data;
        Shown = gpu;
        UpdateValues();
        UpdateOutstanding(*Data);
    }
    UpdateState(moment);
}

void GpuFacts::UpdateValues() {
    const Sample& sample = Shown->Latest;
    for (size_t i = 0; i < kGauges.size(); ++i) WriteGauge(kGauges[i], sample, &Gauges[i]);
    for (size_t i = 0; i < kDetails.size(); ++i) {
        Details[i].Label = kDetails[i].Label;
        Details[i].Value.clear();
        kDetails[i].Write(*Shown, &Details[i].Value);
    }
    constexpr ReadingId kKeyReadings[] = {ReadingId::Power, ReadingId::Temperature, ReadingId::GpuUtilization};
    for (size_t i = 0; i < KeyFigures.size(); ++i) KeyFigures[i] = ReadingText(kKeyReadings[i], sample);
    Utilization = std::max(Gauges[0].Fraction, 0.0F);
    if (Limits.empty() || LimitMask != sample.PerformanceLimitReasons) UpdateLimits();
}

void GpuFacts::UpdateLimits() {
    LimitMask = Shown->Latest.PerformanceLimitReasons;
    Limits.clear();
    for (const LimitReason& limit : ShownLimits(Shown->Latest)) {
        Limits.push_back({limit.Word, limit.bDanger ? Tone::Danger : limit.bIdle ? Tone::Quiet : Tone::Warning});
    }
}

void GpuFacts::UpdateState(const FeedMoment& moment) {
    const GpuState state = StateOf(moment, *Shown);
    // The age shows only while there is no data.
    const double age = state == GpuState::NoData ? std::floor(AgeOf(moment, *Shown)) : 0.0;
    const double period = Shown->PeriodSeconds;
    const bool bSamePeriod = std::abs(period - StatePeriod) <= 0.1 * StatePeriod;
    if (!StateText.empty() && state == LatestState && age == StateAge && bSamePeriod) return;
    LatestState = state;
    StateAge = age;
    StatePeriod = period;
    StateText = SummaryOf(moment, Shown).State;
}

void GpuFacts::UpdateOutstanding(const FeedData& data) {
    size_t count = 0;
    for (const TuningControl control : {TuningControl::Clocks, TuningControl::Power}) {
        const TuningRecord* const record = data.FindOutstanding(Shown->Key, control);
        if (record == nullptr) continue;
        if (Outstanding.size() <= count) Outstanding.emplace_back();
        Outstanding[count++].Update(*record, "Changed here: ");
    }
    Outstanding.resize(count);
}

}  // namespace gpu_panel
