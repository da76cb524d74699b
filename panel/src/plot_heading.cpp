#include "plot_heading.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "gpu_feed/plotting.h"
#include "gpu_feed/reading_text.h"
#include "plot_drawing.h"

using namespace gpu_feed;

namespace gpu_panel {

namespace {

/// A text with a square of a color before it.
struct Part {
    ImU32 Color = 0;
    std::array<char, 40> Text{};
};

/// What is at the right end of a heading, in as few pixels as its form allows.
class Parts {
public:
    explicit Parts(float font) : Font(font) {}

    void Add(ImU32 color) {
        if (Count < List.size()) List[Count++] = {color};
    }
    /// To the text of the part that was added last.
    void Append(const char* text) {
        auto& last = List[Count - 1].Text;
        const size_t length = std::strlen(last.data());
        std::snprintf(last.data() + length, last.size() - length, "%s", text);
    }

    float Width() const {
        float width = 0.0F;
        for (size_t i = 0; i < Count; ++i) width += WidthOf(List[i]) + (i > 0 ? Font * 0.8F : 0.0F);
        return width;
    }

    void Draw(ImDrawList* list, ImVec2 position) const {
        const ImU32 textColor = ImGui::GetColorU32(ImGuiCol_Text);
        for (size_t i = 0; i < Count; ++i) {
            const float side = Font * 0.6F;
            const float top = position.y + (Font - side) / 2.0F;
            if (List[i].Color != 0) {
                list->AddRectFilled(ImVec2(position.x, top), ImVec2(position.x + side, top + side), List[i].Color);
            }
            list->AddText(ImVec2(position.x + SquareWidth(List[i]), position.y), textColor, List[i].Text.data());
            position.x += WidthOf(List[i]) + Font * 0.8F;
        }
    }

private:
    float SquareWidth(const Part& part) const { return part.Color != 0 ? Font * 0.9F : 0.0F; }
    float WidthOf(const Part& part) const { return SquareWidth(part) + ImGui::CalcTextSize(part.Text.data()).x; }

    float Font;
    std::array<Part, 6> List;
    size_t Count = 0;
};

std::string ValueText(const Curve& curve, const PlotKind& plot, const GpuTelemetrySample* sample) {
    const std::optional<double> value = sample != nullptr ? PlottedValue(curve, *sample) : std::nullopt;
    return value ? Number(*value, plot.Decimals) : kNotRead;
}

Parts ValuesOf(const PlotFrame& frame, const PlotColumns& columns, const PlotKind& plot, bool bNamed) {
    Parts parts(frame.Font);
    const bool bSquares = plot.EndCurve - plot.FirstCurve > 1 && kCurves[plot.EndCurve - 1].Role != CurveRole::Ceiling;
    for (size_t i = plot.FirstCurve; i < plot.EndCurve; ++i) {
        const Curve& curve = kCurves[i];
        const bool bCeiling = curve.Role == CurveRole::Ceiling;
        if (!columns.HasValues(i) || (bCeiling && (!bNamed || frame.Shown == nullptr))) continue;
        if (!bCeiling) parts.Add(bSquares ? ColorOf(curve.Role, CurrentPalette()) : 0);
        parts.Append(bNamed ? curve.Name : "");
        parts.Append(ValueText(curve, plot, frame.Shown).c_str());
    }
    parts.Append(" ");
    parts.Append(plot.Unit);
    return parts;
}

/// Draws the title on the left, `parts` on the right, and between them when the sample was taken, or else `fact`.
void DrawLine(const PlotFrame& frame, ImVec2 position, const char* title, const Parts& parts, const char* fact) {
    ImDrawList* const list = ImGui::GetWindowDrawList();
    const float gap = frame.Font * 0.8F;
    const float partsLeft = position.x + frame.Width - parts.Width();
    const float room = partsLeft - gap - position.x;
    PutFitted(position, room, ImGui::GetColorU32(ImGuiCol_Text), title);
    parts.Draw(list, ImVec2(partsLeft, position.y));
    const float factLeft = position.x + ImGui::CalcTextSize(title).x + gap;
    for (const char* text : {frame.When.data(), frame.Ago.data(), frame.bHovered ? "" : fact}) {
        if (*text == '\0' || ImGui::CalcTextSize(text).x > partsLeft - gap - factLeft) continue;
        list->AddText(ImVec2(factLeft, position.y), CurrentPalette().Dim, text);
        return;
    }
}

}  // namespace

void DrawHeading(const PlotFrame& frame, const PlotColumns& columns, size_t plot, ImVec2 position) {
    const PlotKind& kind = kPlots[plot];
    Parts values = ValuesOf(frame, columns, kind, true);
    const float titleWidth = ImGui::CalcTextSize(kind.Title).x + frame.Font;
    if (titleWidth + values.Width() > frame.Width) values = ValuesOf(frame, columns, kind, false);
    const EnergyCount energy = plot == kPowerPlot && !frame.bHovered ? frame.Energy() : EnergyCount();
    DrawLine(frame, position, kind.Title, values, energy.Seconds < 1.0 ? "" : WattHoursText(energy).c_str());
}

void DrawReasonHeading(const PlotFrame& frame, uint64_t reasons, ImVec2 position) {
    static constexpr const char* kTitle = "Limited by";
    const float room = frame.Width - ImGui::CalcTextSize("Limited by  +99 ").x;
    Parts parts(frame.Font);
    int left = 0;
    for (size_t bit = 0; bit < kReasonBits; ++bit) {
        if ((reasons >> bit & 1U) == 0) continue;
        Parts longer = parts;
        longer.Add(ColorOfReason(bit, CurrentPalette()));
        longer.Append(ReasonWord(bit));
        if (longer.Width() > room) {
            ++left;
        } else {
            parts = longer;
        }
    }
    if (left > 0 || reasons == 0) {
        parts.Add(0);
        parts.Append(reasons == 0 ? kNotRead : ('+' + std::to_string(left)).c_str());
    }
    DrawLine(frame, position, kTitle, parts, "");
}

}  // namespace gpu_panel
