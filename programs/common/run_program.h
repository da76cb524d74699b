#ifndef COMMON_RUN_PROGRAM_H
#define COMMON_RUN_PROGRAM_H

#include <functional>
#include <string>

/// Gets the sentence for the user and the exit status.
using FailureReport = std::function<void(const std::string& sentence, int exitStatus)>;

/// What the main function of each program does around `run`, which gives the exit status: prepares the process, and
/// prints a failure as one sentence on standard error. Then `report` is called, unless it is null.
///
/// Result: the exit status. Where a thread was left in a driver call, the process ends here instead.
int RunProgram(const std::function<int()>& run, const FailureReport& report = nullptr);

#endif  // COMMON_RUN_PROGRAM_H
