#ifndef SERVER_H
#define SERVER_H

#include <prometheus/collectable.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "serve/credentials.h"
#include "serve/listen_address.h"

struct mg_connection;

namespace prometheus {
class Exposer;
}

struct ServerOptions {
    ListenAddress Listen;
    /// Who gets metrics. Without a value, everyone does.
    std::optional<Credentials> Users;
};

/// Serves metrics at /metrics, and at / and /healthz small pages that need no password. Anything else is refused.
///
/// A process has one server at a time: the callbacks of the web server know no other way to it.
class Server {
public:
    /// Serves when it returns. `onScrape` is called after each page of metrics with the seconds that the page took; it
    /// must not throw. It and the collectables are used by several threads at once. Throws `Failure` when it cannot
    /// serve.
    Server(const ServerOptions& options, const std::vector<std::shared_ptr<prometheus::Collectable>>& collectables,
           std::function<void(double seconds)> onScrape);

    /// Ends the requests in progress. Clients that are slow delay that: by two seconds when they do not send, by up to
    /// two time-outs when they do not read.
    ~Server();

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Where it serves; the port is the real one.
    const ListenAddress& Address() const { return Listen; }

private:
    /// Starts the web server. Throws `Failure`.
    void Start();

    static int BeginRequest(mg_connection* connection);
    static void EndRequest(const mg_connection* connection, int status);

    static Server* Running;

    ListenAddress Listen;
    const std::function<void(double seconds)> OnScrape;
    std::atomic<bool> bServing{false};
    std::unique_ptr<prometheus::Exposer> Web;
};

#endif  // SERVER_H
