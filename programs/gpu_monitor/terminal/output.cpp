#include "terminal/output.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/failure.h"

namespace {

constexpr size_t kDefaultWidth = 80;

/// Waits until standard output takes PIPE_BUF bytes without blocking. False: the stop came first.
bool WaitForRoom(int stopDescriptor) {
    pollfd descriptors[] = {{STDOUT_FILENO, POLLOUT, 0}, {stopDescriptor, POLLIN, 0}};
    while (poll(descriptors, 2, -1) < 0) {
        if (errno != EINTR) throw SystemFailure("Cannot wait for standard output");
    }
    return descriptors[0].revents != 0;
}

}  // namespace

WriteResult WriteOutput(const std::string& text, int stopDescriptor) {
    size_t written = 0;
    while (written < text.size()) {
        if (!WaitForRoom(written == 0 ? stopDescriptor : -1)) return WriteResult::Stopped;
        const size_t size = std::min<size_t>(text.size() - written, PIPE_BUF);
        const ssize_t result = write(STDOUT_FILENO, text.data() + written, size);
        if (result >= 0) {
            written += static_cast<size_t>(result);
        } else if (errno == EPIPE) {
            return WriteResult::ReaderGone;
        } else if (errno != EINTR && errno != EAGAIN) {
            throw SystemFailure("Cannot write to standard output");
        }
    }
    return WriteResult::Written;
}

size_t OutputWidth() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kDefaultWidth;
    return size.ws_col;
}

GlyphSet OutputGlyphs() {
    if (!LocaleIsUnicode()) return GlyphSet::Ascii;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment.
    const char* terminal = std::getenv("TERM");
    const bool bLinuxConsole = terminal != nullptr && std::strncmp(terminal, "linux", 5) == 0;
    return bLinuxConsole ? GlyphSet::Blocks : GlyphSet::Braille;
}
