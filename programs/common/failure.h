#ifndef COMMON_FAILURE_H
#define COMMON_FAILURE_H

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

// Exit statuses of the programs, listed in their help too.
constexpr int kExitSuccess = 0;
/// No usable driver or GPU, a reading or change that failed, or output that could not be written.
constexpr int kExitFailure = 1;
/// An unknown option or command, a bad value, or a GPU index that does not exist.
constexpr int kExitUsage = 2;
/// A change that the driver refuses this user.
constexpr int kExitNoPermission = 3;
/// A change that the driver or the GPU does not have, clocks that are not listed, or a limit outside the range.
constexpr int kExitUnsupported = 4;

/// Ends the program with one sentence for the user and an exit status.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& sentence, int exitStatus = kExitFailure)
        : std::runtime_error(sentence), ExitStatus(exitStatus) {}

    const int ExitStatus;
};

/// The failure of a system call that has just set `errno`; `what` begins the sentence.
inline Failure SystemFailure(const std::string& what) {
    return Failure(what + ": " + std::generic_category().message(errno) + '.');
}

#endif  // COMMON_FAILURE_H
