// gpu_monitor shows what the NVIDIA GPUs of this machine are doing, once or continuously, for people and for programs,
// and changes their clocks and power limits. failure.h lists the exit statuses.

#include <locale.h>

#include <algorithm>
#include <string>

#include "commands/command_line.h"
#include "common/run_program.h"

int main(int argc, char** argv) {
    // Not from the parser, because a command line that it refuses fails in JSON too.
    const bool bJson = std::find(argv, argv + argc, std::string("--json")) != argv + argc;
    const auto run = [argc, argv] {
        // Only the character set of the terminal: numbers keep the decimal point.
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet.
        setlocale(LC_CTYPE, "");
        return RunCommandLine(argc, argv);
    };
    return RunProgram(run, bJson ? PrintFailureJson : nullptr);
}
