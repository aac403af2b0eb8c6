// The URL session over libcurl's multi interface: one network thread for the whole process
// drives every transfer of every session, so connections are shared and kept alive, and a
// session's completions are handed to its own serial queue.
#include "sorvan/platform/foundation/url_session.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "foundation/c_handle.hpp"
#include "url_cache_access.hpp"

#ifndef SORVAN_KIT_VERSION
#define SORVAN_KIT_VERSION "3.13"
#endif

namespace sorvan::net {

namespace {

using SteadyClock = std::chrono::steady_clock;

// One deleter for every curl handle type.
template <auto Release>
struct CurlDeleter {
    template <typename T>
    void operator()(T* handle) const noexcept {
        Release(handle);
    }
};
using EasyHandle = CHandle<CURL, curl_easy_cleanup>;
using MultiHandle = CHandle<CURLM, curl_multi_cleanup>;
using HeaderList = CHandle<curl_slist, curl_slist_free_all>;

constexpr const char* kUserAgent = "SorvanMapSDK/" SORVAN_KIT_VERSION;
// A body is given room up front for at most this many bytes; a larger one grows as it comes.
constexpr curl_off_t kMaxReserve = 64 * 1024 * 1024;
// Finished transfers leave their curl handles for the next ones, up to this many.
constexpr std::size_t kSpareHandles = 16;

std::string lowerCased(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

Error makeError(Error::Code code, std::string detail) {
    static const std::unordered_map<Error::Code, const char*> descriptions = {
        {Error::Code::Unknown, "An unknown error occurred."},
        {Error::Code::BadURL, "unsupported URL"},
        {Error::Code::CannotConnect, "Could not connect to the server."},
        {Error::Code::TimedOut, "The request timed out."},
        {Error::Code::ConnectionLost, "The network connection was lost."},
        {Error::Code::Cancelled, "cancelled"},
        {Error::Code::CannotParseResponse, "cannot parse response"},
        {Error::Code::CannotFindHost, "A server with the specified hostname could not be found."},
        {Error::Code::SecureConnectionFailed,
         "An SSL error has occurred and a secure connection to the server cannot be made."},
        {Error::Code::BadServerResponse, "cannot parse response"},
        {Error::Code::TooManyRedirects, "too many HTTP redirects"},
    };
    return Error{code, descriptions.at(code), std::move(detail)};
}

Error::Code codeFor(CURLcode result) {
    switch (result) {
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_URL_MALFORMAT:
            return Error::Code::BadURL;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return Error::Code::CannotFindHost;
        case CURLE_COULDNT_CONNECT:
            return Error::Code::CannotConnect;
        case CURLE_OPERATION_TIMEDOUT:
            return Error::Code::TimedOut;
        case CURLE_PARTIAL_FILE:
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return Error::Code::ConnectionLost;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
            return Error::Code::SecureConnectionFailed;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_BAD_CONTENT_ENCODING:
            return Error::Code::BadServerResponse;
        case CURLE_TOO_MANY_REDIRECTS:
            return Error::Code::TooManyRedirects;
        default:
            return Error::Code::Unknown;
    }
}

// What a session's transfers need of it after the session object itself may be gone.
struct SessionCore {
    explicit SessionCore(URLSessionConfiguration c, std::string label)
        : configuration(std::move(c)), queue(std::move(label)) {}
    const URLSessionConfiguration configuration;
    dispatch::SerialQueue queue;
};

// One transfer in flight. Owned by the network thread from the moment it is submitted.
struct Transfer {
    std::uint64_t id = 0;
    URL url;
    EasyHandle easy;
    HeaderList headers;
    Data body;
    std::map<std::string, std::string> responseHeaders;
    CompletionHandler completion;
    std::shared_ptr<SessionCore> session;
    SteadyClock::duration timeout{};
    SteadyClock::time_point lastActivity{};
    char errorBuffer[CURL_ERROR_SIZE] = {};

    explicit Transfer(URL u) : url(std::move(u)) {}

    // curl callbacks: never throw through curl, report failure with the return value.
    static size_t onBody(char* bytes, size_t size, size_t count, void* self) noexcept {
        auto* t = static_cast<Transfer*>(self);
        try {
            if (t->body.capacity() == 0) {
                // Room for the whole body at once when the server said how long it is.
                curl_off_t length = -1;
                curl_easy_getinfo(t->easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
                if (length > 0 && length <= kMaxReserve) {
                    t->body.reserve(static_cast<std::size_t>(length));
                }
            }
            t->body.insert(t->body.end(), bytes, bytes + size * count);
        } catch (...) {
            return 0;  // curl ends the transfer with a write error
        }
        t->lastActivity = SteadyClock::now();
        return size * count;
    }

    static size_t onHeader(char* bytes, size_t size, size_t count, void* self) noexcept {
        auto* t = static_cast<Transfer*>(self);
        std::size_t n = size * count;
        t->lastActivity = SteadyClock::now();
        try {
            std::string_view line(bytes, n);
            while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
                line.remove_suffix(1);
            }
            if (line.starts_with("HTTP/")) {
                t->responseHeaders.clear();  // a new response (after a redirect or a 100)
                return n;
            }
            auto colon = line.find(':');
            if (colon == std::string_view::npos) {
                return n;
            }
            std::string name = lowerCased(std::string(line.substr(0, colon)));
            std::string_view value = line.substr(colon + 1);
            while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
                value.remove_prefix(1);
            }
            auto [it, added] = t->responseHeaders.emplace(name, value);
            if (!added) {
                it->second += ", ";
                it->second += value;
            }
        } catch (...) {
            return 0;
        }
        return n;
    }
};

// Delivers one outcome on the session's queue. A 200 answer goes into the cache first, so that
// a request made from the completion already finds it there; the completion is then handed
// the cache's own copy.
void deliver(std::shared_ptr<SessionCore> session, CompletionHandler completion,
             std::optional<Data> data, std::optional<HTTPURLResponse> response,
             std::optional<Error> error, bool store) {
    auto& queue = session->queue;
    queue.async([session = std::move(session), completion = std::move(completion),
                 data = std::move(data), response = std::move(response), error = std::move(error),
                 store]() mutable {
        auto handler = std::move(completion);
        if (store && response && data) {
            auto entry =
                URLCacheAccess::store(URLCache::shared(), std::move(*response), std::move(*data));
            if (handler) {
                handler(entry->data, entry->response, error);
            }
            return;
        }
        if (handler) {
            handler(data, response, error);
        }
        // The session core may be released here, on its own queue's thread; SerialQueue
        // allows that.
    });
}

// Delivers an answer from the cache, without copying it.
void deliverCached(std::shared_ptr<SessionCore> session, CompletionHandler completion,
                   std::shared_ptr<const CacheEntry> entry) {
    auto& queue = session->queue;
    queue.async([session = std::move(session), completion = std::move(completion),
                 entry = std::move(entry)] {
        if (completion) {
            completion(entry->data, entry->response, std::nullopt);
        }
    });
}

class NetworkThread {
  public:
    static NetworkThread& instance() {
        // Never destroyed: transfers may still be in flight while the process exits.
        static NetworkThread* const network = new NetworkThread();
        return *network;
    }

