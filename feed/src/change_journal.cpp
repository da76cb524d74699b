#include "gpu_feed/change_journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>

#include "process_stat.h"

namespace gpu_feed {

namespace {

namespace fs = std::filesystem;
using Kind = TuningChange::Kind;

constexpr const char* kRootFolder = "/run/gpu_monitor";
/// Begins each file; the number is that of the format.
constexpr const char* kHeading = "gpu_monitor change 1";
constexpr size_t kMostBytes = 1000;
constexpr mode_t kReadableByAll = 0644;
constexpr mode_t kWritableByOthers = 0022;

// ---- The text of a note ----

constexpr std::pair<const char*, Kind> kWords[] = {{"lock-clocks", Kind::LockClocks},
                                                   {"reset-clocks", Kind::ResetClocks},
                                                   {"set-power", Kind::SetPower},
                                                   {"reset-power", Kind::ResetPower}};

std::string Words(const TuningChange& change) {
    std::string words;
    for (const auto& [word, kind] : kWords) {
        if (kind == change.What) words = word;
    }
    const auto& [graphics, memory] = change.Pair;
    if (change.What == Kind::LockClocks) words += ' ' + std::to_string(graphics) + ' ' + std::to_string(memory);
    if (change.What == Kind::SetPower) words += ' ' + std::to_string(std::llround(change.Watts * 1000.0));
    return words;
}

std::istream& operator>>(std::istream& text, TuningChange& change) {
    std::string found;
    text >> found;
    for (const auto& [word, kind] : kWords) {
        if (word == found) change.What = kind;
    }
    if (change.What == Kind::LockClocks) text >> change.Pair.GraphicsClockMHz >> change.Pair.MemoryClockMHz;
    if (change.What == Kind::SetPower) {
        long long milliwatts = 0;
        text >> milliwatts;
        change.Watts = static_cast<double>(milliwatts) / 1000.0;
    }
    return text;
}

/// Without what could end a line, move a terminal's cursor or lead to another folder.
std::string Harmless(std::string text) {
    const auto isHarmful = [](char c) { return c < ' ' || c > '~' || c == '/'; };
    std::replace_if(text.begin(), text.end(), isHarmful, '?');
    return text;
}

std::string TextOf(const NotedChange& noted) {
    const std::pair<const char*, std::string> lines[] = {
        {"boot ", noted.BootId},
        {"process ", std::to_string(noted.Pid) + ' ' + std::to_string(noted.ProcessStart)},
        {"gpu ", std::to_string(noted.Device.Index) + ' ' + noted.Device.Uuid},
        {"name ", noted.Device.Name},
        {"before ", Words(noted.Before)},
        {"earlier ", Words(noted.Earlier)},
        {"set ", Words(noted.Set)}};
    std::string text = kHeading;
    for (const auto& [key, value] : lines) text += '\n' + (key + Harmless(value));
    return text + '\n';
}

/// Empty unless `text` is exactly what `TextOf` makes of a sensible change.
std::optional<NotedChange> Parsed(const std::string& text) {
    NotedChange noted;
    std::istringstream words(text);
    std::string ignored;
    std::getline(words, ignored);
    words >> ignored >> noted.BootId >> ignored >> noted.Pid >> noted.ProcessStart;
    words >> ignored >> noted.Device.Index >> noted.Device.Uuid >> ignored;
    words.ignore();
    std::getline(words, noted.Device.Name);
    words >> ignored >> noted.Before >> ignored >> noted.Earlier >> ignored >> noted.Set;
    const TuningControl control = noted.Set.Control();
    const bool bSensible = noted.Pid > 0 && noted.Before.Control() == control && noted.Earlier.Control() == control;
    return bSensible && TextOf(noted) == text ? std::optional(noted) : std::nullopt;
}

std::string FileName(const NotedChange& noted) {
    const bool bClocks = noted.Set.Control() == TuningControl::Clocks;
    return std::to_string(noted.Pid) + '-' + std::to_string(noted.ProcessStart) + '-' + noted.Device.Uuid +
           (bClocks ? "-clocks" : "-power");
}

// ---- The system ----

std::string BootId() {
    std::string id;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
    return id;
}

bool IsSameSetting(const NotedChange& a, const NotedChange& b) {
    return a.Device.Uuid == b.Device.Uuid && a.Set.Control() == b.Set.Control();
}

bool IsRunning(const NotedChange& noted) {
    if (kill(noted.Pid, 0) != 0 && errno == ESRCH) return false;
    const std::optional<ProcessStat> process = ReadProcessStat(noted.Pid);
    // The system may hide the processes of other users.
    return !process || (!process->bEnded && process->StartTicks == noted.ProcessStart);
}

/// The note of this program.
NotedChange OwnNote(const TuningRecord& record, const TuningChange& change) {
    const std::optional<ProcessStat> process = ReadProcessStat(getpid());
    NotedChange noted = {BootId(),       getpid(), process ? process->StartTicks : 0, record.Device, record.Before,
                         record.InForce, change};
    noted.Device.Uuid = Harmless(record.Device.Uuid);
    return noted;
}

// ---- Files ----

/// Result: 0 or the system's error number.
int WriteNew(const std::string& path, const std::string& text) {
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kReadableByAll);
    if (descriptor < 0) return errno;
    errno = ENOSPC;
    const bool bComplete = write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    // Some file systems notice only then that there is no room. The rights do not depend on the user's mask.
    const bool bSafe = bComplete && fsync(descriptor) == 0 && fchmod(descriptor, kReadableByAll) == 0;
    const int error = bSafe ? 0 : errno;
    close(descriptor);
    return error;
}

/// The old file or the new one is there at every moment. Throws `std::filesystem::filesystem_error`.
void Replace(const fs::path& path, const std::string& text) {
    if (fs::create_directories(path.parent_path())) fs::permissions(path.parent_path(), fs::perms(0755));
    const fs::path newFile = path.string() + ".new";
    int error = WriteNew(newFile, text);
    if (error == 0 && rename(newFile.c_str(), path.c_str()) != 0) error = errno;
    if (error == 0) return;
    unlink(newFile.c_str());
    throw fs::filesystem_error("", std::error_code(error, std::generic_category()));
}

struct NoteFile {
    std::string Text;
    double ChangedAt = 0.0;
};

/// Empty when the file cannot be trusted, or not be read.
std::optional<NoteFile> ReadFile(const fs::path& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) return std::nullopt;
    struct stat status {};
    std::string text(kMostBytes, '\0');
    const bool bTrusted = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
                          (status.st_uid == 0 || status.st_uid == geteuid()) &&
                          (status.st_mode & kWritableByOthers) == 0;
    const ssize_t bytes = bTrusted ? read(descriptor, text.data(), text.size()) : -1;
    close(descriptor);
    if (bytes < 0) return std::nullopt;
    text.resize(static_cast<size_t>(bytes));
    const auto nanoseconds = static_cast<double>(status.st_mtim.tv_nsec);
    return NoteFile{text, static_cast<double>(status.st_mtim.tv_sec) + nanoseconds / 1e9};
}

}  // namespace

