// The embedded service: an HTTP/1.1 server on 127.0.0.1 that answers every path the SDK calls
// with deterministic data, injects faults per path for tests, and keeps the requests it was
// sent when asked to.
//
// Built to stay up under clients that misbehave, since demos, tests and developers lean on
// it: sockets never block a worker, so clients that send slowly, stop halfway, do not read
// their answers or wait on an injected delay hold a connection but no thread; a request must
// arrive in full within a deadline; connections are limited, and a newcomer beyond the limit
// takes the place of the connection idle the longest or is refused with a 503 that says why;
// stop() ends everything at once.
//
// Thread-safe: handlers run on the server's worker threads (several at once).
//
//   sorvan::server::EmbeddedService service;          // ephemeral port, started
//   setenv("SORVAN_SERVICE_ORIGIN", service.origin().c_str(), 1);
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sorvan::server {

struct Request {
    std::string method;
    std::string target;                          // as received: path?query
    std::string path;                            // percent-decoded
    std::string query;                           // raw, as received (no '?')
    std::map<std::string, std::string> headers;  // names lower-cased
    /// Query items split at '&' and '=', percent-decoded ('+' stays '+').
    std::multimap<std::string, std::string> queryItems() const;
    std::optional<std::string> queryItem(const std::string& name) const;
};

struct Response {
    int status = 200;
    std::string contentType = "application/octet-stream";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    /// Hold the answer this long before sending it. The wait holds no worker and ends at
    /// stop(), so a handler that must answer late asks for it here instead of sleeping.
    double delaySeconds = 0;

    static Response png(std::string bytes);
    static Response json(std::string text);
    static Response html(std::string text);
    static Response text(int status, std::string text);
};

using Handler = std::function<Response(const Request&)>;

/// What to do to the next `count` requests whose path starts with a prefix (the longest
/// prefix with a fault wins; injecting again for a prefix replaces its fault). The delay comes
/// first; then a dropped connection, or the status instead of the route's answer; then a
/// malformed or truncated body.
struct Fault {
    int count = 1;                // how many requests it applies to; -1 = until cleared
    int status = 0;               // answer this status (with a short body) instead
    double delaySeconds = 0;      // wait before answering (no worker waits; stop() ends it)
    bool dropConnection = false;  // close the socket without answering
    bool truncateBody = false;    // promise the full length, send half, close
    bool malformedBody = false;   // replace the body with bytes that are no JSON/PNG
};

/// How the service listens, what it puts up with, and what it keeps.
struct ServiceOptions {
    int port = 0;  // 0: an ephemeral port
    /// Connections open at once (at least 1). A newcomer beyond it takes the place of the
    /// connection that has waited longest between requests; when every connection is busy
    /// with a request, it is answered "503 Service Unavailable" with "Retry-After: 1" and the
    /// body "too many connections: at most N at once". Running out of file descriptors first
    /// is handled the same way ("too many connections: no file descriptor left").
    std::size_t maxConnections = 1024;
    /// From the first byte of a request to its last (head and body): a request that takes
    /// longer is answered "408 Request Timeout" and its connection closed.
    double requestTimeoutSeconds = 10;
    /// How long a kept-alive connection may wait for its next request before it is closed.
    double idleTimeoutSeconds = 60;
    /// How long an answer may wait for the client to take any more of it before the
    /// connection is dropped.
    double sendTimeoutSeconds = 30;
    /// How many of the latest requests requests() keeps; 0 keeps none (see recordRequests).
    std::size_t requestLog = 0;
};

/// What the service has done with connections since it started.
struct ServiceStats {
    std::size_t accepted = 0;         // taken into service
    std::size_t refused = 0;          // answered 503 at the connection or descriptor limit
    std::size_t reclaimed = 0;        // idle ones closed to make room for a newcomer
    std::size_t timedOut = 0;         // requests answered 408, answers abandoned by the client
    std::size_t openConnections = 0;  // open now
    std::size_t idleConnections = 0;  // open now and waiting between requests
};

class EmbeddedService {
  public:
    /// Starts listening on 127.0.0.1:port (0 = an ephemeral port) with every built-in route.
    /// Throws std::runtime_error when the port cannot be bound.
    explicit EmbeddedService(int port = 0);
    /// The same with limits and a request log of one's choosing. Throws std::invalid_argument
    /// unless maxConnections is at least 1 and every timeout above zero.
    explicit EmbeddedService(const ServiceOptions& options);
    /// Stops and joins every thread.
    ~EmbeddedService();
    EmbeddedService(const EmbeddedService&) = delete;
    EmbeddedService& operator=(const EmbeddedService&) = delete;

    int port() const;
    /// "http://127.0.0.1:PORT"
    std::string origin() const;

    /// Adds or replaces the handler of a path prefix (the longest matching prefix wins; a path
    /// no prefix matches is answered 404). Paths are compared percent-decoded. A handler that
    /// throws gives a 500 answer. Handlers run on worker threads and should answer promptly:
    /// a handler that waits holds a worker (there are eight).
    void route(const std::string& pathPrefix, Handler handler);

    /// Keeps the latest `capacity` requests from now on (and no more than 64 MiB of them),
    /// dropping the oldest first; 0 turns the request log off and empties it. Off unless the
    /// options or this ask for it, so that a long-running service does not grow.
    void recordRequests(std::size_t capacity);
    /// The requests kept, oldest first. Throws std::logic_error when the request log is off,
    /// so that a test that forgot to turn it on fails plainly instead of seeing no requests.
    std::vector<Request> requests() const;
    /// Requests whose path starts with prefix. Throws like requests().
    std::vector<Request> requests(const std::string& pathPrefix) const;
    void clearRequests();

    void injectFault(const std::string& pathPrefix, Fault fault);
    void clearFaults();

    /// How many TCP connections the service has accepted (clients that keep connections alive
    /// open few).
    std::size_t acceptedConnections() const;
    ServiceStats stats() const;

    /// Whether every map tile (map server and templates) carries its "mode z/x/y" stamp, as
    /// `sorvan serve --stamp` asks; off by default, when only a request's "stamp=1" stamps.
    void setStampTiles(bool stamp);
    bool stampTiles() const;

    /// Called on a worker thread for each answer the service sends (not for dropped
    /// connections), with the status: answers to requests, and the 400, 408, 431 and 503
    /// answers to requests that were malformed, too slow or beyond the limits (whose method and
    /// target are what arrived, or "-"). The call must not block: workers wait for it.
    /// For `sorvan serve`'s access log; see accessLogLine.
    void setAccessLog(std::function<void(const Request&, int status)> log);

    /// The service's wall clock: live data (the event feed) is a function of it. Tests install
    /// their own to move time on at will; nullptr restores the system clock. Thread-safe.
    using WallClock = std::function<std::chrono::system_clock::time_point()>;
    void setClock(WallClock clock);
    std::chrono::system_clock::time_point now() const;

    /// Blocks until stop() has finished (sorvan serve).
    void wait();
    /// Stops listening, ends injected delays, closes every connection and joins the threads,
    /// without waiting for any client. Idempotent. REQUIRES: not called from a handler.
    void stop();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// One line of an access log, without its newline: "METHOD TARGET STATUS". Safe to print on
/// a terminal: control characters, backslashes, bytes that are not UTF-8 and characters
/// that reorder or hide text are written as \xHH (a backslash as \\), and the value of every
/// query item named "key" (in any case) reads "***", so the service key never reaches a log.
std::string accessLogLine(const Request& request, int status);

/// Installs every built-in route; the constructor calls it. Each service's routes live in a
/// file of their own and are installed from here.
void installBuiltinRoutes(EmbeddedService& service);

}  // namespace sorvan::server
