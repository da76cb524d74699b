#include "gpu_section.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string_view>
#include <utility>

#include "gpu_feed/reading_text.h"
#include "imgui.h"
#include "look.h"

using namespace gpu_feed;

namespace gpu_panel {

namespace {

// In font sizes.
constexpr float kCellWidth = 12.6F;
constexpr float kFigureWidth = 4.2F;

constexpr ImGuiTreeNodeFlags kPartFlags = ImGuiTreeNodeFlags_SpanAvailWidth | ImGuiTreeNodeFlags_NoTreePushOnOpen;
/// Marks a GPU whose settings the program has changed.
constexpr std::string_view kChanged = "changed";
constexpr std::string_view kUnknown = kNotRead;

ImU32 ColorOf(Tone tone, const Palette& palette) {
    switch (tone) {
        case Tone::Quiet: return palette.Dim;
        case Tone::Warning: return palette.Warning;
        case Tone::Danger: return palette.Danger;
        case Tone::Normal: break;
    }
    return palette.Accent;
}

ImU32 ColorOf(GpuState state, const Palette& palette) {
    switch (state) {
        case GpuState::Live: return palette.Good;
        case GpuState::NoData: return palette.Danger;
        case GpuState::Paused: return palette.Warning;
        case GpuState::Starting:
        case GpuState::Unavailable: break;
    }
    return palette.Dim;
}

/// A disc while there are readings and a ring while there are none, so that the color is not all.
void PutMark(ImVec2 center, GpuState state, const Palette& palette) {
    const float radius = ImGui::GetFontSize() * 0.28F;
    ImDrawList* const list = ImGui::GetWindowDrawList();
    const ImU32 color = ColorOf(state, palette);
    if (state == GpuState::Live) {
        list->AddCircleFilled(center, radius, color);
    } else {
        list->AddCircle(center, radius, color, 0, radius * 0.5F);
    }
}

float PutRight(ImVec2 end, ImU32 color, std::string_view text) {
    const float width = ImGui::CalcTextSize(text.data(), text.data() + text.size()).x;
    ImGui::GetWindowDrawList()->AddText({end.x - width, end.y}, color, text.data(), text.data() + text.size());
    return end.x - width;
}

/// Puts a label at the left end of a cell and its value at the right end.
void PutLabelled(ImVec2 from, float width, const LabelledFact& fact, bool bCurrent) {
    const Palette palette = CurrentPalette();
    ImGui::GetWindowDrawList()->AddText(from, palette.Dim, fact.Label);
    const float room = width - ImGui::CalcTextSize(fact.Label).x - 0.5F * ImGui::GetFontSize();
    const float valueWidth = std::min(ImGui::CalcTextSize(fact.Value.c_str()).x, room);
    PutFitted({from.x + width - valueWidth, from.y}, valueWidth + 1.0F, bCurrent ? palette.Text : palette.Dim,
              fact.Value);
}

void PutGauge(ImVec2 from, float width, const GaugeFact& fact, bool bCurrent) {
    PutLabelled(from, width, fact, bCurrent);
    const Palette palette = CurrentPalette();
    const float em = ImGui::GetFontSize();
    ImDrawList* const list = ImGui::GetWindowDrawList();
    const float top = from.y + ImGui::GetTextLineHeight() + 0.15F * em;
    const float bottom = top + 0.4F * em;
    const float rounding = 0.15F * em;
    list->AddRectFilled({from.x, top}, {from.x + width, bottom}, palette.Track, rounding);
    if (fact.Fraction > 0.0F) {
        const ImU32 color = bCurrent ? ColorOf(fact.Look, palette) : palette.Track;
        list->AddRectFilled({from.x, top}, {from.x + std::max(width * fact.Fraction, 2.0F), bottom}, color, rounding);
    }
    if (fact.Mark >= 0.0F) {
        const float x = from.x + width * fact.Mark;
        const float half = std::max(0.08F * em, 1.0F);
        list->AddRectFilled({x - half, top - 0.15F * em}, {x + half, bottom + 0.15F * em},
                            bCurrent ? palette.Text : palette.Dim);
    }
}

/// Puts the state of a GPU to the left of `end`, as far as there is `room`. Result: where it begins.
float PutState(const GpuFacts& facts, ImVec2 end, float room) {
    const Palette palette = CurrentPalette();
    const float width = std::min(ImGui::CalcTextSize(facts.StateText.c_str()).x, room);
    const ImU32 color = facts.State() == GpuState::Live ? palette.Dim : ColorOf(facts.State(), palette);
    PutFitted({end.x - width, end.y}, width + 1.0F, color, facts.StateText);
    return end.x - width;
}

/// Puts what is most important of a GPU to the left of `end`, in the same columns for all GPUs, as far as there is
/// `room`. Result: where it begins.
float PutKeyFigures(const GpuFacts& facts, ImVec2 end, float room) {
    const float column = kFigureWidth * ImGui::GetFontSize();
    const float least = end.x - room;
    for (size_t i = facts.KeyFigures.size(); i-- > 0 && end.x - column >= least;) {
        PutRight(end, CurrentPalette().Text, facts.KeyFigures[i]);
        end.x -= column;
    }
    return end.x;
}

/// Puts the right part of a heading to the left of `end`; the title begins at `titleX`. Result: where it begins.
float PutHeadingEnd(const GpuFacts& facts, ImVec2 end, float titleX, bool bAlone) {
    const float room = end.x - titleX;
    if (!facts.IsCurrent()) return PutState(facts, end, 0.6F * room);
    if (!bAlone) return PutKeyFigures(facts, end, 0.6F * room);
    // The gauges are right below. The title is more important than a state without a problem.
    const float width = ImGui::CalcTextSize(facts.StateText.c_str()).x + ImGui::GetFontSize();
    return ImGui::CalcTextSize(facts.Title.c_str()).x + width <= room ? PutState(facts, end, room) : end.x;
}

}  // namespace

GpuSection::GpuSection(FeedRequests* feed, std::string gpuKey, std::string simulateOption)
    : Feed(feed), GpuKey(std::move(gpuKey)), SimulateOption(std::move(simulateOption)) {}

void GpuSection::Update(const FeedMoment& moment, const std::shared_ptr<const FeedGpu>& gpu) {
    Gpu = gpu;
    Facts.Update(moment, gpu);
}

void GpuSection::Draw(const FeedMoment& moment, TimeAxis* axis, bool bAlone, bool bOpenAtFirst) {
    ImGui::PushID(GpuKey.c_str());
    if (DrawHeading(bAlone, bOpenAtFirst)) {
        DrawBody(moment, axis);
        ImGui::Spacing();
    }
    ImGui::PopID();
}

// ---- Heading ----

bool GpuSection::DrawHeading(bool bAlone, bool bOpenAtFirst) {
    bool bOpen = true;
    // What the heading shows is drawn over it, so that its id never changes.
    if (bAlone) {
        ImGui::Dummy({ImGui::GetContentRegionAvail().x, ImGui::GetFrameHeight()});
    } else {
        bOpen = ImGui::CollapsingHeader("##gpu", bOpenAtFirst ? ImGuiTreeNodeFlags_DefaultOpen : 0);
    }
    const float em = ImGui::GetFontSize();
    const Palette palette = CurrentPalette();
    const ImVec2 from = ImGui::GetItemRectMin();
    const ImVec2 to = ImGui::GetItemRectMax();
    const float y = from.y + ImGui::GetStyle().FramePadding.y;
    const float left = from.x + (bAlone ? 0.0F : ImGui::GetTreeNodeToLabelSpacing());
    PutMark({left + 0.4F * em, (from.y + to.y) * 0.5F}, Facts.State(), palette);
    const float titleX = left + 1.1F * em;
    float right = PutHeadingEnd(Facts, {to.x - (bAlone ? 0.0F : 0.5F * em), y}, titleX, bAlone);
    if (!Facts.Outstanding.empty()) right = PutRight({right - 0.5F * em, y}, palette.Warning, kChanged);
    PutFitted({titleX, y}, right - 0.5F * em - titleX, Facts.IsCurrent() ? palette.Text : palette.Dim, Facts.Title);
    if (Facts.IsCurrent() && !bAlone) {
        ImGui::GetWindowDrawList()->AddRectFilled({from.x, to.y - std::max(0.12F * em, 1.0F)},
                                                  {from.x + (to.x - from.x) * Facts.Utilization, to.y}, palette.Accent);
    }
    return bOpen;
}

// ---- Body ----

void GpuSection::DrawBody(const FeedMoment& moment, TimeAxis* axis) {
    // An open part for clocks and power asks about its own change.
    for (const OutstandingChange& change : Facts.Outstanding) {
        change.Draw(Feed, moment.Now, !bTuningOpen || !Tuning->IsChanging(change.Control()));
    }
    // The panel says it once for all GPUs when the driver hangs.
    if (Facts.State() == GpuState::NoData && !IsDriverHanging(moment)) {
        Banner(CurrentPalette().Danger, Facts.HasValues()
                                            ? "This GPU gives no readings. What is shown are its last known values."
                                            : "This GPU has given no readings yet.");
    }
    if (Facts.HasValues()) {
        ImGui::Spacing();
        DrawLimits();
        ImGui::Spacing();
        DrawGauges();
        DrawDetails();
        if (ImGui::TreeNodeEx("History", kPartFlags | ImGuiTreeNodeFlags_DefaultOpen)) Plots.Draw(*Gpu, moment, axis);
    }
    // Above the processes: these come and go, and buttons that change a GPU must not move below the pointer.
    DrawTuning(moment);
    if (ImGui::TreeNodeEx("processes", kPartFlags | ImGuiTreeNodeFlags_DefaultOpen, "Processes (%zu)",
                          Gpu->Processes.size())) {
        Processes.Draw(Gpu, Facts.IsCurrent());
    }
    if (ImGui::TreeNodeEx("About this GPU", kPartFlags)) DrawIdentity();
}

void GpuSection::DrawLimits() {
    const Palette palette = CurrentPalette();
    ImGui::PushStyleColor(ImGuiCol_Text, palette.Dim);
    ImGui::TextUnformatted("Limited by");
    ImGui::PopStyleColor();
    for (const TonedWord& limit : Facts.Limits) {
        const ImU32 color = Facts.IsCurrent() ? ColorOf(limit.Look, palette) : palette.Dim;
        SameLineIfRoomFor(ChipWidth(limit.Word));
        if (limit.Look == Tone::Quiet) {
            FittedText(ImGui::GetContentRegionAvail().x, color, limit.Word);
        } else {
            Chip(color, limit.Word);
        }
    }
}

void GpuSection::DrawGauges() {
    const float em = ImGui::GetFontSize();
    Grid grid(GpuFacts::kGaugeCount, kCellWidth * em, ImGui::GetTextLineHeight() + 1.1F * em);
    for (const GaugeFact& gauge : Facts.Gauges) PutGauge(grid.Next(), grid.CellWidth(), gauge, Facts.IsCurrent());
}

void GpuSection::DrawDetails() {
    Grid grid(GpuFacts::kDetailCount, kCellWidth * ImGui::GetFontSize(), ImGui::GetTextLineHeightWithSpacing());
    for (const LabelledFact& detail : Facts.Details) {
        PutLabelled(grid.Next(), grid.CellWidth(), detail, Facts.IsCurrent());
    }
}

void GpuSection::DrawTuning(const FeedMoment& moment) {
    bTuningOpen = ImGui::TreeNodeEx("Clocks and power limit", kPartFlags);
    if (!bTuningOpen) return;
    if (!Tuning) Tuning.emplace(Feed, GpuKey, SimulateOption);
    Tuning->Draw(moment);
}

void GpuSection::DrawIdentity() const {
    const GpuDeviceInfo& device = Gpu->Device;
    const std::pair<const char*, const std::string&> kLines[] = {
        {"Name", device.Name},
        {"UUID", device.Uuid},
        {"PCI bus id", device.PciBusId},
        {"Architecture", device.Architecture},
        {"Driver", device.DriverVersion},
        {"VBIOS", device.VbiosVersion},
    };
    const Palette palette = CurrentPalette();
    const float labelWidth = ImGui::GetFontSize() * 7.0F;
    for (const auto& [label, text] : kLines) {
        const ImVec2 from = ImGui::GetCursorScreenPos();
        ImGui::GetWindowDrawList()->AddText(from, palette.Dim, label);
        ImGui::SetCursorScreenPos({from.x + labelWidth, from.y});
        FittedText(ImGui::GetContentRegionAvail().x, palette.Text, text.empty() ? kUnknown : std::string_view(text));
        if (ImGui::IsItemHovered()) ImGui::SetTooltip("%s", text.c_str());
    }
}

}  // namespace gpu_panel
