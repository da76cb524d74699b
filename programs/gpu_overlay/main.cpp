// gpu_overlay draws a real-time scene, measures its frames, and shows them over what the NVIDIA GPUs of this machine
// are doing. Its help lists the exit statuses.

#include <signal.h>

#include <cstdlib>

#include "common/left_driver.h"
#include "common/standard_streams.h"
#include "run/command_line.h"

int main(int argc, char** argv) {
    OccupyStandardStreams();
    // When the reader of the output ends early, writing returns an error instead.
    signal(SIGPIPE, SIG_IGN);
    const int status = RunCommandLine(argc, argv);
    if (IsDriverLeftBehind()) std::_Exit(status);
    return status;
}
