#ifndef GPU_MONITOR_OUTPUT_H
#define GPU_MONITOR_OUTPUT_H

#include <cstddef>
#include <string>

#include "view/canvas.h"

/// How writing a text ended.
enum class WriteResult {
    Written,
    /// The reader of the pipe has gone, which is not a failure.
    ReaderGone,
    /// A stop was requested before the reader made room; nothing was written.
    Stopped,
};

/// Writes `text` to standard output, unbuffered. Throws `Failure` when it cannot be written.
///
/// Once `stopDescriptor` is readable, a text that has to wait for room is not begun. A text that is begun is finished,
/// so that a line is never cut. -1: nothing requests a stop.
WriteResult WriteOutput(const std::string& text, int stopDescriptor = -1);

/// The most characters per line: the width of the terminal, or 80 where output goes elsewhere.
size_t OutputWidth();

/// The characters that the locale and the kind of terminal can show.
GlyphSet OutputGlyphs();

#endif  // GPU_MONITOR_OUTPUT_H