    void submit(std::unique_ptr<Transfer> transfer) {
        {
            std::lock_guard lock(mutex_);
            incoming_.push_back(std::move(transfer));
        }
        curl_multi_wakeup(multi_.get());
    }

    // A curl handle for a new transfer: a spare one when there is one.
    EasyHandle takeHandle() {
        {
            std::lock_guard lock(mutex_);
            if (!spare_.empty()) {
                EasyHandle easy = std::move(spare_.back());
                spare_.pop_back();
                return easy;
            }
        }
        return EasyHandle(curl_easy_init());
    }

    void cancel(std::uint64_t id) {
        {
            std::lock_guard lock(mutex_);
            cancelled_.push_back(id);
        }
        curl_multi_wakeup(multi_.get());
    }

  private:
    NetworkThread() {
        curl_global_init(CURL_GLOBAL_ALL);
        multi_.reset(curl_multi_init());
        thread_ = std::thread([this] { loop(); });
        thread_.detach();
    }

    void loop() {
        for (;;) {
            takeSubmissions();
            int running = 0;
            curl_multi_perform(multi_.get(), &running);
            int queued = 0;
            while (CURLMsg* msg = curl_multi_info_read(multi_.get(), &queued)) {
                if (msg->msg == CURLMSG_DONE) {
                    CURL* easy = msg->easy_handle;
                    CURLcode result = msg->data.result;
                    finish(easy, result);
                }
            }
            expireIdle();
            curl_multi_poll(multi_.get(), nullptr, 0, waitMilliseconds(), nullptr);
        }
    }

    void takeSubmissions() {
        std::vector<std::unique_ptr<Transfer>> incoming;
        std::vector<std::uint64_t> cancelled;
        {
            std::lock_guard lock(mutex_);
            incoming.swap(incoming_);
            cancelled.swap(cancelled_);
        }
        auto now = SteadyClock::now();
        for (auto& t : incoming) {
            t->lastActivity = now;
            CURL* easy = t->easy.get();
            if (curl_multi_add_handle(multi_.get(), easy) != CURLM_OK) {
                fail(std::move(t), makeError(Error::Code::Unknown, "cannot start the transfer"));
                continue;
            }
            active_.emplace(easy, std::move(t));
        }
        for (auto id : cancelled) {
            auto it = std::find_if(active_.begin(), active_.end(),
                                   [id](const auto& entry) { return entry.second->id == id; });
            if (it != active_.end()) {
                remove(it, makeError(Error::Code::Cancelled, ""));
            }
        }
    }

