#ifndef GPU_MONITOR_COMMAND_LINE_H
#define GPU_MONITOR_COMMAND_LINE_H

/// Reads the command line and runs its command, or prints the help or the version. Prints why it fails.
///
/// Result: the exit status.
int RunCommandLine(int argc, char** argv);

#endif  // GPU_MONITOR_COMMAND_LINE_H
