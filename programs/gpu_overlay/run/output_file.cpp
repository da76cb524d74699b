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
    constexpr int kToWrite = O_WRONLY | O_CREAT | O_CLOEXEC;
    Descriptor = open(path.c_str(), kToWrite | O_EXCL, kEveryoneReads);
    bEmptyAndNew = IsWanted();
    if (!IsWanted()) Descriptor = open(path.c_str(), kToWrite, kEveryoneReads);
    if (!IsWanted()) throw SystemFailure("Cannot write " + Path);
}

OutputFile::~OutputFile() {
    Abandon();
}

void OutputFile::Abandon() {
    if (bEmptyAndNew) unlink(Path.c_str());
    bEmptyAndNew = false;
    if (IsWanted()) close(Descriptor);
    Descriptor = -1;
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
