// URL loading: requests, responses, errors, the shared session over libcurl and the shared
// response cache.
//
// Every session runs its data tasks on one network thread shared by the process (many at once,
// connections kept alive and reused); a data task is resumed when created and its completion
// runs exactly once on the session's serial delegate queue. HTTP status codes are not errors:
// a 404 completes with its body and response and no error. Thread-safe.
//
// A completion must not block waiting for another data task: it may run on the network thread
// itself (in the queue's place, while the queue is idle), and the queue is serial in any case.
// A blocking fetch (sendSynchronousRequest) needs neither and may be made from anywhere but the
// main queue.
//
//   net::URLSession::shared().dataTask(*net::URL::fromString(address),
//       [](const auto& data, const auto& response, const auto& error) {
//           if (error) { log::writef("... %s", error->localizedDescription.c_str()); return; }
//           // data and response are set
//       });
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

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/url.hpp"

namespace sorvan::net {

using Data = std::vector<std::uint8_t>;

enum class CachePolicy {
    UseProtocolCachePolicy = 0,
    ReturnCacheDataElseLoad = 2,
};

/// A GET request. Default timeout 60 s, as on the platform the system was made for: a transfer
/// that receives nothing for that long fails. Two more limits end a transfer that keeps
/// receiving: an overall deadline (default 300 s) and a largest body (default 64 MiB), set per
/// kind of request by the code that makes it.
class SORVAN_EXPORT URLRequest {
  public:
    explicit URLRequest(URL url) : url_(std::move(url)) {}
    const URL& url() const { return url_; }
    const std::string& httpMethod() const { return method_; }
    void setValue(const std::string& value, const std::string& header);
    std::optional<std::string> valueForHeader(const std::string& header) const;
    /// Headers in the order they were set.
    const std::vector<std::pair<std::string, std::string>>& allHeaderFields() const {
        return headers_;
    }
    std::chrono::duration<double> timeoutInterval() const { return timeout_; }
    void setTimeoutInterval(std::chrono::duration<double> t) { timeout_ = t; }
    /// How long the whole transfer may take, however steadily data comes.
    std::chrono::duration<double> deadlineInterval() const { return deadline_; }
    void setDeadlineInterval(std::chrono::duration<double> t) { deadline_ = t; }
    /// The largest body accepted; a longer one (announced or received) ends the transfer.
    std::size_t maximumBodySize() const { return maximumBodySize_; }
    void setMaximumBodySize(std::size_t bytes) { maximumBodySize_ = bytes; }
    CachePolicy cachePolicy() const { return cachePolicy_; }
    void setCachePolicy(CachePolicy p) { cachePolicy_ = p; }
    /// Whether a 200 answer to this request may be stored in the cache (default true). An
    /// answer no request will ever read back (one that is never fresh) is better not written.
    bool allowsStoringResponse() const { return allowsStoringResponse_; }
    void setAllowsStoringResponse(bool allows) { allowsStoringResponse_ = allows; }

  private:
    URL url_;
    std::string method_ = "GET";
    std::vector<std::pair<std::string, std::string>> headers_;
    std::chrono::duration<double> timeout_{60.0};
    std::chrono::duration<double> deadline_{300.0};
    std::size_t maximumBodySize_ = 64 * 1024 * 1024;
    CachePolicy cachePolicy_ = CachePolicy::UseProtocolCachePolicy;
    bool allowsStoringResponse_ = true;
};

/// The HTTP response of a completed transfer.
struct SORVAN_EXPORT HTTPURLResponse {
    URL url;
    int statusCode = 0;
    std::map<std::string, std::string> headers;  // names lower-cased
};

/// A transport error (no response, timeout, reset, bad URL, a limit passed). The description
/// is readable and is what log lines print: "Could not connect to the server.", "The network
/// connection was lost.", "A server with the specified hostname could not be found.",
/// "unsupported URL", "cancelled", ... A limit that ended a transfer is named: "The request
/// timed out. (idle for 60 s)", "The request timed out. (request deadline of 300 s passed)",
/// "The response is too large. (body larger than 67108864 bytes)".
struct SORVAN_EXPORT Error {
    // CannotParseResponse: the body was not the JSON a service call expected (made by the
    // service clients, never by the session).
    enum class Code {
        Unknown,
        BadURL,
        CannotConnect,
        TimedOut,
        ConnectionLost,
        Cancelled,
        CannotParseResponse,
        CannotFindHost,
        SecureConnectionFailed,
        BadServerResponse,
        TooManyRedirects,
        DataLengthExceedsMaximum,
    };
    Code code = Code::Unknown;
    std::string localizedDescription;
    /// What the transport said, for diagnostics ("Failed to connect to 127.0.0.1 port 9 ...").
    std::string detail = {};
};

/// What a transfer ended with: what a data task's completion is given.
struct TransferResult {
    std::optional<Data> data;
    std::optional<HTTPURLResponse> response;
    std::optional<Error> error;
};

using CompletionHandler = std::function<void(const std::optional<Data>& data,
                                             const std::optional<HTTPURLResponse>& response,
                                             const std::optional<Error>& error)>;

/// A handle on one transfer. Dropping it does not cancel the transfer.
class SORVAN_EXPORT DataTask {
  public:
    virtual ~DataTask() = default;
    /// Ends a transfer still in flight with a Cancelled error (the completion still runs once).
    /// Does nothing once the transfer has finished or for an answer taken from the cache.
    virtual void cancel() = 0;
    virtual std::uint64_t identifier() const = 0;
};

/// Memory and disk cache of GET responses, keyed by the absolute URL. Keeps only what HTTP
/// lets a private cache keep: status 200, without "Cache-Control: no-store" or "Vary: *". The
/// disk part lives in "URLCache" under the caches directory (looked up at each use, so a test
/// that moves SORVAN_HOME gets a fresh cache); each file carries a checksum, and a damaged one
/// is a miss. Bounded by bytes, least recently used first out. Entries are kept whatever their
/// age: the request's cache policy decides whether a stored answer may be used (see
/// URLSession::dataTask). Thread-safe.
class SORVAN_EXPORT URLCache {
  public:
    struct CachedResponse {
        HTTPURLResponse response;
        Data data;
    };

