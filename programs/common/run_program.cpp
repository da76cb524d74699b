#include "common/run_program.h"

#include <signal.h>

#include <cstdlib>
#include <exception>
#include <iostream>

#include "common/failure.h"
#include "common/left_driver.h"
#include "common/standard_streams.h"

namespace {

int StatusOf(const std::function<int()>& run, const FailureReport& report) {
    const auto fail = [&report](const std::string& sentence, int exitStatus) {
        // In one piece: programs that run at the same time may share standard error.
        std::cerr << sentence + '\n';
        if (report) report(sentence, exitStatus);
        return exitStatus;
    };
    try {
        return run();
    } catch (const Failure& failure) {
        return fail(failure.what(), failure.ExitStatus);
    } catch (const std::exception& error) {
        return fail(std::string("Unexpected failure: ") + error.what() + '.', kExitFailure);
    }
}

}  // namespace

int RunProgram(const std::function<int()>& run, const FailureReport& report) {
    OccupyStandardStreams();
    // When the reader of the output ends early, writing returns an error instead.
    signal(SIGPIPE, SIG_IGN);
    const int status = StatusOf(run, report);
    if (IsDriverLeftBehind()) std::_Exit(status);
    return status;
}
