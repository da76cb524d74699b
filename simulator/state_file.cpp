#include "state_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "environment.h"

namespace simulated_nvml {

namespace {

/// Keeps the order in which a person wrote the file.
using Json = nlohmann::ordered_json;

constexpr const char* kSince = "since";
constexpr const char* kRights = "rights";
constexpr const char* kBoards = "boards";
constexpr const char* kGraphics = "graphics_mhz";
constexpr const char* kMemory = "memory_mhz";
constexpr const char* kPowerLimit = "power_limit_mw";

/// What is wrong with the file, as the sentence ends that begins with its name.
class Problem : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

[[noreturn]] void ThrowUnusable(const std::string& why) {
    throw Problem("cannot be used: " + why);
}

[[noreturn]] void ThrowSystemError() {
    ThrowUnusable(std::generic_category().message(errno));
}

void Require(bool bSensible, const std::string& otherwise) {
    if (!bSensible) throw Problem("makes no sense: " + otherwise);
}

std::string Quoted(const char* key) {
    return '"' + std::string(key) + '"';
}

// ---- The file ----

/// Repeats a system call that a signal of the client ended too soon.
template <typename Call>
auto Uninterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

/// The file, open and locked against the other processes.
class LockedFile {
public:
    static LockedFile ForReading(const std::string& path) { return {path, O_RDONLY, LOCK_SH}; }
    static LockedFile ForWriting(const std::string& path) { return {path, O_RDWR, LOCK_EX}; }
    ~LockedFile() {
        // Closing alone would not unlock: a child that the client forked meanwhile shares the lock.
        flock(Descriptor, LOCK_UN);
        close(Descriptor);
    }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    std::string Text() const {
        constexpr size_t kMostBytes = size_t{1} << 20U;
        if (Size() > kMostBytes) ThrowUnusable("it is larger than 1 MiB");
        std::string text(Size(), '\0');
        const ssize_t bytes = Uninterrupted([&] { return pread(Descriptor, text.data(), text.size(), 0); });
        if (bytes < 0) ThrowSystemError();
        text.resize(static_cast<size_t>(bytes));
        return text;
    }

    /// The file makes sense at every moment, even if this process is killed: blanks cover the rest of a longer text
    /// until it is cut off.
    void Replace(std::string text) const {
        const size_t length = text.size();
        text.resize(std::max(length, Size()), '\n');
        ReserveRoom(static_cast<off_t>(text.size()));
        const ssize_t bytes = Uninterrupted([&] { return pwrite(Descriptor, text.data(), text.size(), 0); });
        if (bytes < 0) ThrowSystemError();
        if (static_cast<size_t>(bytes) != text.size()) ThrowUnusable("there is no room for it");
        if (Uninterrupted([&] { return ftruncate(Descriptor, static_cast<off_t>(length)); }) < 0) ThrowSystemError();
    }

private:
    explicit LockedFile(int descriptor) : Descriptor(descriptor) {
        if (Descriptor < 0) ThrowSystemError();
    }
    LockedFile(const std::string& path, int access, int lock) : LockedFile(Open(path, access)) {
        if (!S_ISREG(Status().st_mode)) ThrowUnusable("it is no regular file");
        Lock(lock);
        while (IsReplaced(path)) {
            const int replaced = std::exchange(Descriptor, Open(path, access));
            close(replaced);
            if (Descriptor < 0) ThrowSystemError();
            Lock(lock);
        }
    }

    /// Does not wait for the other end if the path names a pipe.
    static int Open(const std::string& path, int access) {
        return Uninterrupted([&] { return open(path.c_str(), access | O_CLOEXEC | O_NONBLOCK); });
    }
    /// Before anything is overwritten, because half a text would make no sense. Where a file system cannot reserve
    /// room, nothing guards against that.
    void ReserveRoom(off_t bytes) const {
        const auto reserve = [&] { return fallocate(Descriptor, FALLOC_FL_KEEP_SIZE, 0, bytes); };
        if (Uninterrupted(reserve) < 0 && errno != EOPNOTSUPP) ThrowSystemError();
    }
    void Lock(int lock) const {
        if (Uninterrupted([&] { return flock(Descriptor, lock); }) < 0) ThrowSystemError();
    }
    /// Whether an editor has replaced this file by another one before it was locked.
    bool IsReplaced(const std::string& path) const {
        struct stat named {};
        if (stat(path.c_str(), &named) < 0) ThrowSystemError();
        const struct stat opened = Status();
        return named.st_dev != opened.st_dev || named.st_ino != opened.st_ino;
    }
    struct stat Status() const {
        struct stat status {};
        if (fstat(Descriptor, &status) < 0) ThrowSystemError();
        return status;
    }
    size_t Size() const { return static_cast<size_t>(Status().st_size); }

