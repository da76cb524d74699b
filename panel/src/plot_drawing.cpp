#include "plot_drawing.h"

#include <algorithm>
#include <array>
#include <string>

#include "gpu_feed/limit_reasons.h"

namespace gpu_panel {

namespace {

/// Points that are at most so far apart, in pixels, are drawn as one band, others as lines between them.
constexpr float kSideBySide = 2.5F;
/// Points per reservation: buffers of 16-bit indices are changed between reservations only.
constexpr size_t kChunk = 128;
constexpr size_t kReasonBits = 64;

ImU32 WithAlpha(ImU32 color, float share) {
    const auto alpha = static_cast<float>(color >> IM_COL32_A_SHIFT & 0xFF) * share;
    return (color & ~IM_COL32_A_MASK) | static_cast<ImU32>(alpha + 0.5F) << IM_COL32_A_SHIFT;
}

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

/// Whether the host's style has light text.
bool IsDark() {
    const ImVec4& text = ImGui::GetStyleColorVec4(ImGuiCol_Text);
    return text.x + text.y + text.z > 1.5F;
}

ImU32 ForStyle(ImU32 onDark, ImU32 onLight) {
    return ImGui::GetColorU32(IsDark() ? onDark : onLight);
}

struct Reason {
    std::string Word;
    ImU32 OnDark;
    ImU32 OnLight;
};

constexpr ImU32 kDangerOnDark = IM_COL32(255, 77, 77, 255);
constexpr ImU32 kDangerOnLight = IM_COL32(200, 20, 20, 255);
constexpr ImU32 kIdleOnDark = IM_COL32(110, 115, 125, 255);
constexpr ImU32 kIdleOnLight = IM_COL32(170, 175, 182, 255);
/// Those that are no danger, by bit.
constexpr ImU32 kReasonOnDark[] = {IM_COL32(86, 180, 233, 255), IM_COL32(240, 228, 66, 255),
                                   IM_COL32(204, 121, 167, 255), IM_COL32(0, 190, 140, 255)};
constexpr ImU32 kReasonOnLight[] = {IM_COL32(0, 114, 178, 255), IM_COL32(190, 150, 0, 255), IM_COL32(170, 70, 130, 255),
                                    IM_COL32(0, 140, 100, 255)};

const std::array<Reason, kReasonBits>& Reasons() {
    static const std::array<Reason, kReasonBits> kReasons = [] {
        std::array<Reason, kReasonBits> reasons;
        size_t harmless = 0;
        for (size_t bit = 0; bit < kReasonBits; ++bit) {
            const gpu_feed::LimitReason reason = gpu_feed::LimitReasons(uint64_t{1} << bit).front();
            reasons[bit] = {reason.Word, kDangerOnDark, kDangerOnLight};
            if (reason.bIdle) reasons[bit] = {reason.Word, kIdleOnDark, kIdleOnLight};
            if (reason.bIdle || reason.bDanger) continue;
            const size_t color = harmless++ % std::size(kReasonOnDark);
            reasons[bit] = {reason.Word, kReasonOnDark[color], kReasonOnLight[color]};
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

ImU32 ColorOf(CurveRole role) {
    switch (role) {
        case CurveRole::First: return ForStyle(IM_COL32(86, 180, 233, 255), IM_COL32(0, 100, 175, 255));
        case CurveRole::Second: return ForStyle(IM_COL32(240, 160, 40, 255), IM_COL32(200, 95, 0, 255));
        case CurveRole::Limit:
        case CurveRole::Ceiling: break;
    }
    return ForStyle(IM_COL32(235, 100, 60, 255), IM_COL32(205, 60, 10, 255));
}

ImU32 ColorOfReason(size_t bit) {
    return ForStyle(Reasons()[bit].OnDark, Reasons()[bit].OnLight);
}

ImU32 FaintColor(float strength) {
    return ImGui::GetColorU32(ImGuiCol_Text, strength);
}

float LeftOf(const char* text, float end) {
    return end - ImGui::CalcTextSize(text).x;
}

void DrawShortened(ImDrawList* list, ImVec2 position, float width, ImU32 color, const char* text) {
    static constexpr const char* kMore = "...";
    const char* end = text + std::char_traits<char>::length(text);
    if (ImGui::CalcTextSize(text, end).x <= width) return list->AddText(position, color, text, end);
    const float room = width - ImGui::CalcTextSize(kMore).x;
    while (end > text && ImGui::CalcTextSize(text, end).x > room) --end;
    if (end == text) return;
    list->AddText(position, color, text, end);
    list->AddText(ImVec2(position.x + ImGui::CalcTextSize(text, end).x, position.y), color, kMore);
}

const char* ReasonWord(size_t bit) {
    return Reasons()[bit].Word.c_str();
}

}  // namespace gpu_panel
