#include "plot_field.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <optional>

#include "gpu_feed/plotting.h"
#include "gpu_feed/reading_text.h"
#include "plot_drawing.h"

using namespace gpu_feed;

namespace gpu_panel {

namespace {

constexpr ImGuiWindowFlags kFieldFlags = ImGuiWindowFlags_NoScrollbar | ImGuiWindowFlags_NoNav |
                                         ImGuiWindowFlags_NoSavedSettings | ImGuiWindowFlags_NoBackground;
/// A field can be scrolled by so many pixels, and stands in the middle: ImGui scrolls it when the wheel is meant for
/// it, and not when the user still scrolls the window around it.
constexpr float kScrollRoom = 1.0F;
/// One step of the wheel shows so many times more or less, or moves by this share of the axis.
constexpr double kWheelZoom = 1.25;
constexpr double kWheelPan = 0.1;

constexpr float kLeastFontsBetweenTimes = 7.5F;
/// On a longer axis, minutes are written as such.
constexpr double kLongestInSeconds = 120.0;

/// Calls `draw` with each moment that has a line. While the axis ends now they stay where they are on the screen, else
/// they move with the curves.
template <typename DrawAt>
void ForTimeLines(const PlotFrame& frame, const DrawAt& draw) {
    const double step = RoundTimeStep(static_cast<double>(kLeastFontsBetweenTimes * frame.Font) * frame.ColumnSeconds);
    const TimeAxis& axis = *frame.Axis;
    double newest = axis.To();
    if (!frame.EndsNow()) {
        const double timeOfDay = std::chrono::duration<double>(frame.Moment.TimeOfDay.time_since_epoch()).count();
        newest -= std::fmod(timeOfDay - (frame.Moment.Now - newest), step);
    }
    const int count = static_cast<int>((newest - axis.From()) / step + 1e-6);
    for (int i = 0; i <= count; ++i) draw(newest - i * step, step);
}

}  // namespace

PlotField::PlotField(const PlotFrame& frame, const char* name, ImVec2 corner, float height)
    : Frame(frame), Corner(corner), Height(height) {
    ImGui::SetCursorScreenPos(corner);
    ImGui::SetNextWindowContentSize(ImVec2(0.0F, height + 2.0F * kScrollRoom));
    if (!ImGui::BeginChild(name, ImVec2(frame.FieldWidth, height), false, kFieldFlags)) return;
    Drawing = ImGui::GetWindowDrawList();
    TakeInput();
    Drawing->AddRectFilled(corner, ImVec2(corner.x + frame.FieldWidth, corner.y + height), FaintColor(0.06F));
    DrawTimeLines();
}

PlotField::~PlotField() {
    if (Drawing != nullptr) {
        if (const std::optional<double> moment = Frame.Axis->Hovered()) {
            const float x = std::floor(Frame.XOf(*moment, Corner.x));
            Drawing->AddLine(ImVec2(x, Corner.y), ImVec2(x, Corner.y + Height), FaintColor(0.7F));
        }
    }
    ImGui::EndChild();
}

void PlotField::TakeInput() {
    const ImGuiIO& io = ImGui::GetIO();
    TimeAxis* const axis = Frame.Axis;
    const bool bScrolled = ImGui::GetScrollY() != kScrollRoom;
    ImGui::SetScrollY(kScrollRoom);
    ImGui::SetCursorScreenPos(Corner);
    ImGui::InvisibleButton("field", ImVec2(Frame.FieldWidth, Height));
    if (ImGui::IsItemActive() && io.MouseDelta.x != 0.0F) {
        axis->Pan(-static_cast<double>(io.MouseDelta.x) * Frame.ColumnSeconds);
    }
    if (!ImGui::IsItemHovered() && !ImGui::IsItemActive()) return;
    const double pointer = Frame.MomentAt(std::clamp(io.MousePos.x, Corner.x, Corner.x + Frame.FieldWidth), Corner.x);
    axis->Hover(pointer);
    if (ImGui::IsMouseDoubleClicked(ImGuiMouseButton_Left)) axis->Follow();
    const float sideways = io.MouseWheelH + (io.KeyShift ? io.MouseWheel : 0.0F);
    if (sideways != 0.0F) {
        axis->Pan(-static_cast<double>(sideways) * kWheelPan * axis->Length());
    } else if (io.MouseWheel != 0.0F && (bScrolled || io.KeyCtrl)) {
        axis->Zoom(std::pow(kWheelZoom, -static_cast<double>(io.MouseWheel)), pointer);
    }
}

void PlotField::DrawTimeLines() {
    const ImU32 color = FaintColor(0.1F);
    ForTimeLines(Frame, [&](double moment, double) {
        const float x = std::floor(Frame.XOf(moment, Corner.x));
        Drawing->AddLine(ImVec2(x, Corner.y), ImVec2(x, Corner.y + Height), color);
    });
}

void DrawTimeLabels(const PlotFrame& frame, ImVec2 corner) {
    ImDrawList* const list = ImGui::GetWindowDrawList();
    const ImU32 color = CurrentPalette().Dim;
    const float end = corner.x + frame.FieldWidth;
    ForTimeLines(frame, [&](double moment, double step) {
        char text[32];
        const double ago = frame.Axis->To() - moment;
        if (!frame.EndsNow()) {
            std::snprintf(text, sizeof(text), "%s", frame.TimeOfDay(moment, step < 60.0).data());
        } else if (ago < 1.0) {
            std::snprintf(text, sizeof(text), "now");
        } else if (frame.Axis->Length() <= kLongestInSeconds) {
            std::snprintf(text, sizeof(text), "-%s s", Number(ago, 0).c_str());
        } else {
            std::snprintf(text, sizeof(text), "-%s", DurationText(ago).c_str());
        }
        const float width = ImGui::CalcTextSize(text).x;
        const float x = std::min(frame.XOf(moment, corner.x) - width / 2.0F, end - width);
        if (x >= corner.x - frame.Gutter) list->AddText(ImVec2(std::floor(x), corner.y), color, text);
    });
}

}  // namespace gpu_panel
