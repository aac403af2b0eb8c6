// The embedded service: an HTTP/1.1 server on 127.0.0.1 that answers every path the SDK calls
// with deterministic data, records each request, and injects faults per path for tests.
// Thread-safe: handlers run on the server's worker threads (several at once), keep-alive
// connections wait on one poller thread between requests.
//
//   sorvan::server::EmbeddedService service;          // ephemeral port, started
//   setenv("SORVAN_SERVICE_ORIGIN", service.origin().c_str(), 1);
#pragma once

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
    double delaySeconds = 0;      // wait before answering
    bool dropConnection = false;  // close the socket without answering
    bool truncateBody = false;    // promise the full length, send half, close
    bool malformedBody = false;   // replace the body with bytes that are no JSON/PNG
};

class EmbeddedService {
  public:
    /// Starts listening on 127.0.0.1:port (0 = an ephemeral port) with every built-in route.
    /// Throws std::runtime_error when the port cannot be bound.
    explicit EmbeddedService(int port = 0);
    /// Stops and joins every thread.
    ~EmbeddedService();
    EmbeddedService(const EmbeddedService&) = delete;
    EmbeddedService& operator=(const EmbeddedService&) = delete;

    int port() const;
    /// "http://127.0.0.1:PORT"
    std::string origin() const;

    /// Adds or replaces the handler of a path prefix (the longest matching prefix wins; a path
    /// no prefix matches is answered 404). Paths are compared percent-decoded. A handler that
    /// throws gives a 500 answer.
    void route(const std::string& pathPrefix, Handler handler);

    std::vector<Request> requests() const;
    /// Requests whose path starts with prefix.
    std::vector<Request> requests(const std::string& pathPrefix) const;
    void clearRequests();

    void injectFault(const std::string& pathPrefix, Fault fault);
    void clearFaults();

    /// How many TCP connections the service has accepted (clients that keep connections alive
    /// open few).
    std::size_t acceptedConnections() const;

    /// Whether every map tile (map server and templates) carries its "mode z/x/y" stamp, as
    /// `sorvan serve --stamp` asks; off by default, when only a request's "stamp=1" stamps.
    void setStampTiles(bool stamp);
    bool stampTiles() const;

    /// Called on a worker thread after each request is answered (not for dropped ones), with
    /// the status sent. For `sorvan serve`'s access log.
    void setAccessLog(std::function<void(const Request&, int status)> log);

    /// Blocks until stop() has finished (sorvan serve).
    void wait();
    /// Stops listening, interrupts injected delays, closes every connection and joins the
    /// threads. Idempotent. REQUIRES: not called from a handler.
    void stop();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// Installs every built-in route; the constructor calls it. Each service's routes live in a
/// file of their own and are installed from here.
void installBuiltinRoutes(EmbeddedService& service);

}  // namespace sorvan::server