    // A transfer that heard nothing from the server for its timeout ends as timed out.
    void expireIdle() {
        auto now = SteadyClock::now();
        for (auto it = active_.begin(); it != active_.end();) {
            auto next = std::next(it);
            const Transfer& t = *it->second;
            if (now - t.lastActivity >= t.timeout) {
                auto seconds = std::chrono::duration<double>(t.timeout).count();
                remove(it, makeError(Error::Code::TimedOut,
                                     "no data received for " + std::to_string(seconds) + " s"));
            }
            it = next;
        }
    }

    int waitMilliseconds() {
        long curlWait = -1;
        curl_multi_timeout(multi_.get(), &curlWait);
        long wait = curlWait < 0 ? 1000 : std::min(curlWait, 1000L);
        auto now = SteadyClock::now();
        for (const auto& [easy, t] : active_) {
            auto left =
                std::chrono::ceil<std::chrono::milliseconds>(t->lastActivity + t->timeout - now);
            wait = std::min<long>(wait, std::max<long>(0, left.count()));
        }
        return static_cast<int>(wait);
    }

    using ActiveMap = std::unordered_map<CURL*, std::unique_ptr<Transfer>>;

    void remove(ActiveMap::iterator it, Error error) {
        auto t = std::move(it->second);
        active_.erase(it);
        curl_multi_remove_handle(multi_.get(), t->easy.get());
        recycle(*t);
        fail(std::move(t), std::move(error));
    }

    // Keeps the handle of a finished transfer for a later one. Its connection stays with the
    // multi handle either way.
    void recycle(Transfer& t) {
        if (!t.easy) {
            return;
        }
        curl_easy_reset(t.easy.get());
        std::lock_guard lock(mutex_);
        if (spare_.size() < kSpareHandles) {
            spare_.push_back(std::move(t.easy));
        }
    }

    static void fail(std::unique_ptr<Transfer> t, Error error) {
        deliver(std::move(t->session), std::move(t->completion), std::nullopt, std::nullopt,
                std::move(error), false);
    }

    void finish(CURL* easy, CURLcode result) {
        auto it = active_.find(easy);
        if (it == active_.end()) {
            return;
        }
        auto t = std::move(it->second);
        active_.erase(it);
        curl_multi_remove_handle(multi_.get(), easy);
        if (result != CURLE_OK) {
            std::string detail = t->errorBuffer[0] != '\0' ? std::string(t->errorBuffer)
                                                           : curl_easy_strerror(result);
            recycle(*t);
            fail(std::move(t), makeError(codeFor(result), std::move(detail)));
            return;
        }
        long status = 0;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
        char* effective = nullptr;
        curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &effective);
        // Parsed again only when a redirect led elsewhere.
        std::optional<URL> finalURL;
        if (effective && t->url.absoluteString() != effective) {
            finalURL = URL::fromString(effective);
        }
        HTTPURLResponse response{finalURL ? std::move(*finalURL) : std::move(t->url),
                                 static_cast<int>(status), std::move(t->responseHeaders)};
        recycle(*t);
        deliver(std::move(t->session), std::move(t->completion), std::move(t->body),
                std::move(response), std::nullopt, status == 200);
    }

    MultiHandle multi_;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Transfer>> incoming_;  // guarded by mutex_
    std::vector<std::uint64_t> cancelled_;             // guarded by mutex_
    std::vector<EasyHandle> spare_;                    // guarded by mutex_
    ActiveMap active_;                                 // network thread only
};

std::atomic<std::uint64_t> nextTaskId{1};
std::atomic<int> nextSessionNumber{1};

class Task final : public DataTask {
  public:
    explicit Task(std::uint64_t id, bool onNetwork) : id_(id), onNetwork_(onNetwork) {}
    void cancel() override {
        if (onNetwork_) {
            NetworkThread::instance().cancel(id_);
        }
    }
    std::uint64_t identifier() const override { return id_; }

