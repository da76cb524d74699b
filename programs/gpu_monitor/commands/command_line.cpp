#include "commands/command_line.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands/change_commands.h"
#include "commands/gpu_discovery.h"
#include "commands/query_commands.h"
#include "commands/stream.h"
#include "commands/undo.h"
#include "commands/watch.h"
#include "common/failure.h"
#include "common/left_changes.h"
#include "common/options.h"
#include "terminal/output.h"
#include "text/json_format.h"

namespace {

using Kind = gpu_feed::TuningChange::Kind;

constexpr const char* kFooter =
    "Examples:\n"
    "  gpu_monitor watch                             the live view; ? shows its keys\n"
    "  gpu_monitor watch --once > gpus.txt           the same as text, for a bug report\n"
    "  gpu_monitor list                              which GPUs there are\n"
    "  gpu_monitor sample --gpu 0                    everything about GPU 0, once\n"
    "  gpu_monitor sample --json | jq '.gpus[].temperature_c'\n"
    "  gpu_monitor stream                            a line per GPU and second\n"
    "  gpu_monitor stream --interval 100 --count 600 --json > minute.jsonl\n"
    "  gpu_monitor stream --csv > gpus.csv           for a spreadsheet\n"
    "  gpu_monitor stream --simulate=desktop,laptop  without any GPU\n"
    "  gpu_monitor clocks --gpu 0                    which clocks can be locked\n"
    "  sudo gpu_monitor lock-clocks --gpu 0 1500 5001\n"
    "  sudo gpu_monitor reset-clocks                 release the locks of every GPU\n"
    "  gpu_monitor power                             power limits and their ranges\n"
    "  sudo gpu_monitor set-power --gpu 0 250.5\n"
    "  sudo gpu_monitor reset-power --gpu 0          back to the board's default\n"
    "  sudo gpu_monitor undo                         take back what a killed program left\n"
    "\n"
    "Locked clocks and power limits outlast the program and act on all programs.\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  no usable driver or GPU, a reading or change that failed, or output that\n"
    "     could not be written\n"
    "  2  wrong usage: an unknown option or command, a bad value, or a GPU that does\n"
    "     not exist\n"
    "  3  no permission for a change\n"
    "  4  a change that is not supported: a driver or GPU without the control, clocks\n"
    "     that are not listed, or a power limit outside the range\n";

constexpr size_t kHelpColumn = 24;
constexpr int kMaxCount = 1000000000;
constexpr int kMaxClockMHz = 1000000;

/// What the command line says. Only one command is given, so commands of a kind share their options.
struct CommandLine {
    std::optional<std::string> SimulatedBoards;
    QueryOptions Query;
    StreamOptions Stream;
    WatchOptions Watch;
    bool bOnce = false;
    bool bStreamJson = false;
    bool bStreamCsv = false;
    int IntervalMs = 1000;
    ChangeOptions Change;
    GpuClockPair Clocks;
    double Watts = 0.0;
    /// Runs the command that was given. Result: the exit status.
    std::function<int()> Run;
    /// Whether that command changes GPUs.
    bool bChanges = false;
};

/// Adds a command that `run` carries out.
CLI::App* AddCommand(CLI::App* app, CommandLine* commandLine, const char* name, const char* description,
                     std::function<int()> run) {
    CLI::App* command = app->add_subcommand(name, description);
    command->final_callback([commandLine, run = std::move(run)] {
        commandLine->Run = [commandLine, run] {
            PrintLeftChanges(commandLine->Change.SimulateOption);
            return run();
        };
    });
    return command;
}

CLI::Option* AddGpuOption(CLI::App* command, std::string* gpu,
                          const char* description = "Only the GPU with this index or UUID") {
    return command->add_option("--gpu", *gpu, description)->type_name("GPU")->check(SelectorError);
}

void AddJsonFlag(CLI::App* command, bool* bJson) {
    command->add_flag("--json", *bJson, "Print one JSON object");
}

/// Adds a command that shows something once.
void AddQuery(CLI::App* app, CommandLine* commandLine, const char* name, const char* description,
              int (*run)(const QueryOptions&)) {
    CLI::App* query =
        AddCommand(app, commandLine, name, description, [commandLine, run] { return run(commandLine->Query); });
    AddGpuOption(query, &commandLine->Query.Gpu);
    AddJsonFlag(query, &commandLine->Query.bJson);
}

/// The parser could check this too, but its help would then be hard to read.
void RefuseBoth(bool bFirst, bool bSecond, const std::string& options) {
    if (!bFirst || !bSecond) return;
    throw Failure(options + " exclude each other. Run gpu_monitor --help for usage.", kExitUsage);
}

int RunWatchCommand(CommandLine* commandLine) {
    RefuseBoth(commandLine->bOnce, !commandLine->Watch.LogPath.empty(), "--once and --log");
    commandLine->Watch.Interval = std::chrono::milliseconds(commandLine->IntervalMs);
    commandLine->Watch.SimulateOption = commandLine->Change.SimulateOption;
    return commandLine->bOnce ? PrintView(commandLine->Watch) : RunWatch(commandLine->Watch);
}

int RunStreamCommand(CommandLine* commandLine) {
    commandLine->Stream.Interval = std::chrono::milliseconds(commandLine->IntervalMs);
    RefuseBoth(commandLine->bStreamJson, commandLine->bStreamCsv, "--json and --csv");
    if (commandLine->bStreamJson) commandLine->Stream.Format = StreamFormat::Json;
    if (commandLine->bStreamCsv) commandLine->Stream.Format = StreamFormat::Csv;
    RunStream(commandLine->Stream);
    return kExitSuccess;
}

void AddWatch(CLI::App* app, CommandLine* commandLine) {
    CLI::App* watch = AddCommand(app, commandLine, "watch", "Show and tune GPUs in a live view",
                                 [commandLine] { return RunWatchCommand(commandLine); });
    AddGpuOption(watch, &commandLine->Watch.Gpu, "Begin with this GPU; with --once, only it");
    AddIntervalOption(watch, &commandLine->IntervalMs);
    watch->add_flag("--once", commandLine->bOnce, "Print the view as text, once, and end");
    watch->add_option("--log", commandLine->Watch.LogPath, "Append every reading to this CSV file")
        ->type_name("FILE")
        ->check(FileNameError);
}

void AddStream(CLI::App* app, CommandLine* commandLine) {
    CLI::App* stream = AddCommand(app, commandLine, "stream", "Show a line per GPU and sampling cycle until Ctrl-C",
                                  [commandLine] { return RunStreamCommand(commandLine); });
    AddGpuOption(stream, &commandLine->Stream.Gpu);
    AddIntervalOption(stream, &commandLine->IntervalMs);
    stream->add_option("--count", commandLine->Stream.Count, "End after this many cycles")
        ->type_name("N")
        ->check(WholeNumberError)
        ->check(InRange(1, kMaxCount));
    stream->add_flag("--json", commandLine->bStreamJson, "Print JSON Lines: one object per line");
    stream->add_flag("--csv", commandLine->bStreamCsv, "Print comma-separated values with a heading");
}

/// Adds a command that changes GPUs.
CLI::App* AddChange(CLI::App* app, CommandLine* commandLine, const char* name, const char* description,
                    std::function<int()> run) {
    CLI::App* change = AddCommand(app, commandLine, name, description, std::move(run));
    change->parse_complete_callback([commandLine] { commandLine->bChanges = true; });
    AddJsonFlag(change, &commandLine->Change.bJson);
    return change;
}

/// A command with a value is for one GPU: GPUs differ, and one value rarely suits several.
void RequireGpuOption(CLI::App* change, CommandLine* commandLine) {
    AddGpuOption(change, &commandLine->Change.Gpu, "The GPU with this index or UUID")->required();
}

void AddClock(CLI::App* lock, const char* name, const char* description, int* megahertz) {
    lock->add_option(name, *megahertz, description)
        ->type_name("")
        ->required()
        ->check(WholeNumberError)
        ->check(InRange(1, kMaxClockMHz));
}

void AddClockChanges(CLI::App* app, CommandLine* commandLine) {
    CLI::App* lock =
        AddChange(app, commandLine, "lock-clocks", "Lock the clocks of a GPU to one listed pair", [commandLine] {
            return RunChange(commandLine->Change, {Kind::LockClocks, commandLine->Clocks});
        });
    RequireGpuOption(lock, commandLine);
    AddClock(lock, "GRAPHICS", "Graphics clock, MHz", &commandLine->Clocks.GraphicsClockMHz);
    AddClock(lock, "MEMORY", "Memory clock, MHz", &commandLine->Clocks.MemoryClockMHz);
    CLI::App* reset = AddChange(app, commandLine, "reset-clocks", "Release locked clocks, of every GPU or one",
                                [commandLine] { return RunChange(commandLine->Change, {Kind::ResetClocks}); });
    AddGpuOption(reset, &commandLine->Change.Gpu);
}

void AddPowerChanges(CLI::App* app, CommandLine* commandLine) {
    CLI::App* set = AddChange(app, commandLine, "set-power", "Set the power limit of a GPU", [commandLine] {
        return RunChange(commandLine->Change, {Kind::SetPower, {}, commandLine->Watts});
    });
    RequireGpuOption(set, commandLine);
    set->add_option("WATTS", commandLine->Watts, "Power limit, W, to the milliwatt")
        ->type_name("")
        ->required()
        ->check(DecimalError);
    CLI::App* reset =
        AddChange(app, commandLine, "reset-power", "Go back to the default power limit, of every GPU or one",
                  [commandLine] { return RunChange(commandLine->Change, {Kind::ResetPower}); });
    AddGpuOption(reset, &commandLine->Change.Gpu);
}

/// Not by `AddChange`, whose commands first report what was left changed.
void AddUndo(CLI::App* app, CommandLine* commandLine) {
    CLI::App* undo = app->add_subcommand("undo", "Take back what a killed live view left changed");
    undo->final_callback([commandLine] {
        commandLine->bChanges = true;
        commandLine->Run = [commandLine] { return RunUndo(commandLine->Change.bJson); };
    });
    AddJsonFlag(undo, &commandLine->Change.bJson);
}

void DefineCommands(CLI::App* app, CommandLine* commandLine) {
    // Commands inherit what is set before they are added.
    app->get_formatter()->column_width(kHelpColumn);
    app->fallthrough();
    app->require_subcommand(1);
    app->set_version_flag("--version", std::string("gpu_monitor ") + GPU_MONITOR_VERSION);
    AddSimulateOption(app, &commandLine->SimulatedBoards);

    AddWatch(app, commandLine);
    AddQuery(app, commandLine, "list", "Show which GPUs there are", RunList);
    AddQuery(app, commandLine, "sample", "Read every GPU once and show all readings", RunSample);
    AddStream(app, commandLine);
    AddQuery(app, commandLine, "clocks", "Show the clocks and which can be locked", RunClocks);
    AddClockChanges(app, commandLine);
    AddQuery(app, commandLine, "power", "Show the power limits and their ranges", RunPower);
    AddPowerChanges(app, commandLine);
    AddUndo(app, commandLine);
    // Set last, so that commands do not inherit it and their help stays short.
    app->footer(kFooter);
}

/// Result: the exit status. Throws `Failure`.
int RunCommand(CommandLine* commandLine) {
    commandLine->Change.SimulateOption = Simulate(commandLine->SimulatedBoards, commandLine->bChanges);
    return commandLine->Run();
}

}  // namespace

int RunCommandLine(int argc, char** argv) {
    CLI::App app("Shows what the NVIDIA GPUs of this machine are doing, and tunes them.", "gpu_monitor");
    CommandLine commandLine;
    DefineCommands(&app, &commandLine);
    const std::string help = ReadCommandLine(&app, argc, argv);
    if (help.empty()) return RunCommand(&commandLine);
    WriteOutput(help);
    return kExitSuccess;
}

void PrintFailureJson(const std::string& sentence, int exitStatus) {
    try {
        WriteOutput(FailureJson(sentence, exitStatus));
    } catch (const Failure&) {
        // Standard error has it.
    }
}
