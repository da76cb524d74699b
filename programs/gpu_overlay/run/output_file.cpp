#include "run/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "common/failure.h"

namespace {

constexpr mode_t kEveryoneReads = 0666;

}  // namespace

OutputFile::OutputFile(const std::string& path) : Path(path) {
    if (Path.empty()) return;
    bEmptyAndNew = access(path.c_str(), F_OK) != 0;
    Descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kEveryoneReads);
    if (Descriptor < 0) throw SystemFailure("Cannot write " + Path);
}

OutputFile::~OutputFile() {
    if (bEmptyAndNew) unlink(Path.c_str());
    if (IsWanted()) close(Descriptor);
}

void OutputFile::Write(const std::string& bytes) {
    // A pipe or a device has no length, and keeps nothing.
    if (ftruncate(Descriptor, 0) != 0 && errno != EINVAL) throw SystemFailure("Cannot write " + Path);
    for (size_t written = 0; written < bytes.size();) {
        const ssize_t result = write(Descriptor, bytes.data() + written, bytes.size() - written);
        if (result < 0 && errno != EINTR) throw SystemFailure("Cannot write " + Path);
        if (result > 0) written += static_cast<size_t>(result);
    }
    bEmptyAndNew = false;
    // Some file systems say only now that there is no room.
    if (fsync(Descriptor) != 0 && errno != EINVAL && errno != EROFS) throw SystemFailure("Cannot write " + Path);
}
