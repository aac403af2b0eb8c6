// URL loading: requests, responses, errors, the shared session over libcurl and the shared
// response cache.
//
// URLSession::shared() runs every transfer on one network thread (curl multi); a data task is
// resumed when created and completes exactly once on the session's serial delegate queue.
// Thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/url.hpp"

namespace sorvan::net {

using Data = std::vector<std::uint8_t>;

enum class CachePolicy {
    UseProtocolCachePolicy = 0,
    ReturnCacheDataElseLoad = 2,
};

/// A GET request. Default timeout 60 s, as on the platform the system was made for.
class URLRequest {
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
    CachePolicy cachePolicy() const { return cachePolicy_; }
    void setCachePolicy(CachePolicy p) { cachePolicy_ = p; }

  private:
    URL url_;
    std::string method_ = "GET";
    std::vector<std::pair<std::string, std::string>> headers_;
    std::chrono::duration<double> timeout_{60.0};
    CachePolicy cachePolicy_ = CachePolicy::UseProtocolCachePolicy;
};

/// The HTTP response of a completed transfer.
struct HTTPURLResponse {
    URL url;
    int statusCode = 0;
    std::map<std::string, std::string> headers;  // names lower-cased
};

/// A transport error (no response, timeout, reset, bad URL). The description is readable
/// and is what log lines print.
struct Error {
    // CannotParseResponse: the body was not the JSON a service call expected.
    enum class Code {
        Unknown,
        BadURL,
        CannotConnect,
        TimedOut,
        ConnectionLost,
        Cancelled,
        CannotParseResponse
    };
    Code code = Code::Unknown;
    std::string localizedDescription;
};

using CompletionHandler = std::function<void(const std::optional<Data>& data,
                                             const std::optional<HTTPURLResponse>& response,
                                             const std::optional<Error>& error)>;

/// A handle on one transfer. Dropping it does not cancel the transfer.
class DataTask {
  public:
    virtual ~DataTask() = default;
    virtual void cancel() = 0;
    virtual std::uint64_t identifier() const = 0;
};

/// Memory and disk cache of GET responses with status 200, keyed by the absolute URL.
class URLCache {
  public:
    static URLCache& shared();
    std::optional<Data> cachedData(const URL& url) const;
    void store(const URL& url, const HTTPURLResponse& response, const Data& data);
    void removeAllCachedResponses();
    URLCache(const URLCache&) = delete;
    URLCache& operator=(const URLCache&) = delete;
    ~URLCache();

  private:
    URLCache();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

struct URLSessionConfiguration {
    static URLSessionConfiguration defaultConfiguration() { return {}; }
    /// Overrides the cache policy of every request the session runs, when set.
    std::optional<CachePolicy> requestCachePolicy;
    std::chrono::duration<double> timeoutIntervalForRequest{60.0};
};

class URLSession {
  public:
    /// The process's shared session.
    static URLSession& shared();
    /// A session of its own (it shares the network thread of the shared session).
    static std::shared_ptr<URLSession> create(URLSessionConfiguration configuration);

    /// Starts a transfer at once (there is no separate resume step). A request with
    /// ReturnCacheDataElseLoad is answered from URLCache::shared() without touching the
    /// network when the cache holds the URL.
    std::shared_ptr<DataTask> dataTask(const URLRequest& request, CompletionHandler completion);
    std::shared_ptr<DataTask> dataTask(const URL& url, CompletionHandler completion);

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
