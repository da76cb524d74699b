// gpu_monitor shows what the NVIDIA GPUs of this machine are doing, once or continuously, for people and for programs,
// and changes their clocks and power limits. failure.h lists the exit statuses.

#include <fcntl.h>
#include <locale.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>

#include "commands/command_line.h"
#include "commands/silent_driver.h"

namespace {

/// Opens /dev/null for each standard stream that is closed: otherwise a file that is opened later would take its place.
/// It is opened to read only, so that writing still fails.
void OccupyStandardStreams() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) == -1) static_cast<void>(open("/dev/null", O_RDONLY));
    }
}

}  // namespace

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
