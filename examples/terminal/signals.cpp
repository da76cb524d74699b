#include "signals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "failure.h"

namespace {

// Read by the signal handler, which may run on any thread; written before the handler is installed.
int StopPipeWriteEnd = -1;

extern "C" void RequestStop(int) {
    const int savedErrno = errno;
    // The pipe can only be full when a stop has been asked for, so the result does not matter.
    const ssize_t ignored = write(StopPipeWriteEnd, "", 1);
    static_cast<void>(ignored);
    errno = savedErrno;
}

void Catch(int signalNumber) {
    struct sigaction action {};
    action.sa_handler = RequestStop;
    // The default action returns with the first signal: the second one ends even a process that hangs. Driver calls of
    // the sampler are not to fail because a signal arrived on its thread.
    action.sa_flags = static_cast<int>(SA_RESETHAND) | SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(signalNumber, &action, nullptr);
}

bool IsIgnored(int signalNumber) {
    struct sigaction action {};
    return sigaction(signalNumber, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

int CatchStopSignals() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw SystemFailure("Cannot prepare for signals");
    StopPipeWriteEnd = ends[1];
    Catch(SIGINT);
    Catch(SIGTERM);
    // Under nohup the program is to outlive its terminal.
    if (!IsIgnored(SIGHUP)) Catch(SIGHUP);
    return ends[0];
}
