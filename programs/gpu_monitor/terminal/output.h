#ifndef GPU_MONITOR_OUTPUT_H
#define GPU_MONITOR_OUTPUT_H

#include <cstddef>
#include <string>

/// What became of a text that was to be written.
enum class WriteResult {
    Written,
    /// The reader of the pipe has gone: nobody wants any more, which is no failure.
    ReaderGone,
    /// The reader made no room until the end of the program was asked for; nothing was written.
    Stopped,
};

/// Writes `text` to standard output and hands it on at once. Throws `Failure` when it cannot be written.
///
/// Once `stopDescriptor` is readable, a text that finds no room is not begun; one that is begun is finished, so that a
/// line is never cut. -1: there is nothing to stop for.
WriteResult WriteOutput(const std::string& text, int stopDescriptor = -1);

/// The most characters per line: the width of the terminal, or 80 where output goes elsewhere.
size_t OutputWidth();

#endif  // GPU_MONITOR_OUTPUT_H
