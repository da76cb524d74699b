#include "run/command_line.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "common/options.h"
#include "common/simulate.h"
#include "frames/scene_window.h"
#include "run/overlay.h"

namespace {

constexpr const char* kFooter =
    "Keys:\n"
    "  F1      hides and shows the panel\n"
    "  Ctrl+Q  ends, as closing the window does\n"
    "\n"
    "Examples:\n"
    "  gpu_overlay                           the scene and the GPUs of this machine\n"
    "  gpu_overlay --simulate=4              without any GPU\n"
    "  gpu_overlay --frames 300 --load 1,10,100 --report load.json\n"
    "  gpu_overlay --frames 200 --screenshot overlay.png\n"
    "\n"
    "What the panel has changed of a GPU goes back when the program ends.\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  no display, no OpenGL 3.3, a file that could not be written, or a change\n"
    "     that could not go back\n"
    "  2  wrong usage: an unknown option or a bad value\n";

constexpr size_t kHelpColumn = 24;
constexpr int kMostFrames = 1000000;
constexpr int kLeastPixels = 200;
constexpr int kMostPixels = 8192;

struct CommandLine {
    std::optional<std::string> SimulatedBoards;
    std::string Size;
    int IntervalMs = 1000;
    OverlayOptions Options;
};

/// False: `text` is no size in the range; `size` is then undefined.
bool ReadSize(const std::string& text, PixelSize* size) {
    const char* const end = text.data() + text.size();
    const auto read = [end](const char* begin, int* pixels) {
        const auto [after, problem] = std::from_chars(begin, end, *pixels);
        return problem == std::errc() && *pixels >= kLeastPixels && *pixels <= kMostPixels ? after : nullptr;
    };
    const char* const afterWidth = read(text.data(), &size->Width);
    if (afterWidth == nullptr || afterWidth == end || *afterWidth != 'x') return false;
    return read(afterWidth + 1, &size->Height) == end;
}

std::string SizeError(const std::string& text) {
    PixelSize size{};
    return ReadSize(text, &size) ? "" : "'" + text + "' is not a size from 200x200 to 8192x8192";
}

void DefineOptions(CLI::App* app, CommandLine* commandLine) {
    OverlayOptions* const options = &commandLine->Options;
    app->get_formatter()->column_width(kHelpColumn);
    app->set_version_flag("--version", std::string("gpu_overlay ") + GPU_OVERLAY_VERSION);
    AddSimulateOption(app, &commandLine->SimulatedBoards);
    AddIntervalOption(app, &commandLine->IntervalMs);
    app->add_option("--load", options->Loads, "Work of the scene, 1 to 100; with --frames,\nalso several: 1,10,100")
        ->type_name("LOAD")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(WholeNumberError)
        ->check(InRange(kLeastLoad, kMostLoad))
        ->default_str("1");
    app->add_option("--size", commandLine->Size, "Size of the window in pixels")
        ->type_name("WxH")
        ->check(SizeError)
        ->default_str("1280x800");
    app->add_option("--scale", options->Scale, "Size of texts, 0.5 to 4; default: as the desktop\nwants it")
        ->type_name("FACTOR")
        ->check(DecimalError)
        ->check(InRange(0.5, 4.0));
    app->add_option("--frames", options->FramesPerLoad,
                    "Draw so many frames with each load, without a\nwindow and without waiting, and end")
        ->type_name("N")
        ->check(WholeNumberError)
        ->check(InRange(1, kMostFrames));
    app->add_option("--screenshot", options->ScreenshotPath, "Write the last frame to this PNG file")
        ->type_name("FILE")
        ->check(FileNameError);
    app->add_option("--report", options->ReportPath, "Write what was measured to this JSON file")
        ->type_name("FILE")
        ->check(FileNameError);
    app->footer(kFooter);
}

/// Result: the exit status. Throws `Failure`.
int Run(const CLI::App& app, CommandLine* commandLine) {
    OverlayOptions* const options = &commandLine->Options;
    if (options->Loads.size() > 1 && options->FramesPerLoad == 0) {
        throw UsageFailure(app, "Several loads need --frames");
    }
    if (!options->ReportPath.empty() && options->ReportPath == options->ScreenshotPath) {
        throw UsageFailure(app, "--report and --screenshot name the same file");
    }
    options->Interval = std::chrono::milliseconds(commandLine->IntervalMs);
    if (!commandLine->Size.empty()) ReadSize(commandLine->Size, &options->Size);
    options->SimulateOption = Simulate(commandLine->SimulatedBoards, true);
    return RunOverlay(*options);
}

}  // namespace

int RunCommandLine(int argc, char** argv) {
    CLI::App app("Draws a scene, measures its frames, and shows them over the power, clocks and limits of\nthe GPUs.",
                 "gpu_overlay");
    CommandLine commandLine;
    DefineOptions(&app, &commandLine);
    const std::string help = ReadCommandLine(&app, argc, argv);
    return help.empty() ? Run(app, &commandLine) : PrintHelp(help);
}
