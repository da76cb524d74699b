#ifndef LISTEN_ADDRESS_H
#define LISTEN_ADDRESS_H

#include <cstdint>
#include <string>

/// Where a server listens.
struct ListenAddress {
    /// An IPv4 address in numbers; 0.0.0.0 is all addresses.
    std::string Host;
    /// 0: any free one.
    uint16_t Port = 0;
};

/// Reads ADDRESS:PORT. False: `text` is something else; `address` is then undefined.
bool ReadListenAddress(const std::string& text, ListenAddress* address);

/// Empty when `text` can be read, otherwise what is wrong.
std::string ListenAddressError(const std::string& text);

/// The address as a user writes it.
std::string ListenAddressText(const ListenAddress& address);

#endif  // LISTEN_ADDRESS_H
