#include "plot_drawing.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <string>

#include "gpu_feed/limit_reasons.h"

namespace gpu_panel {

namespace {

/// Points that are at most so far apart, in pixels, are drawn as one band, others as lines between them.
constexpr float kSideBySide = 2.5F;
/// Points per reservation: buffers of 16-bit indices are changed between reservations only.
constexpr size_t kChunk = 128;

/// Writes rows of vertices from left to right, each connected with the one before it.
template <size_t Rows>
class Strip {
public:
    explicit Strip(ImDrawList* list) : List(list), Uv(ImGui::GetFontTexUvWhitePixel()) {}

    void Reserve(size_t columns) {
        const auto spaces = static_cast<int>((columns - 1) * (Rows - 1));
        List->PrimReserve(6 * spaces, static_cast<int>(columns * Rows));
        bFirst = true;
    }

    void Add(float x, const std::array<float, Rows>& y, const std::array<ImU32, Rows>& colors) {
        const unsigned int base = List->_VtxCurrentIdx;
        for (size_t i = 0; i < Rows; ++i) List->PrimWriteVtx(ImVec2(x, y[i]), Uv, colors[i]);
        for (unsigned int i = 0; i + 1 < Rows && !bFirst; ++i) {
            const unsigned int before = base - static_cast<unsigned int>(Rows);
            for (const unsigned int corner : {before, base, base + 1, before, base + 1, before + 1}) {
                List->PrimWriteIdx(static_cast<ImDrawIdx>(corner + i));
            }
        }
        bFirst = false;
    }

private:
    ImDrawList* List;
    ImVec2 Uv;
    bool bFirst = true;
};

/// Draws points [first, last] as a band. Neighbours that have no value in common are made to touch.
void DrawBand(ImDrawList* list, const std::vector<CurvePoint>& points, size_t first, size_t last, ImU32 color,
              float thickness) {
    const float half = (thickness - 1.0F) / 2.0F;
    const ImU32 clear = WithAlpha(color, 0.0F);
    Strip<4> strip(list);
    for (size_t chunk = first; chunk < last; chunk += kChunk) {
        const size_t end = std::min(chunk + kChunk, last);
        strip.Reserve(end - chunk + 1);
        for (size_t i = chunk; i <= end; ++i) {
            const CurvePoint& before = points[i == first ? i : i - 1];
            const float top = std::min(points[i].Top, before.Bottom) - half;
            const float bottom = std::max(points[i].Bottom, before.Top) + half;
            strip.Add(points[i].X, {top - 1.0F, top, bottom, bottom + 1.0F}, {clear, color, color, clear});
        }
    }
}

/// The end of the points that begin at `first` and are side by side.
size_t LastBeside(const std::vector<CurvePoint>& points, size_t first) {
    size_t last = first;
    while (last + 1 < points.size() && points[last + 1].bConnected &&
           points[last + 1].X - points[last].X <= kSideBySide) {
        ++last;
    }
    return last;
}

void DrawSinglePoint(ImDrawList* list, const CurvePoint& point, ImU32 color, float thickness) {
    const float half = thickness / 2.0F;
    list->AddRectFilled(ImVec2(point.X - half, point.Top - half), ImVec2(point.X + half, point.Bottom + half), color);
}

void DrawConnection(ImDrawList* list, const CurvePoint& from, const CurvePoint& to, ImU32 color, float thickness) {
    const float fromY = std::clamp((to.Top + to.Bottom) / 2.0F, from.Top, from.Bottom);
    const float toY = std::clamp(fromY, to.Top, to.Bottom);
    // ImGui draws lines half a pixel to the right and below.
    list->AddLine(ImVec2(from.X - 0.5F, fromY - 0.5F), ImVec2(to.X - 0.5F, toY - 0.5F), color, thickness);
}

/// How a limiting reason looks.
enum class ReasonKind { Idle, Harmless, Danger };

struct Reason {
    std::string Word;
    ReasonKind Kind = ReasonKind::Harmless;
    /// Among those that are harmless.
    size_t Place = 0;
};

const std::array<Reason, kReasonBits>& Reasons() {
    static const std::array<Reason, kReasonBits> kReasons = [] {
        std::array<Reason, kReasonBits> reasons;
        size_t harmless = 0;
        for (size_t bit = 0; bit < kReasonBits; ++bit) {
            const gpu_feed::LimitReason reason = gpu_feed::LimitReasons(uint64_t{1} << bit).front();
            const ReasonKind other = reason.bDanger ? ReasonKind::Danger : ReasonKind::Harmless;
            const ReasonKind kind = reason.bIdle ? ReasonKind::Idle : other;
            reasons[bit] = {reason.Word, kind, kind == ReasonKind::Harmless ? harmless++ : 0};
        }
        return reasons;
    }();
    return kReasons;
}

}  // namespace

void DrawCurve(ImDrawList* list, const std::vector<CurvePoint>& points, ImU32 color, float thickness) {
    for (size_t first = 0; first < points.size();) {
        const size_t last = LastBeside(points, first);
        if (last > first) {
            DrawBand(list, points, first, last, color, thickness);
        } else if (const CurvePoint& point = points[first];
                   point.Bottom > point.Top || !point.bConnected || first + 1 == points.size()) {
            DrawSinglePoint(list, point, color, thickness);
        }
        first = last + 1;
        if (first < points.size() && points[first].bConnected) {
            DrawConnection(list, points[last], points[first], color, thickness);
        }
    }
}

void FillBelow(ImDrawList* list, const std::vector<CurvePoint>& points, ImU32 color, float base) {
    const std::array<ImU32, 2> colors = {WithAlpha(color, 0.28F), WithAlpha(color, 0.06F)};
    Strip<2> strip(list);
    for (size_t first = 0; first < points.size();) {
        size_t last = first;
        while (last + 1 < points.size() && points[last + 1].bConnected && last - first < kChunk) ++last;
        if (last > first) {
            strip.Reserve(last - first + 1);
            for (size_t i = first; i <= last; ++i) strip.Add(points[i].X, {points[i].Bottom, base}, colors);
        }
        const bool bGoesOn = last + 1 < points.size() && points[last + 1].bConnected;
        first = bGoesOn ? last : last + 1;
    }
}

ImU32 ColorOf(CurveRole role, const Palette& palette) {
    switch (role) {
        case CurveRole::First: return palette.Accent;
        case CurveRole::Second: return palette.Warning;
        case CurveRole::Limit:
        case CurveRole::Ceiling: break;
    }
    return palette.Danger;
}

ImU32 ColorOfReason(size_t bit, const Palette& palette) {
    // Of about the same lightness, so that they differ from both backgrounds.
    const ImU32 harmless[] = {palette.Accent, IM_COL32(205, 165, 0, 255), IM_COL32(190, 110, 170, 255),
                              IM_COL32(0, 158, 115, 255)};
    const Reason& reason = Reasons()[bit];
    switch (reason.Kind) {
        case ReasonKind::Idle: return WithAlpha(palette.Dim, 0.5F);
        case ReasonKind::Danger: return palette.Danger;
        case ReasonKind::Harmless: break;
    }
    return harmless[reason.Place % std::size(harmless)];
}

ImU32 FaintColor(float strength) {
    return ImGui::GetColorU32(ImGuiCol_Text, strength);
}

const char* ReasonWord(size_t bit) {
    return Reasons()[bit].Word.c_str();
}

}  // namespace gpu_panel
