#ifndef CREDENTIALS_H
#define CREDENTIALS_H

#include <string>
#include <vector>

/// The users of a server and their passwords.
class Credentials {
public:
    /// Reads a file of lines `user:password`; empty lines and those that begin with # do not count. A user may have
    /// several lines, so that a password can be replaced. Throws `Failure` when the file cannot be read, has another
    /// line or no user, is not a regular file of root or this user, or can be read or written by everyone.
    explicit Credentials(const std::string& path);

    /// Whether one of the lines has both. How long that takes says nothing about what the lines hold.
    bool Admit(const std::string& user, const std::string& password) const;

private:
    std::vector<std::string> Lines;
};

#endif  // CREDENTIALS_H
