#include "serve/server.h"

#include <CivetServer.h>
#include <arpa/inet.h>
#include <prometheus/exposer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstring>
#include <exception>
#include <future>
#include <utility>

#include "common/failure.h"
#include "gpu_feed/clock.h"

namespace {

constexpr const char* kMetricsPath = "/metrics";

/// Each connection holds a thread until its answer is sent: as many silent or slow clients as there are threads keep a
/// scrape waiting for one time-out. A connection ends with its answer, because each idle one would hold a thread, too,
/// and a new one takes a fraction of a millisecond.
constexpr const char* kThreads = "128";
/// For a whole request; while an answer is sent, for each part of it that the client takes.
constexpr const char* kTimeoutMs = "3000";
/// For the first line and all headers of a request.
constexpr const char* kRequestBytes = "8192";
/// Connections that wait for a thread, and behind them those that the system holds.
constexpr const char* kWaitingConnections = "64";
constexpr const char* kBacklog = "512";

/// What the handler of the metrics gives the web server as its status.
constexpr int kHandled = 1;

constexpr const char* kFrontPage =
    "<!DOCTYPE html>\n"
    "<html lang=\"en\"><head><title>gpu_exporter</title></head>\n"
    "<body><h1>gpu_exporter</h1>\n"
    "<p>Telemetry of the NVIDIA GPUs of this machine, for Prometheus.</p>\n"
    "<ul><li><a href=\"/metrics\">metrics</a></li><li><a href=\"/healthz\">health</a></li></ul>\n"
    "</body></html>\n";

thread_local double ScrapeBegan = 0.0;
/// Where to put what the web server reports first on this thread; null on its own threads.
thread_local std::string* FirstProblem = nullptr;

constexpr const char* kPlainText = "text/plain; charset=utf-8";

struct Answer {
    int Status;
    /// Empty: what the status means.
    std::string Body = {};
    const char* ContentType = kPlainText;
    const char* Header = "";
};

/// The answer to a request, unless it is one for the metrics.
std::optional<Answer> AnswerTo(const std::string& method, const std::string& path) {
    const bool bMetrics = path == kMetricsPath;
    const bool bFrontPage = path == "/";
    const Answer refusal = {405, "", kPlainText, bMetrics ? "Allow: GET\r\n" : "Allow: GET, HEAD\r\n"};
    if (!bMetrics && !bFrontPage && path != "/healthz") return Answer{404};
    if (method != "GET" && (bMetrics || method != "HEAD")) return refusal;
    if (bMetrics) return std::nullopt;
    return bFrontPage ? Answer{200, kFrontPage, "text/html; charset=utf-8"} : Answer{200, "ok\n"};
}

void Send(mg_connection* connection, const Answer& answer, bool bWithBody) {
    const std::string reason = mg_get_response_code_text(connection, answer.Status);
    const std::string body = answer.Body.empty() ? reason + '\n' : answer.Body;
    std::string text =
        "HTTP/1.1 " + std::to_string(answer.Status) + ' ' + reason + "\r\nContent-Type: " + answer.ContentType +
        "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + answer.Header + "Connection: close\r\n\r\n";
    if (bWithBody) text += body;
    mg_write(connection, text.data(), text.size());
}

/// Called by the web server for a request that it refuses itself. Its own answer would repeat parts of the request.
/// Result: that the answer is sent.
int AnswerError(mg_connection* connection, int status, const char* /*problem*/) {
    Send(connection, {status}, true);
    return 0;
}

/// The reason in a message of the web server such as "cannot bind to ADDRESS: 98 (Address already in use)"; the whole
/// message where it gives no error number, as in "cannot create socket (entry 1)".
std::string ReasonIn(const std::string& problem) {
    const size_t open = problem.rfind(" (");
    const bool bReason = open != std::string::npos && open > 0 && problem.back() == ')' &&
                         std::isdigit(static_cast<unsigned char>(problem[open - 1])) != 0;
    return bReason ? problem.substr(open + 2, problem.size() - open - 3) : problem;
}

/// Called by the web server with its messages. Those that clients cause later, on its own threads, would only fill the
/// journal. Result: 1, so that the web server does not write the message elsewhere, too.
int NoteProblem(const mg_connection* /*connection*/, const char* problem) {
    if (FirstProblem != nullptr && FirstProblem->empty()) *FirstProblem = problem;
    return 1;
}

/// Connects to a server and closes the connection.
void Knock(const ListenAddress& address) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(address.Port);
    inet_pton(AF_INET, address.Host.c_str(), &name.sin_addr);
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) return;
    static_cast<void>(connect(descriptor, reinterpret_cast<const sockaddr*>(&name), sizeof(name)));
    close(descriptor);
}

}  // namespace

