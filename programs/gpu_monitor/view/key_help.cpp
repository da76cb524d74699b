#include "view/key_help.h"

#include <string>

#include "view/dialog.h"
#include "view/plot_grid.h"

namespace {

struct KeyName {
    const char* Key;
    const char* Name;
};

constexpr const char* kGpuKey = "Tab";
constexpr KeyName kKeyNames[] = {{"q", "quit"},      {"?", "help"},     {"t", "tune"},
                                 {kGpuKey, "GPU"},   {"1-7", "plots"},  {"+-", "zoom"},
                                 {"space", "pause"}, {"i", "interval"}, {"s", "sort"}};

/// The plots with the digits that are their keys.
std::string NumberedPlots() {
    std::string text;
    for (size_t i = 0; i < PlotNames().size(); ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(i + 1) + ' ' + PlotNames()[i];
    }
    return text;
}

}  // namespace

void DrawKeyNames(Canvas* canvas, const Area& area, bool bManyGpus) {
    int x = area.X;
    for (const auto& [key, name] : kKeyNames) {
        if (x + ColumnsOf(key) + 1 + ColumnsOf(name) > area.X + area.Width) return;
        if (key == kGpuKey && !bManyGpus) continue;
        x = canvas->Put(x, area.Y, key, Style::Strong) + 1;
        x = canvas->Put(x, area.Y, name, Style::Dim) + 2;
    }
}

void DrawHelp(Canvas* canvas) {
    DrawDialog(canvas, {"Keys",
                        {{"Tab Left Right  another GPU"},
                         {"1 to 7          show or hide a plot: " + NumberedPlots()},
                         {"+ -             shorter or longer time axis"},
                         {"space           pause or resume sampling"},
                         {"i I             longer or shorter interval"},
                         {"s               sort processes"},
                         {"t               tune: lock clocks, set the power limit"},
                         {"q               leave; asks what becomes of changes"},
                         {""},
                         {"Power: shaded what the limit can be, marked limit and default. A dash: the driver gives no "
                          "value. A gap in a plot: a time without."}},
                        "Any key closes"});
}
