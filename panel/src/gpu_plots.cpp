#include "gpu_plots.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "gpu_feed/plotting.h"
#include "gpu_feed/reading_text.h"
#include "imgui.h"
#include "plot_field.h"
#include "plot_heading.h"

using namespace gpu_feed;

namespace gpu_panel {

namespace {

float YOf(double value, double top, float highest, float height) {
    return highest + height * static_cast<float>(1.0 - value / top);
}

/// Labels beside the field, or in its corner where there is no room beside it.
void DrawValueLabels(const PlotFrame& frame, const ValueAxis& axis, ImVec2 corner, ImDrawList* list) {
    const ImU32 color = CurrentPalette().Dim;
    const int decimals = DecimalsOf(axis.Step());
    if (frame.Gutter == 0.0F) {
        list->AddText(ImVec2(corner.x + 2.0F, corner.y), color, Number(axis.Top(), decimals).c_str());
        return;
    }
    const float right = corner.x - frame.Font * 0.3F;
    for (int i = 0; i <= axis.Steps(); ++i) {
        const double value = i * axis.Step();
        const std::string text = Number(value, decimals);
        const float y = YOf(value, axis.Top(), corner.y, frame.FieldHeight()) - frame.Font / 2.0F;
        const float lowest = corner.y + frame.FieldHeight() - frame.Font;
        list->AddText(ImVec2(right - ImGui::CalcTextSize(text.c_str()).x, std::clamp(y, corner.y, lowest)), color,
                      text.c_str());
    }
}

void DrawValueLines(const PlotFrame& frame, const ValueAxis& axis, ImVec2 corner, ImDrawList* list) {
    const ImU32 color = FaintColor(0.1F);
    for (int i = 1; i <= axis.Steps(); ++i) {
        const float y = std::floor(YOf(i * axis.Step(), axis.Top(), corner.y, frame.FieldHeight()));
        list->AddLine(ImVec2(corner.x, y), ImVec2(corner.x + frame.FieldWidth, y), color);
    }
}

}  // namespace

void GpuPlots::Draw(const FeedGpu& gpu, const FeedMoment& moment, TimeAxis* axis) {
    PlotFrame frame(gpu, moment, axis, ImGui::GetContentRegionAvail().x);
    if (!gpu.Samples.empty()) axis->Include(gpu.Samples.front().TimestampSeconds);
    // Only plots that are seen are prepared anew for another scale.
    const float height = HeightOf(frame);
    const bool bVisible = ImGui::IsRectVisible(ImVec2(frame.Width, height));
    if (bVisible) {
        Columns.Update(gpu.Samples, frame.Interval, frame.ColumnSeconds);
    } else {
        Columns.Update(gpu.Samples, frame.Interval);
    }
    const ImVec2 start = ImGui::GetCursorScreenPos();
    if (bVisible && height > 0.0F) {
        frame.ChooseSample();
        FindColumns(frame);
        ImGui::PushID(this);
        ImVec2 position = start;
        for (size_t plot = 0; plot < kPlots.size(); ++plot) {
            if (IsShown(plot)) {
                DrawPlot(frame, plot, position);
                position.y += frame.HeadingHeight() + frame.FieldHeight() + frame.Space();
            }
            if (plot == kPowerPlot && Columns.HasReasons()) {
                DrawReasons(frame, position);
                position.y += frame.HeadingHeight() + frame.BandHeight() + frame.Space();
            }
        }
        DrawTimeLabels(frame, ImVec2(position.x + frame.Gutter, position.y - frame.Space()));
        ImGui::PopID();
        ImGui::SetCursorScreenPos(start);
    }
    ImGui::Dummy(ImVec2(frame.Width, height));
}

bool GpuPlots::IsShown(size_t plot) const {
    for (size_t curve = kPlots[plot].FirstCurve; curve < kPlots[plot].EndCurve; ++curve) {
        const CurveRole role = kCurves[curve].Role;
        if ((role == CurveRole::First || role == CurveRole::Second) && Columns.HasValues(curve)) return true;
    }
    return false;
}

float GpuPlots::HeightOf(const PlotFrame& frame) const {
    float height = 0.0F;
    for (size_t plot = 0; plot < kPlots.size(); ++plot) {
        if (IsShown(plot)) height += frame.HeadingHeight() + frame.FieldHeight() + frame.Space();
    }
    if (Columns.HasReasons()) height += frame.HeadingHeight() + frame.BandHeight() + frame.Space();
    return height > 0.0F ? height + frame.Font : 0.0F;
}

void GpuPlots::FindColumns(const PlotFrame& frame) {
    FirstColumn = Columns.Find(frame.FirstColumn());
    EndColumn = Columns.Find(frame.LastColumn + 1);
    if (FirstColumn > Columns.Begin()) --FirstColumn;
    if (EndColumn < Columns.End()) ++EndColumn;
    Points.reserve(static_cast<size_t>(frame.FieldWidth) + 2);
}

void GpuPlots::FitAxis(size_t plot) {
    const PlotKind& kind = kPlots[plot];
    auto highest = static_cast<float>(kind.LeastTop);
    for (size_t curve = kind.FirstCurve; curve < kind.EndCurve; ++curve) {
        for (size_t i = FirstColumn; i < EndColumn; ++i) {
            // In this order, NaN does not count.
            highest = std::max(highest, Columns.ValuesAt(curve, i).Highest);
        }
        if (kCurves[curve].Role == CurveRole::Ceiling && highest > kind.LeastTop) return Axes[plot].EndAt(highest);
    }
    Axes[plot].Reach(static_cast<double>(highest));
}

void GpuPlots::DrawPlot(const PlotFrame& frame, size_t plot, ImVec2 position) {
    const ImVec2 corner(position.x + frame.Gutter, position.y + frame.HeadingHeight());
    const ImVec2 end(corner.x + frame.FieldWidth, corner.y + frame.FieldHeight());
    if (!ImGui::IsRectVisible(position, end)) return;
    DrawHeading(frame, Columns, plot, position);
    FitAxis(plot);
    const ValueAxis& axis = Axes[plot];
    if (frame.Gutter > 0.0F) DrawValueLabels(frame, axis, corner, ImGui::GetWindowDrawList());
    const PlotField field(frame, kPlots[plot].Title, corner, frame.FieldHeight());
    if (field.List() == nullptr) return;
    DrawValueLines(frame, axis, corner, field.List());
    DrawCurves(frame, plot, corner);
    if (frame.Gutter == 0.0F) DrawValueLabels(frame, axis, corner, field.List());
}

void GpuPlots::DrawCurves(const PlotFrame& frame, size_t plot, ImVec2 corner) {
    const double top = Axes[plot].Top();
    ImDrawList* const list = ImGui::GetWindowDrawList();
    const Palette palette = CurrentPalette();
    for (size_t curve = kPlots[plot].FirstCurve; curve < kPlots[plot].EndCurve; ++curve) {
        const Curve& drawn = kCurves[curve];
        if (drawn.Role == CurveRole::Ceiling) continue;
        const ImU32 color = ColorOf(drawn.Role, palette);
        PlaceCurve(frame, curve, corner, top);
        if (drawn.Role == CurveRole::First) FillBelow(list, Points, color, corner.y + frame.FieldHeight());
        DrawCurve(list, Points, color, frame.LineThickness());
        if (!frame.bHovered || frame.Shown == nullptr) continue;
        if (const std::optional<double> value = PlottedValue(drawn, *frame.Shown)) {
            const ImVec2 center(frame.XOf(Columns.ColumnOf(frame.Shown->TimestampSeconds), corner.x),
                                YOf(*value, top, corner.y, frame.FieldHeight()));
            list->AddCircleFilled(center, frame.Font * 0.25F, color);
        }
    }
}

void GpuPlots::PlaceCurve(const PlotFrame& frame, size_t curve, ImVec2 corner, double top) {
    const auto scale = frame.FieldHeight() / static_cast<float>(top);
    const float bottom = corner.y + frame.FieldHeight();
    Points.clear();
    bool bConnected = false;
    for (size_t i = FirstColumn; i < EndColumn; ++i) {
        const auto& [lowest, highest] = Columns.ValuesAt(curve, i);
        bConnected = bConnected && !Columns.IsBehindGap(i);
        if (std::isnan(lowest)) {
            bConnected = false;
            continue;
        }
        Points.push_back(
            {frame.XOf(Columns.ColumnAt(i), corner.x), bottom - highest * scale, bottom - lowest * scale, bConnected});
        bConnected = true;
    }
}

void GpuPlots::DrawReasons(const PlotFrame& frame, ImVec2 position) const {
    uint64_t reasons = 0;
    if (!frame.bHovered) {
        for (size_t i = FirstColumn; i < EndColumn; ++i) reasons |= Columns.ReasonsAt(i);
    } else if (frame.Shown != nullptr) {
        reasons = frame.Shown->PerformanceLimitReasons;
    }
    const ImVec2 corner(position.x + frame.Gutter, position.y + frame.HeadingHeight());
    if (!ImGui::IsRectVisible(position, ImVec2(corner.x + frame.FieldWidth, corner.y + frame.BandHeight()))) return;
    DrawReasonHeading(frame, reasons, position);
    const PlotField field(frame, "Limited by", corner, frame.BandHeight());
    if (field.List() != nullptr) DrawReasonBand(frame, corner);
}

void GpuPlots::DrawReasonBand(const PlotFrame& frame, ImVec2 corner) const {
    ImDrawList* const list = ImGui::GetWindowDrawList();
    const Palette palette = CurrentPalette();
    for (size_t first = FirstColumn; first < EndColumn;) {
        const uint64_t reasons = Columns.ReasonsAt(first);
        size_t end = first + 1;
        while (end < EndColumn && Columns.ReasonsAt(end) == reasons && !Columns.IsBehindGap(end)) ++end;
        const bool bGoesOn = end < EndColumn && !Columns.IsBehindGap(end);
        const float left = frame.XOf(Columns.ColumnAt(first), corner.x) - 0.5F;
        const float right = frame.XOf(Columns.ColumnAt(bGoesOn ? end : end - 1), corner.x) + (bGoesOn ? -0.5F : 0.5F);
        first = end;
        int count = 0;
        for (uint64_t rest = reasons; rest != 0; rest &= rest - 1) ++count;
        const float height = frame.BandHeight() / static_cast<float>(std::max(count, 1));
        float top = corner.y;
        for (size_t bit = 0; bit < kReasonBits; ++bit) {
            if ((reasons >> bit & 1U) == 0) continue;
            list->AddRectFilled(ImVec2(left, top), ImVec2(right, top + height), ColorOfReason(bit, palette));
            top += height;
        }
    }
}

}  // namespace gpu_panel
