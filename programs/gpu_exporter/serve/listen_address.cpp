#include "serve/listen_address.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstddef>
#include <system_error>

bool ReadListenAddress(const std::string& text, ListenAddress* address) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) return false;
    address->Host = colon == 0 ? "0.0.0.0" : text.substr(0, colon);
    in_addr ignored{};
    if (inet_pton(AF_INET, address->Host.c_str(), &ignored) != 1) return false;
    const char* const end = text.data() + text.size();
    const auto [after, problem] = std::from_chars(text.data() + colon + 1, end, address->Port);
    return problem == std::errc() && after == end;
}

std::string ListenAddressError(const std::string& text) {
    ListenAddress address;
    if (ReadListenAddress(text, &address)) return "";
    return "'" + text + "' is not an IPv4 address and a port such as 127.0.0.1:9836";
}

std::string ListenAddressText(const ListenAddress& address) {
    return address.Host + ':' + std::to_string(address.Port);
}
