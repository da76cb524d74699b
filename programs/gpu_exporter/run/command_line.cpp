#include "run/command_line.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "common/options.h"
#include "common/simulate.h"
#include "run/exporter.h"
#include "serve/listen_address.h"

namespace {

constexpr const char* kFooter =
    "Pages:\n"
    "  /metrics  the metrics, in Prometheus's text format\n"
    "  /healthz  ok while the program runs, never asks for a password\n"
    "\n"
    "Examples:\n"
    "  gpu_exporter                          for a Prometheus on this machine\n"
    "  gpu_exporter --listen :9836 --auth-file /etc/gpu-exporter.users\n"
    "                                        for Prometheus on another machine\n"
    "  gpu_exporter --simulate=4             without any GPU\n"
    "\n"
    "Without NVIDIA's driver it runs too, and looks for the driver again and again.\n"
    "\n"
    "Exit status:\n"
    "  0  ended by a signal\n"
    "  1  an address that it cannot listen on, or a file that it cannot use\n"
    "  2  wrong usage: an unknown option or a bad value\n";

constexpr size_t kHelpColumn = 26;

struct CommandLine {
    std::optional<std::string> SimulatedBoards;
    std::string Listen = "127.0.0.1:9836";
    int IntervalMs = 1000;
    ExporterOptions Options;
};

void DefineOptions(CLI::App* app, CommandLine* commandLine) {
    app->get_formatter()->column_width(kHelpColumn);
    app->set_version_flag("--version", std::string("gpu_exporter ") + GPU_EXPORTER_VERSION);
    app->add_option("--listen", commandLine->Listen,
                    "Serve here; :PORT serves on all addresses, port 0\nis any free one")
        ->type_name("ADDRESS:PORT")
        ->check(ListenAddressError)
        ->capture_default_str();
    app->add_option("--auth-file", commandLine->Options.AuthFile,
                    "Give metrics only for a user and password that\nare a line user:password of this file")
        ->type_name("FILE")
        ->check(FileNameError);
    app->add_flag("--processes", commandLine->Options.bProcesses, "Export the video memory of each process, too");
    AddIntervalOption(app, &commandLine->IntervalMs);
    AddSimulateOption(app, &commandLine->SimulatedBoards);
    app->footer(kFooter);
}

}  // namespace

int RunCommandLine(int argc, char** argv) {
    CLI::App app("Serves what the NVIDIA GPUs of this machine are doing, for Prometheus.", "gpu_exporter");
    CommandLine commandLine;
    DefineOptions(&app, &commandLine);
    const std::string help = ReadCommandLine(&app, argc, argv);
    if (!help.empty()) return PrintHelp(help);
    ReadListenAddress(commandLine.Listen, &commandLine.Options.Listen);
    commandLine.Options.Interval = std::chrono::milliseconds(commandLine.IntervalMs);
    Simulate(commandLine.SimulatedBoards, false);
    return RunExporter(commandLine.Options);
}