    int Descriptor;
};

// ---- Its contents ----

Json Parsed(const std::string& text) {
    // Deeper nesting would be copied and written by an equally deep recursion.
    constexpr int kDeepest = 64;
    const auto limitDepth = [](int depth, Json::parse_event_t /*event*/, Json& /*parsed*/) {
        Require(depth <= kDeepest, "it is nested too deeply");
        return true;
    };
    try {
        return Json::parse(text, limitDepth);
    } catch (const Json::parse_error& error) {
        throw Problem("makes no sense: it is no JSON from byte " + std::to_string(error.byte) + " on");
    } catch (const Json::exception&) {
        throw Problem("makes no sense: a number in it is too large");
    }
}

bool IsUnsignedInt(const Json& value) {
    return value.is_number_unsigned() && value.get<uint64_t>() <= std::numeric_limits<unsigned int>::max();
}

double SinceOf(const Json& document, double known) {
    // The boards' clock can still count every moment of this time.
    constexpr double kLatest = 1e11;
    const Json since = document.value(kSince, Json(known));
    Require(since.is_number() && since >= 0.0 && since <= kLatest, Quoted(kSince) + " is no time in seconds");
    return since.get<double>();
}

bool IsAdministrator(const Json& document) {
    const Json rights = document.value(kRights, Json("admin"));
    Require(rights == "admin" || rights == "user", Quoted(kRights) + R"( is neither "admin" nor "user")");
    return rights == "admin";
}

/// What the file says of a board.
struct Place {
    const Board& Owner;
    const Json& Entry;