  private:
    std::uint64_t id_;
    bool onNetwork_;
};

// Prepares the curl handle of a transfer. Returns false when curl cannot take the request.
bool configure(Transfer& t, const URLRequest& request) {
    CURL* easy = t.easy.get();
    const std::string& address = t.url.absoluteString();
    curl_easy_setopt(easy, CURLOPT_URL, address.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, &t);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.errorBuffer);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &t);
    auto connectMs = std::chrono::duration_cast<std::chrono::milliseconds>(t.timeout).count();
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::max<long>(1, connectMs)));

    bool hasUserAgent = false;
    curl_slist* list = nullptr;
    for (const auto& [name, value] : request.allHeaderFields()) {
        if (lowerCased(name) == "user-agent") {
            hasUserAgent = true;
        }
        // curl drops a header written "Name:" and sends an empty one written "Name;".
        std::string line = value.empty() ? name + ";" : name + ": " + value;
        curl_slist* grown = curl_slist_append(list, line.c_str());
        if (!grown) {
            curl_slist_free_all(list);
            return false;
        }
        list = grown;
    }
    t.headers.reset(list);
    if (list) {
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, list);
    }
    if (!hasUserAgent) {
        curl_easy_setopt(easy, CURLOPT_USERAGENT, kUserAgent);
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// URLRequest

void URLRequest::setValue(const std::string& value, const std::string& header) {
    std::string key = lowerCased(header);
    for (auto& [name, v] : headers_) {
        if (lowerCased(name) == key) {
            v = value;
            return;
        }
    }
    headers_.emplace_back(header, value);
}

std::optional<std::string> URLRequest::valueForHeader(const std::string& header) const {
    std::string key = lowerCased(header);
    for (const auto& [name, v] : headers_) {
        if (lowerCased(name) == key) {
            return v;
        }
    }
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// URLSession

struct URLSession::Impl {
    std::shared_ptr<SessionCore> core;
};

URLSession::URLSession(URLSessionConfiguration configuration) : impl_(std::make_unique<Impl>()) {
    std::string label = "net.session." + std::to_string(nextSessionNumber++);
    impl_->core = std::make_shared<SessionCore>(std::move(configuration), std::move(label));
}

// Transfers in flight keep what they need of the session; their completions still run.
URLSession::~URLSession() = default;

URLSession& URLSession::shared() {
    // Never destroyed, like the network thread it feeds.
    static URLSession* const session =
        new URLSession(URLSessionConfiguration::defaultConfiguration());
    return *session;
}

std::shared_ptr<URLSession> URLSession::create(URLSessionConfiguration configuration) {
    return std::shared_ptr<URLSession>(new URLSession(std::move(configuration)));
}

dispatch::SerialQueue& URLSession::delegateQueue() {
    return impl_->core->queue;
}

std::shared_ptr<DataTask> URLSession::dataTask(const URL& url, CompletionHandler completion) {
    return dataTask(URLRequest(url), std::move(completion));
}

std::shared_ptr<DataTask> URLSession::dataTask(const URLRequest& request,
                                               CompletionHandler completion) {
    const auto& config = impl_->core->configuration;
    std::uint64_t id = nextTaskId++;
    CachePolicy policy = config.requestCachePolicy.value_or(request.cachePolicy());
    if (policy == CachePolicy::ReturnCacheDataElseLoad) {
        if (auto cached = URLCacheAccess::lookup(URLCache::shared(), request.url())) {
            deliverCached(impl_->core, std::move(completion), std::move(cached));
            return std::make_shared<Task>(id, false);
        }
    }

    // The transport would guess a scheme for a relative URL; the platform refuses it.
    if (request.url().scheme().empty() || request.url().host().empty()) {
        deliver(impl_->core, std::move(completion), std::nullopt, std::nullopt,
                makeError(Error::Code::BadURL, "no scheme or host"), false);
        return std::make_shared<Task>(id, false);
    }

    auto t = std::make_unique<Transfer>(request.url());
    t->id = id;
    t->session = impl_->core;
    t->completion = std::move(completion);
    auto timeout = std::min(request.timeoutInterval(), config.timeoutIntervalForRequest);
    if (!(timeout.count() > 0)) {
        timeout = config.timeoutIntervalForRequest.count() > 0 ? config.timeoutIntervalForRequest
                                                               : std::chrono::duration<double>(60);
    }
    t->timeout = std::chrono::duration_cast<SteadyClock::duration>(timeout);
    t->easy = NetworkThread::instance().takeHandle();
    if (!t->easy || !configure(*t, request)) {
        deliver(std::move(t->session), std::move(t->completion), std::nullopt, std::nullopt,
                makeError(Error::Code::Unknown, "cannot prepare the transfer"), false);
        return std::make_shared<Task>(id, false);
    }
    NetworkThread::instance().submit(std::move(t));
    return std::make_shared<Task>(id, true);
}

}  // namespace sorvan::net
