#include "common/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

void OccupyStandardStreams() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) == -1) static_cast<void>(open("/dev/null", O_RDONLY));
    }
}
