#ifndef GPU_MONITOR_COMMAND_LINE_H
#define GPU_MONITOR_COMMAND_LINE_H

#include <string>

/// Reads the command line and runs its command, or prints the help or the version.
///
/// Result: the exit status. Throws `Failure`.
int RunCommandLine(int argc, char** argv);

/// Prints a failure on standard output as an object, if that can be written.
void PrintFailureJson(const std::string& sentence, int exitStatus);

#endif  // GPU_MONITOR_COMMAND_LINE_H