    /// The setting `key`, or null. A value that `setter` refuses makes no sense in the file either.
    const Json* Find(const char* key, const char* setter) const {
        const auto found = Entry.find(key);
        if (found == Entry.end()) return nullptr;
        Require(Owner.Unsupported.count(setter) == 0, Quoted(key) + " cannot be set on " + Owner.Uuid);
        return &*found;
    }
};

std::optional<ClockRange> ClockRangeOf(const Place& place, const char* key, const char* setter) {
    const Json* value = place.Find(key, setter);
    if (value == nullptr) return std::nullopt;
    const std::string problem = Quoted(key) + " of " + place.Owner.Uuid + " is no pair of clocks such as [900, 1200]";
    Require(value->is_array() && value->size() == 2, problem);
    Require(std::all_of(value->begin(), value->end(), IsUnsignedInt), problem);
    const ClockRange range{value->front().get<unsigned int>(), value->back().get<unsigned int>()};
    Require(IsSensible(range), problem);
    return range;
}

std::optional<unsigned int> PowerLimitOf(const Place& place) {
    const Json* value = place.Find(kPowerLimit, "nvmlDeviceSetPowerManagementLimit");
    if (value == nullptr) return std::nullopt;
    const Board& board = place.Owner;
    Require(IsUnsignedInt(*value) && AllowsPowerLimit(board, value->get<unsigned int>()),
            Quoted(kPowerLimit) + " of " + board.Uuid + " is no number from " +
                std::to_string(board.MinimumPowerLimitMilliwatts) + " to " +
                std::to_string(board.MaximumPowerLimitMilliwatts));
    return value->get<unsigned int>();
}

BoardSettings SettingsOf(const Board& board, const Json& boards) {
    const auto entry = boards.find(board.Uuid);
    if (entry == boards.end()) return {};
    Require(entry->is_object(), "the entry of " + board.Uuid + " is no object");
    const Place place{board, *entry};
    return {ClockRangeOf(place, kGraphics, "nvmlDeviceSetGpuLockedClocks"),
            ClockRangeOf(place, kMemory, "nvmlDeviceSetMemoryLockedClocks"), PowerLimitOf(place)};
}

/// `since` is when the boards' life began as far as this process knows, for a document that does not say.
StateFile::State StateOf(const Json& document, const std::vector<Board>& boards, double since) {
    Require(document.is_object(), "it is no JSON object");
    StateFile::State state{SinceOf(document, since), IsAdministrator(document), {}};
    const Json settings = document.value(kBoards, Json::object());
    Require(settings.is_object(), Quoted(kBoards) + " is no object");
    for (const Board& board : boards) state.Settings[board.Uuid] = SettingsOf(board, settings);
    return state;
}

template <typename Value>
void Put(Json* entry, const char* key, const std::optional<Value>& value) {
    if (value.has_value()) {
        (*entry)[key] = *value;
    } else {
        entry->erase(key);
    }
}

void PutClockRange(Json* entry, const char* key, const std::optional<ClockRange>& range) {
    using Pair = std::array<unsigned int, 2>;
    Put(entry, key, range.has_value() ? std::optional(Pair{range->Lowest, range->Highest}) : std::nullopt);
}

void PutSettings(Json* document, const std::string& uuid, const BoardSettings& settings) {
    Json& boards = (*document)[kBoards];
    Json& entry = boards[uuid];
    if (entry.is_null()) entry = Json::object();
    PutClockRange(&entry, kGraphics, settings.GraphicsLock);
    PutClockRange(&entry, kMemory, settings.MemoryLock);
    Put(&entry, kPowerLimit, settings.PowerLimitMilliwatts);
    if (entry.empty()) boards.erase(uuid);
}

std::string TextOf(const Json& document) {
    return document.dump(2) + '\n';
}

bool LacksStart(const std::string& text) {
    if (text.empty()) return true;
    const Json document = Parsed(text);
    return document.is_object() && !document.contains(kSince);
}

/// What `text` becomes when the boards' life begins now.
std::string Started(const std::string& text) {
    const std::chrono::duration<double, std::milli> now = std::chrono::system_clock::now().time_since_epoch();
    Json document = {{kSince, std::floor(now.count()) / 1000.0}, {kRights, "admin"}, {kBoards, Json::object()}};
    if (!text.empty()) document.update(Parsed(text));
    return TextOf(document);
}

}  // namespace

StateFile::StateFile(std::string path, std::vector<Board> boards) : Path(std::move(path)), Boards(std::move(boards)) {}

template <typename Body>
bool StateFile::Attempt(Body body) {
    try {
        body();
        ProblemSaid.clear();
        return true;
    } catch (const Problem& problem) {
        const std::string sentence = "NVML_SIM_STATE=" + Path + ' ' + problem.what() + '.';
        if (std::exchange(ProblemSaid, sentence) != sentence) SayProblem(sentence);
        return false;
    }
}

bool StateFile::Start() {
    ProblemSaid.clear();
    return Attempt([this] {
        Create();
        std::string text = LockedFile::ForReading(Path).Text();
        if (LacksStart(text)) text = BeginLife();
        Take(text);
    });
}

void StateFile::Create() const {
    constexpr mode_t kForAll = 0666;
    // Asked to create a file that is there, the kernel would keep even root from opening some that belong to others.
    const int created = open(Path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, kForAll);
    if (created < 0 && errno != EEXIST) ThrowSystemError();
    if (created >= 0) close(created);
}

std::string StateFile::BeginLife() const {
    const LockedFile file = LockedFile::ForWriting(Path);
    std::string text = file.Text();
    // Another process may have been faster.
    if (LacksStart(text)) file.Replace(text = Started(text));
    return text;
}

void StateFile::Take(const std::string& text) {
    // An empty file is one that is about to be written.
    if (text.empty() || text == LatestText) return;
    LatestState = StateOf(Parsed(text), Boards, LatestState.SinceSeconds);
    LatestText = text;
}

const StateFile::State& StateFile::Now() {
    Attempt([this] { Take(LockedFile::ForReading(Path).Text()); });
    return LatestState;
}

NvmlReturn StateFile::Change(const Board& board, const SettingsEdit& edit) {
    NvmlReturn result = kUnknown;
    const bool bUsable = Attempt([&] {
        const LockedFile file = LockedFile::ForWriting(Path);
        Take(file.Text());
        if (!LatestState.bAdministrator) {
            result = kNoPermission;
            return;
        }
        BoardSettings settings = LatestState.Settings.at(board.Uuid);
        result = edit(board, &settings);
        if (result != kSuccess) return;
        Json document = Parsed(LatestText);
        PutSettings(&document, board.Uuid, settings);
        file.Replace(TextOf(document));
    });
    return bUsable ? result : kUnknown;
}

}  // namespace simulated_nvml
