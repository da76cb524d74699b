#ifndef GPU_EXPORTER_COMMAND_LINE_H
#define GPU_EXPORTER_COMMAND_LINE_H

/// Reads the command line and does what it says. Result: the exit status. Throws `Failure`.
int RunCommandLine(int argc, char** argv);

#endif  // GPU_EXPORTER_COMMAND_LINE_H