    static URLCache& shared();
    std::optional<Data> cachedData(const URL& url) const;
    std::optional<CachedResponse> cachedResponse(const URL& url) const;
    /// Keeps data when HTTP allows (see above); ignores anything else. The answer is
    /// found at once; its file is written on a thread of the cache's own once answers stop
    /// coming for a moment (or many wait for the disk).
    void store(const URL& url, const HTTPURLResponse& response, const Data& data);
    /// Waits until every response stored so far is on disk (the process also does this,
    /// briefly, when it exits).
    void flush();
    /// Forgets the answer stored for url, in memory and on disk, so that the next request
    /// with ReturnCacheDataElseLoad asks the server again. For an answer that turned out to be
    /// unusable (a tile that does not decode).
    void removeCachedResponse(const URL& url);
    /// Empties memory and disk.
    void removeAllCachedResponses();
    /// Bounds the memory layer (default 4 MiB); 0 empties it and keeps it empty. A response
    /// bigger than a twentieth of a layer's bound stays out of that layer.
    void setMemoryCapacity(std::size_t bytes);
    /// Bounds the disk layer (default 64 MiB); 0 turns it off: nothing is read from it or
    /// written to it (files already there stay). With both capacities 0 there is no cache.
    void setDiskCapacity(std::size_t bytes);
    /// The directory of the disk part, for the current environment.
    std::string diskPath() const;
    URLCache(const URLCache&) = delete;
    URLCache& operator=(const URLCache&) = delete;
    ~URLCache();

  private:
    URLCache();
    friend struct URLCacheAccess;
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

struct SORVAN_EXPORT URLSessionConfiguration {
    static URLSessionConfiguration defaultConfiguration() { return {}; }
    /// Overrides the cache policy of every request the session runs, when set.
    std::optional<CachePolicy> requestCachePolicy;
    /// A transfer that receives nothing for this long (or the request's own timeout, when
    /// shorter) fails with TimedOut.
    std::chrono::duration<double> timeoutIntervalForRequest{60.0};
    /// A transfer still running after this long (or the request's own deadline, when
    /// shorter) fails with TimedOut.
    std::chrono::duration<double> timeoutIntervalForResource{300.0};
};

class SORVAN_EXPORT URLSession {
  public:
    /// The process's shared session.
    static URLSession& shared();
    /// A session of its own (it shares the network thread of the shared session).
    static std::shared_ptr<URLSession> create(URLSessionConfiguration configuration);

    /// Starts a transfer at once (there is no separate resume step). A request with
    /// ReturnCacheDataElseLoad is answered from URLCache::shared() without touching the
    /// network when the cache holds the URL (status 200, still on the delegate queue). With
    /// UseProtocolCachePolicy a stored answer is used as it is while fresh by its own
    /// "Cache-Control: max-age" or "Expires"; once stale, or marked "no-cache", the server is
    /// asked with its "ETag" and "Last-Modified" ("If-None-Match", "If-Modified-Since"), and a
    /// "304 Not Modified" completes as the stored 200 answer, its headers updated. Every 200
    /// answer HTTP lets a cache keep is stored before the completion runs. Headers set on
    /// the request are sent as they are, plus Host, "Accept: */*" and a User-Agent of the kit
    /// unless the request sets one. Redirects are followed.
    std::shared_ptr<DataTask> dataTask(const URLRequest& request, CompletionHandler completion);
    std::shared_ptr<DataTask> dataTask(const URL& url, CompletionHandler completion);

    /// Runs request to its end on the calling thread and returns what a data task's completion
    /// would have been given, under the same rules: cache policy, storing 200 answers in the
    /// cache, headers, redirects and timeouts. Nothing runs on the delegate queue, and the
    /// transfer cannot be cancelled. Each calling thread keeps a connection of its own for
    /// its next calls. Blocks the caller: meant for threads that may block (tile loading),
    /// never the main queue.
    TransferResult sendSynchronousRequest(const URLRequest& request);

    /// The serial queue completions run on.
    dispatch::SerialQueue& delegateQueue();

    ~URLSession();
    URLSession(const URLSession&) = delete;
    URLSession& operator=(const URLSession&) = delete;

  private:
    explicit URLSession(URLSessionConfiguration configuration);
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sorvan::net
