#ifndef GPU_PANEL_LOOK_H
#define GPU_PANEL_LOOK_H

#include <string_view>

#include "imgui.h"

/// \file
/// Colors and small pieces of pictures. All sizes follow the host's font and style. Nothing here allocates.

namespace gpu_panel {

/// Colors that the host's style does not have, readable on its background.
struct Palette {
    ImU32 Text;
    ImU32 Dim;
    ImU32 Track;
    ImU32 Accent;
    ImU32 Good;
    ImU32 Warning;
    ImU32 Danger;
};

/// For the style of this frame, dark or light.
Palette CurrentPalette();

ImU32 WithAlpha(ImU32 color, float alpha);

/// Draws one line, with three dots at its end where it is wider than `width`. Result: where the text ends.
float PutFitted(ImVec2 position, float width, ImU32 color, std::string_view text);

/// The same as an item of the window.
void FittedText(float width, ImU32 color, std::string_view text);

/// A message in whole lines across the window's content.
void Banner(ImU32 color, const char* text);

/// A word on a background of its color.
void Chip(ImU32 color, std::string_view word);
float ChipWidth(std::string_view word);

/// Puts the next item beside the latest one where it has room for `width`.
void SameLineIfRoomFor(float width);

float ButtonWidth(const char* label);

/// Cells of equal width, as many beside each other as have room.
class Grid {
public:
    Grid(int count, float leastWidth, float cellHeight);
    ~Grid();

    Grid(const Grid&) = delete;
    Grid& operator=(const Grid&) = delete;

    /// The top left corner of the next cell.
    ImVec2 Next();
    float CellWidth() const { return Width; }

private:
    ImVec2 Origin;
    float Width = 0.0F;
    float Height;
    int Count;
    int Columns = 1;
    int Placed = 0;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_LOOK_H