Server* Server::Running = nullptr;

Server::Server(const ServerOptions& options, const std::vector<std::shared_ptr<prometheus::Collectable>>& collectables,
               std::function<void(double seconds)> onScrape)
    : Listen(options.Listen), OnScrape(std::move(onScrape)) {
    Running = this;
    Start();
    Listen.Port = static_cast<uint16_t>(Web->GetListeningPorts().at(0));
    if (options.Users) {
        const auto admit = [users = *options.Users](const std::string& user, const std::string& password) {
            return users.Admit(user, password);
        };
        Web->RegisterAuth(admit, "gpu_exporter", kMetricsPath);
    }
    for (const auto& collectable : collectables) Web->RegisterCollectable(collectable, kMetricsPath);
    bServing = true;
}

Server::~Server() {
    auto stopped = std::async([this] { Web.reset(); });
    // The thread that takes connections sees the end with the next one, otherwise only after two seconds.
    while (stopped.wait_for(std::chrono::milliseconds(20)) == std::future_status::timeout) Knock(Listen);
    stopped.get();
    Running = nullptr;
}

void Server::Start() {
    CivetCallbacks callbacks;
    callbacks.begin_request = BeginRequest;
    callbacks.end_request = EndRequest;
    callbacks.http_error = AnswerError;
    callbacks.log_message = NoteProblem;
    const std::string address = ListenAddressText(Listen);
    const std::vector<std::string> settings = {"listening_ports",    address,
                                               "num_threads",        kThreads,
                                               "request_timeout_ms", kTimeoutMs,
                                               "max_request_size",   kRequestBytes,
                                               "connection_queue",   kWaitingConnections,
                                               "listen_backlog",     kBacklog,
                                               "enable_keep_alive",  "no",
                                               "tcp_nodelay",        "1"};
    std::string problem;
    FirstProblem = &problem;
    try {
        Web = std::make_unique<prometheus::Exposer>(settings, &callbacks);
    } catch (const std::exception& error) {
        NoteProblem(nullptr, error.what());
    }
    FirstProblem = nullptr;
    // The web server also starts when it gets too few threads, and then maybe without the one that takes connections.
    if (!problem.empty()) throw Failure("Cannot serve on " + address + ": " + ReasonIn(problem) + '.');
}

/// Called by the web server for each request, before it looks for a handler and for a password. Result: 0 when the web
/// server is to go on, otherwise the status of the answer.
int Server::BeginRequest(mg_connection* connection) {
    // Otherwise the web server would wait for the rest of a body that nobody needs.
    mg_disable_connection_keep_alive(connection);
    ScrapeBegan = gpu_feed::NowSeconds();
    const mg_request_info* const request = mg_get_request_info(connection);
    const std::string method = request->request_method;
    std::optional<Answer> answer = AnswerTo(method, request->local_uri);
    if (!answer && !Running->bServing) answer = Answer{503};
    if (!answer) return 0;
    Send(connection, *answer, method != "HEAD");
    return answer->Status;
}

/// Called by the web server after each request.
void Server::EndRequest(const mg_connection* /*connection*/, int status) {
    if (status == kHandled) Running->OnScrape(gpu_feed::NowSeconds() - ScrapeBegan);
}
