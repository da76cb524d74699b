#include "serve/credentials.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <sstream>

#include "common/failure.h"

namespace {

/// Empty when credentials may be in this file, otherwise what is wrong with it.
const char* ObstacleIn(const struct stat& file) {
    if (!S_ISREG(file.st_mode)) return "it is not a regular file";
    if (file.st_uid != 0 && file.st_uid != geteuid()) return "it belongs to another user than root or this program's";
    if ((file.st_mode & (S_IROTH | S_IWOTH)) != 0) return "everyone can read or write it; chmod o= takes that away";
    return "";
}

/// Reads the file behind `descriptor`. Throws `Failure`.
std::string TextOf(int descriptor, const std::string& reading) {
    struct stat file {};
    if (fstat(descriptor, &file) != 0) throw SystemFailure(reading);
    const std::string obstacle = ObstacleIn(file);
    if (!obstacle.empty()) throw Failure(reading + ": " + obstacle + '.');
    std::string text;
    std::array<char, 4096> piece{};
    ssize_t size = 0;
    while ((size = read(descriptor, piece.data(), piece.size())) > 0) {
        text.append(piece.data(), static_cast<size_t>(size));
    }
    if (size < 0) throw SystemFailure(reading);
    return text;
}

/// Whether `line` is a user and a password, both without control characters.
bool IsUserLine(const std::string& line) {
    const size_t colon = line.find(':');
    const auto isControl = [](unsigned char c) { return c < ' ' || c == 0x7f; };
    return colon != 0 && colon != std::string::npos && colon + 1 < line.size() &&
           std::none_of(line.begin(), line.end(), isControl);
}

/// Takes as long for every `known` of the same length.
bool AreSame(const std::string& known, const std::string& given) {
    unsigned difference = known.size() == given.size() ? 0 : 1;
    for (size_t i = 0; i < given.size(); ++i) {
        difference |= static_cast<unsigned char>(known[i % known.size()] ^ given[i]);
    }
    return difference == 0;
}

}  // namespace

Credentials::Credentials(const std::string& path) {
    const std::string reading = "Cannot use " + path + " for authentication";
    // Opening a named pipe would wait for its writer.
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) throw SystemFailure(reading);
    std::istringstream text(TextOf(descriptor, reading));
    close(descriptor);
    int number = 0;
    for (std::string line; std::getline(text, line);) {
        ++number;
        if (line.empty() || line.front() == '#') continue;
        if (!IsUserLine(line)) throw Failure(reading + ": line " + std::to_string(number) + " is not user:password.");
        Lines.push_back(line);
    }
    if (Lines.empty()) throw Failure(reading + ": it has no line user:password.");
}

bool Credentials::Admit(const std::string& user, const std::string& password) const {
    const std::string given = user + ':' + password;
    bool bKnown = false;
    for (const std::string& line : Lines) bKnown = AreSame(line, given) || bKnown;
    return bKnown;
}