std::string ChangeJournal::Note(const TuningRecord& record, const TuningChange& change) const {
    if (Folder.empty()) return {};
    const NotedChange noted = OwnNote(record, change);
    std::string problem = "the GPU gave no UUID";
    try {
        if (!record.Device.Uuid.empty()) {
            Replace(Folder / FileName(noted), TextOf(noted));
            problem.clear();
        }
    } catch (const fs::filesystem_error& error) {
        problem = error.code().message();
    }
    if (!problem.empty()) {
        return "This change cannot be noted in " + Folder.string() + " (" + problem +
               "). If this program is killed, nothing will report the change.";
    }
    for (const NotedChange& other : ReadNotes()) {
        if (!IsSameSetting(other, noted) || other.Pid == noted.Pid || !IsRunning(other)) continue;
        return "Process " + std::to_string(other.Pid) + " has changed this setting too and will take its change back.";
    }
    return {};
}

std::string ChangeJournal::Remove(const TuningRecord& record) const {
    return Folder.empty() ? "" : Remove(OwnNote(record, record.InForce));
}

std::string ChangeJournal::Remove(const NotedChange& noted) const {
    const fs::path file = Folder / FileName(noted);
    std::error_code error;
    if (!fs::exists(file, error)) return {};
    fs::remove(file, error);
    if (!error) return {};
    return "The note of a change that is over cannot be removed from " + Folder.string() + " (" + error.message() +
           "). It will be reported as left.";
}

std::vector<NotedChange> ChangeJournal::LeftChanges() const {
    const std::vector<NotedChange> notes = ReadNotes();
    std::vector<NotedChange> left;
    for (const NotedChange& noted : notes) {
        const auto holdsIt = [&noted](const NotedChange& each) {
            return IsSameSetting(each, noted) && IsRunning(each);
        };
        if (std::none_of(notes.begin(), notes.end(), holdsIt)) left.push_back(noted);
    }
    return left;
}

void ChangeJournal::ForgetLeftChanges(const GpuDeviceInfo& device, TuningControl control) const {
    for (const NotedChange& noted : LeftChanges()) {
        if (noted.Device.Uuid == Harmless(device.Uuid) && noted.Set.Control() == control) Remove(noted);
    }
}

/// All notes of this boot, the latest first.
std::vector<NotedChange> ChangeJournal::ReadNotes() const {
    const std::string bootId = BootId();
    std::vector<std::pair<double, NotedChange>> found;
    std::error_code unreadable;
    for (fs::directory_iterator place(Folder, unreadable), end; !unreadable && place != end;
         place.increment(unreadable)) {
        const std::optional<NoteFile> file = ReadFile(place->path());
        const std::optional<NotedChange> noted = file ? Parsed(file->Text) : std::nullopt;
        if (!noted || FileName(*noted) != place->path().filename()) continue;
        if (noted->BootId == bootId) {
            found.emplace_back(file->ChangedAt, *noted);
        } else {
            std::error_code ignored;
            fs::remove(place->path(), ignored);
        }
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    std::vector<NotedChange> notes;
    notes.reserve(found.size());
    for (auto& [time, noted] : found) notes.push_back(std::move(noted));
    return notes;
}

fs::path DefaultJournalFolder() {
    if (geteuid() == 0) return kRootFolder;
    for (const auto& [variable, folder] : {std::pair("XDG_STATE_HOME", ""), {"HOME", ".local/state"}}) {
        const char* const base = std::getenv(variable);
        if (base != nullptr && *base == '/') return fs::path(base) / folder / "gpu_monitor";
    }
    return {};
}

std::vector<fs::path> DefaultJournalFolders() {
    if (geteuid() == 0) return {kRootFolder};
    return {kRootFolder, DefaultJournalFolder()};
}

}  // namespace gpu_feed
