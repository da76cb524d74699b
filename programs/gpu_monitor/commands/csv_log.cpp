#include "commands/csv_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <utility>

#include "common/failure.h"
#include "text/csv_format.h"

namespace {

/// Whether the last line was cut off, for example by a full disk.
bool EndsWithinLine(const std::string& path) {
    std::ifstream file(path);
    file.seekg(-1, std::ios::end);
    const int last = file.get();
    return file.good() && last != '\n';
}

bool HasTodaysHeading(const std::string& path) {
    const std::string heading = CsvHeading();
    std::string start(heading.size(), '\0');
    return std::ifstream(path).read(start.data(), static_cast<std::streamsize>(start.size())) && start == heading;
}

}  // namespace

CsvLog::CsvLog(std::string path) : Path(std::move(path)) {
    if (Path.empty()) return;
    // Without waiting, because a reader of a named pipe must not hold up the view.
    File = open(Path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    if (File < 0) throw SystemFailure("Cannot open " + Path);
    struct stat status {};
    const bool bNew = fstat(File, &status) == 0 && status.st_size == 0;
    if (bNew) Pending = CsvHeading();
    if (!bNew && S_ISREG(status.st_mode)) {
        if (!HasTodaysHeading(Path)) {
            throw Failure(Path + " is no log with the columns of this version: choose another file.");
        }
        if (EndsWithinLine(Path)) Pending = "\n";
    }
    WritePending();
    if (!LastProblem.empty()) throw Failure(LastProblem);
}

CsvLog::~CsvLog() {
    if (File >= 0) close(File);
}

void CsvLog::Add(const PolledFeed::Gpus& gpus) {
    if (File < 0) return;
    if (Pending.empty()) {
        for (const Row& row : Samples.Take(gpus)) Pending += CsvLine(row.Gpu->Device, *row.Sample);
    }
    WritePending();
}

void CsvLog::WritePending() {
    LastProblem.clear();
    while (!Pending.empty()) {
        const ssize_t written = write(File, Pending.data(), Pending.size());
        if (written >= 0) {
            Pending.erase(0, static_cast<size_t>(written));
        } else if (errno != EINTR) {
            LastProblem = SystemFailure("Cannot write to " + Path).what();
            return;
        }
    }
}
