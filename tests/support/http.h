#ifndef HTTP_H
#define HTTP_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

/// What a server has answered.
struct HttpAnswer {
    /// 0 when no complete answer came.
    int Status = 0;
    std::string Body = {};
};

/// A client of a server on this machine, for one answer. It waits 10 s for the server, as Prometheus does.
class HttpConnection {
public:
    explicit HttpConnection(int port, int receiveBytes = 1 << 18)
        : Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval patience{10, 0};
        setsockopt(Socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setsockopt(Socket, SOL_SOCKET, SO_RCVBUF, &receiveBytes, sizeof receiveBytes);
        const sockaddr_in server{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
        // Without a connection nothing can be sent, and no answer comes.
        static_cast<void>(connect(Socket, reinterpret_cast<const sockaddr*>(&server), sizeof server));
    }
    ~HttpConnection() { close(Socket); }
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    /// `flags` as `send` takes them.
    void Send(const std::string& bytes, int flags = 0) const {
        static_cast<void>(send(Socket, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL));
    }

    /// `fields` are further lines of the head, each with its end.
    HttpAnswer Get(const std::string& path, const std::string& fields = {}) const {
        Send("GET " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" + fields + "\r\n");
        std::string text;
        char part[1 << 16];
        ssize_t count = 0;
        while ((count = recv(Socket, part, sizeof part, 0)) > 0) text.append(part, static_cast<size_t>(count));
        const size_t headBytes = text.find("\r\n\r\n") + 4;
        if (text.size() < headBytes) return {};
        const std::string length = "Content-Length: " + std::to_string(text.size() - headBytes) + "\r\n";
        if (text.find(length) > headBytes) return {};
        const char* status = text.c_str() + std::strlen("HTTP/1.1 ");
        return {static_cast<int>(std::strtol(status, nullptr, 10)), text.substr(headBytes)};
    }

private:
    int Socket;
};

#endif  // HTTP_H
