#include "common/signals.h"

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "common/failure.h"

namespace {

// Read by the signal handlers, which may run on any thread; written before the handlers are installed.
int StopPipeWriteEnd = -1;

std::atomic<bool> bFurtherStop{false};
/// When a stop was asked for last, as `Milliseconds`.
std::atomic<int64_t> StopRequestedMs{0};

int64_t Milliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/// And SIGHUP, unless it is ignored.
constexpr int kStopSignals[] = {SIGINT, SIGQUIT, SIGTERM};

std::atomic<void (*)()> BeforeDeath{nullptr};

/// What the fatal signals did before `CallBeforeDeath`: a sanitizer's report, for example.
constexpr int kFatalSignals[] = {SIGILL,  SIGABRT, SIGFPE,  SIGBUS,    SIGSEGV, SIGSYS,  SIGTRAP,
                                 SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGXCPU, SIGXFSZ};
struct sigaction FatalBefore[std::size(kFatalSignals)];

/// Whether a stop signal only repeats the one before: it can be sent to the program and to its group, for example.
bool IsRepetition() {
    constexpr int64_t kRepetitionMs = 500;
    return Milliseconds() < StopRequestedMs + kRepetitionMs;
}

/// Handles the second stop signal of a kind.
extern "C" void Die(int signalNumber) {
    if (IsRepetition()) return;
    if (void (*restore)() = BeforeDeath.load()) restore();
    signal(signalNumber, SIG_DFL);
    raise(signalNumber);
}

extern "C" void DieAsBefore(int signalNumber) {
    if (void (*restore)() = BeforeDeath.load()) restore();
    const auto* place = std::find(std::begin(kFatalSignals), std::end(kFatalSignals), signalNumber);
    sigaction(signalNumber, &FatalBefore[place - std::begin(kFatalSignals)], nullptr);
    raise(signalNumber);
}

void Catch(int signalNumber, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    // A signal that arrives on the sampler's thread must not make its driver calls fail.
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(signalNumber, &action, nullptr);
}

/// Handles stop signals while changes are taken back.
extern "C" void NoteFurtherStop(int /*signalNumber*/) {
    if (!IsRepetition()) bFurtherStop = true;
}

/// Handles the first stop signal of each kind. The second one ends even a process that hangs.
extern "C" void RequestStop(int signalNumber) {
    const int savedErrno = errno;
    StopRequestedMs = Milliseconds();
    // When a terminal is closed, the shell and the kernel both send SIGHUP: the second one means no more than the
    // first.
    Catch(signalNumber, signalNumber == SIGHUP ? SIG_IGN : Die);
    // The pipe can only be full when a stop has been requested already, so the result does not matter.
    const ssize_t ignored = write(StopPipeWriteEnd, "", 1);
    static_cast<void>(ignored);
    errno = savedErrno;
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
    for (const int signalNumber : kStopSignals) Catch(signalNumber, RequestStop);
    // Under nohup the program outlives its terminal.
    if (!IsIgnored(SIGHUP)) Catch(SIGHUP, RequestStop);
    return ends[0];
}

void ExpectFurtherStop() {
    for (const int signalNumber : kStopSignals) Catch(signalNumber, NoteFurtherStop);
}

bool HasFurtherStopCome() {
    return bFurtherStop;
}

void CallBeforeDeath(void (*restore)()) {
    BeforeDeath = restore;
    for (size_t i = 0; i < std::size(kFatalSignals); ++i) {
        if (restore == nullptr) {
            sigaction(kFatalSignals[i], &FatalBefore[i], nullptr);
        } else {
            sigaction(kFatalSignals[i], nullptr, &FatalBefore[i]);
            if (!IsIgnored(kFatalSignals[i])) Catch(kFatalSignals[i], DieAsBefore);
        }
    }
}
