// gpu_monitor: what the NVIDIA GPUs of this machine are doing, once or continuously, for people and for programs.
//
// Exit status: 0 success; 1 no usable driver or GPU, a reading that failed or output that could not be written; 2 wrong
// usage, which includes a GPU index that does not exist.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstddef>
#include <exception>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "failure.h"
#include "one_shot.h"
#include "output.h"
#include "simulate.h"
#include "stream.h"

namespace {

constexpr const char* kFooter =
    "Examples:\n"
    "  gpu_monitor list                              which GPUs there are\n"
    "  gpu_monitor sample --gpu 0                    everything about GPU 0, once\n"
    "  gpu_monitor sample --json | jq '.gpus[].temperature_c'\n"
    "  gpu_monitor stream                            a line per GPU and second\n"
    "  gpu_monitor stream --interval 100 --count 600 --json > minute.jsonl\n"
    "  gpu_monitor stream --simulate=desktop,laptop  without any GPU\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  no usable driver or GPU, a reading that failed, or output that could not be written\n"
    "  2  wrong usage: an unknown option or command, a bad value, or a GPU that does not exist\n";

constexpr size_t kHelpColumn = 24;
constexpr int kMaxCount = 1000000000;

/// What the command line asks for.
struct CommandLine {
    std::optional<std::string> SimulatedBoards;
    bool bListJson = false;
    SampleOptions Sample;
    int IntervalMs = 1000;
    StreamOptions Stream;
    const CLI::App* List = nullptr;
    const CLI::App* SampleCommand = nullptr;
};

std::string UsageMessage(const CLI::App* app, const CLI::Error& error) {
    std::string problem = error.what();
    // A misspelt command counts as a missing one, which would not help whoever misspelt it.
    const std::vector<std::string> unexpected = app->remaining();
    if (error.get_name() == "RequiredError" && !unexpected.empty()) problem = "Not a command: " + unexpected.front();
    return problem + ". Run gpu_monitor --help for usage.\n";
}

void AddGpuOption(CLI::App* command, std::optional<unsigned int>* gpu) {
    command->add_option("--gpu", *gpu, "Only the GPU with this index")->type_name("N");
}

void AddSample(CLI::App* app, CommandLine* commandLine) {
    CLI::App* sample = app->add_subcommand("sample", "Read every GPU once and show all readings");
    AddGpuOption(sample, &commandLine->Sample.Gpu);
    sample->add_flag("--json", commandLine->Sample.bJson, "Print one JSON object");
    commandLine->SampleCommand = sample;
}

void AddStream(CLI::App* app, CommandLine* commandLine) {
    CLI::App* stream = app->add_subcommand("stream", "Show a line per GPU and sampling cycle until Ctrl-C");
    AddGpuOption(stream, &commandLine->Stream.Gpu);
    stream->add_option("--interval", commandLine->IntervalMs, "Wait between two cycles, 100 to 10000 milliseconds")
        ->type_name("MS")
        ->check(CLI::Range(100, 10000))
        ->capture_default_str();
    stream->add_option("--count", commandLine->Stream.Count, "End after this many cycles")
        ->type_name("N")
        ->check(CLI::Range(1, kMaxCount));
    stream->add_flag("--json", commandLine->Stream.bJson, "Print JSON Lines: one object per line");
}

void Describe(CLI::App* app, CommandLine* commandLine) {
    // Commands inherit what is set before they are added.
    app->get_formatter()->column_width(kHelpColumn);
    app->footer(kFooter);
    app->failure_message(UsageMessage);
    app->fallthrough();
    app->require_subcommand(1);
    app->set_version_flag("--version", std::string("gpu_monitor ") + GPU_MONITOR_VERSION);
    app->add_option("--simulate", commandLine->SimulatedBoards,
                    "Simulate N GPUs or kinds: desktop,laptop,datacenter,old")
        ->type_name("[N]")
        ->expected(0, 1)
        ->default_str("1")
        ->check(SimulationError);

    CLI::App* list = app->add_subcommand("list", "Show which GPUs there are");
    list->add_flag("--json", commandLine->bListJson, "Print one JSON object");
    commandLine->List = list;
    AddSample(app, commandLine);
    AddStream(app, commandLine);
}

int RunCommand(const CommandLine& commandLine) {
    if (commandLine.SimulatedBoards) {
        UseSimulatedNvml(*commandLine.SimulatedBoards);
        std::cerr << "Simulated GPUs: readings do not come from hardware.\n";
    }
    if (commandLine.List->parsed()) return RunList(commandLine.bListJson);
    if (commandLine.SampleCommand->parsed()) return RunSample(commandLine.Sample);
    StreamOptions stream = commandLine.Stream;
    stream.Interval = std::chrono::milliseconds(commandLine.IntervalMs);
    RunStream(stream);
    return kExitSuccess;
}

int Run(int argc, char** argv) {
    CLI::App app("Shows what the NVIDIA GPUs of this machine are doing.", "gpu_monitor");
    CommandLine commandLine;
    Describe(&app, &commandLine);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::ostringstream help;
        const int status = app.exit(error, help, std::cerr);
        WriteOutput(help.str());
        return status == 0 ? kExitSuccess : kExitUsage;
    }
    return RunCommand(commandLine);
}

/// Sees to it that a standard stream which is closed does not become a file that is opened later. Read-only, so that
/// writing still fails.
void OccupyStandardStreams() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) == -1) static_cast<void>(open("/dev/null", O_RDONLY));
    }
}

}  // namespace

int main(int argc, char** argv) {
    OccupyStandardStreams();
    // A reader that ends early shows in the result of writing.
    signal(SIGPIPE, SIG_IGN);
    try {
        return Run(argc, argv);
    } catch (const Failure& failure) {
        std::cerr << failure.what() << '\n';
        return failure.ExitStatus;
    } catch (const std::exception& error) {
        std::cerr << "Unexpected failure: " << error.what() << ".\n";
        return kExitFailure;
    }
}
