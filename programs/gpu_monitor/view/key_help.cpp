#include "view/key_help.h"

#include <optional>
#include <string>
#include <vector>

#include "text/text_layout.h"
#include "view/dialog.h"
#include "view/plot_grid.h"

namespace {

struct KeyName {
    std::string Key;
    const char* Name;
    /// Whether it helps only where there are GPUs to choose from.
    bool bForManyGpus = false;
};

const std::string& PlotDigits() {
    static const std::string kDigits = "1-" + std::to_string(kPlotCount);
    return kDigits;
}

/// The most important first.
const std::vector<KeyName>& KeyNames() {
    static const std::vector<KeyName> kNames = {{"q", "quit"},        {"?", "help"},        {"t", "tune"},
                                                {"Tab", "GPU", true}, {"a", "all", true},   {PlotDigits(), "plots"},
                                                {"+-", "zoom"},       {"space", "pause"},   {"i", "interval"},
                                                {"s", "sort"},        {"g", "number", true}};
    return kNames;
}

/// A key, or several, with what they do. Further lines begin below the first one's words.
DialogLine KeyLine(const std::string& keys, const std::string& effect) {
    constexpr int kKeysWidth = 16;
    return {Left(keys, kKeysWidth) + effect, Style::Normal, std::nullopt, kKeysWidth};
}

/// The plots with the digits that are their keys.
std::string NumberedPlots() {
    std::string text;
    for (size_t i = 0; i < PlotNames().size(); ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(i + 1) + '=' + PlotNames()[i];
    }
    return text;
}

}  // namespace

void DrawKeyNames(Canvas* canvas, const Area& area, bool bManyGpus) {
    int x = area.X;
    for (const auto& [key, name, bForManyGpus] : KeyNames()) {
        if (bForManyGpus && !bManyGpus) continue;
        if (x + ColumnsOf(key) + 1 + ColumnsOf(name) > area.X + area.Width) return;
        x = canvas->Put(x, area.Y, key, Style::Strong) + 1;
        x = canvas->Put(x, area.Y, name, Style::Normal) + 2;
    }
}

/// The most important keys come first, because a low screen has no room for the last lines.
void DrawHelp(Canvas* canvas) {
    DrawDialog(canvas, {"Keys",
                        {KeyLine("q", "leave; asks what becomes of changes"),
                         KeyLine("t", "tune: lock clocks, set the power limit"),
                         KeyLine("Tab Left Right", "another GPU; g: type the GPU's number"),
                         KeyLine("a", "all GPUs or one; Enter: the selected one"),
                         KeyLine("Up Down", "scroll processes; with all GPUs: select"),
                         KeyLine("PgUp PgDn", "scroll by pages; Home End: to the ends"),
                         KeyLine("s", "sort the processes by another column"),
                         KeyLine(PlotDigits(), "show or hide a plot: " + NumberedPlots()),
                         KeyLine("space", "pause or resume sampling"),
                         KeyLine("+ -", "shorter or longer time axis"),
                         KeyLine("i I", "longer or shorter interval"),
                         {""},
                         {"The gauge of power shades the range of the limit, and marks the limit and its default. "
                          "A dash: the driver gives no value. A gap in a plot: nothing was read. An asterisk beside a "
                          "GPU: this program has changed it."}},
                        "Any key closes"});
}
