// gpu_monitor shows what the NVIDIA GPUs of this machine are doing, once or continuously, for people and for programs,
// and changes their clocks and power limits. failure.h lists the exit statuses.

#include <locale.h>
#include <signal.h>

#include <cstdlib>

#include "commands/command_line.h"
#include "common/left_driver.h"
#include "common/standard_streams.h"

int main(int argc, char** argv) {
    OccupyStandardStreams();
    // Only the character set of the terminal: numbers keep the decimal point.
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet.
    setlocale(LC_CTYPE, "");
    // When the reader of the output ends early, writing returns an error instead.
    signal(SIGPIPE, SIG_IGN);
    const int status = RunCommandLine(argc, argv);
    if (IsDriverLeftBehind()) std::_Exit(status);
    return status;
}
