// The URL session over libcurl's multi interface. One multi handle, driven by one network
// thread for the whole process, carries every data task of every session, so connections are
// shared and kept alive. Hand-overs between threads are what a request costs beyond the
// transfer, so they are avoided where the contracts allow:
// - with nothing in flight, the thread that submits a data task starts it itself (the request
//   leaves at once) and the network thread wakes while the server works;
// - a completion runs on the session's serial queue, on the network thread itself when that
//   queue is idle and nothing else is in flight, else on the queue's own thread;
// - a blocking fetch drives its transfer on the calling thread, which keeps a multi handle and
//   its connections of its own.
#include "sorvan/platform/foundation/url_session.hpp"

#include <curl/curl.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>

#include "foundation/c_handle.hpp"
#include "foundation/dispatch/serial_queue_access.hpp"
#include "url_cache_access.hpp"

#ifndef SORVAN_KIT_VERSION
#define SORVAN_KIT_VERSION "3.13"
#endif

namespace sorvan::net {

namespace {

using SteadyClock = std::chrono::steady_clock;

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
        {Error::Code::DataLengthExceedsMaximum, "The response is too large."},
    };
    return Error{code, descriptions.at(code), std::move(detail)};
}

// An error for a limit that ended a transfer: the log line that prints it says which one.
Error limitError(Error::Code code, const std::string& limit) {
    Error e = makeError(code, limit);
    e.localizedDescription += " (" + limit + ")";
    return e;
}

std::string secondsText(SteadyClock::duration d) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", std::chrono::duration<double>(d).count());
    return text;
}

Error tooLarge(std::size_t limit) {
    return limitError(Error::Code::DataLengthExceedsMaximum,
                      "body larger than " + std::to_string(limit) + " bytes");
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

// How a transfer ended. A 200 answer is to be stored in the cache before anyone sees it; a
// 304 to a revalidation stands for the stored answer it confirms.
struct Outcome {
    std::optional<Data> data;
    std::optional<HTTPURLResponse> response;
    std::optional<Error> error;
    bool store = false;
    std::shared_ptr<const CacheEntry> revalidating;

    static Outcome failure(Error e) {
        return Outcome{std::nullopt, std::nullopt, std::move(e), false, nullptr};
    }
};

// One transfer in flight. Owned by the thread that drives it from the moment it starts.
struct Transfer {
    std::uint64_t id = 0;
    URL url;
    EasyHandle easy;
    HeaderList headers;
    Data body;
    std::map<std::string, std::string> responseHeaders;
    // Where the outcome goes; empty for a blocking fetch.
    CompletionHandler completion;
    // The stored answer this transfer asks the server about, if any.
    std::shared_ptr<const CacheEntry> revalidating;
    std::shared_ptr<SessionCore> session;
    SteadyClock::duration timeout{};
    SteadyClock::time_point lastActivity{};
    // The whole transfer's limit, counted from when it starts.
    SteadyClock::duration deadlineInterval{};
    SteadyClock::time_point deadline{};
    std::size_t maxBody = 0;
    bool storable = true;       // a 200 answer may go into the cache
    bool bodyTooLarge = false;  // ended by the body's limit
    char errorBuffer[CURL_ERROR_SIZE] = {};

    explicit Transfer(URL u) : url(std::move(u)) {}

    // curl callbacks: never throw through curl, report failure with the return value.
    static size_t onBody(char* bytes, size_t size, size_t count, void* self) noexcept {
        auto* t = static_cast<Transfer*>(self);
        const std::size_t n = size * count;
        try {
            if (t->body.capacity() == 0) {
                // Room for the whole body at once when the server said how long it is; a
                // length beyond the limit ends the transfer before anything is kept.
                curl_off_t length = -1;
                curl_easy_getinfo(t->easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
                if (length > 0 && static_cast<std::uint64_t>(length) > t->maxBody) {
                    t->bodyTooLarge = true;
                    return 0;
                }
                if (length > 0 && length <= kMaxReserve) {
                    t->body.reserve(static_cast<std::size_t>(length));
                }
            }
            if (n > t->maxBody - t->body.size()) {
                t->bodyTooLarge = true;
                return 0;  // curl ends the transfer with a write error
            }
            t->body.insert(t->body.end(), bytes, bytes + n);
        } catch (...) {
            return 0;  // curl ends the transfer with a write error
        }
        t->lastActivity = SteadyClock::now();
        return n;
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

    // The outcome of a transfer curl finished with result. Takes the body and headers.
    Outcome finish(CURLcode result) {
        if (bodyTooLarge) {
            return Outcome::failure(tooLarge(maxBody));
        }
        if (result != CURLE_OK) {
            std::string detail =
                errorBuffer[0] != '\0' ? std::string(errorBuffer) : curl_easy_strerror(result);
            return Outcome::failure(makeError(codeFor(result), std::move(detail)));
        }
        long status = 0;
        curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
        char* effective = nullptr;
        curl_easy_getinfo(easy.get(), CURLINFO_EFFECTIVE_URL, &effective);
        // Parsed again only when a redirect led elsewhere.
        std::optional<URL> finalURL;
        if (effective && url.absoluteString() != effective) {
            finalURL = URL::fromString(effective);
        }
        HTTPURLResponse response{finalURL ? std::move(*finalURL) : std::move(url),
                                 static_cast<int>(status), std::move(responseHeaders)};
        return Outcome{std::move(body), std::move(response), std::nullopt,
                       storable && status == 200,
                       status == 304 ? std::move(revalidating) : nullptr};
    }
};

// Runs a completion with an outcome. A 200 answer goes into the cache first, so that a request
// made from the completion already finds it there; the completion is then handed the cache's
// own copy.
void complete(const CompletionHandler& handler, Outcome& outcome) {
    if (outcome.revalidating && outcome.response) {
        auto entry = URLCacheAccess::revalidated(URLCache::shared(), *outcome.revalidating,
                                                 *outcome.response);
        if (handler) {
            handler(entry->data, entry->response, std::nullopt);
        }
        return;
    }
    if (outcome.store && outcome.response && outcome.data) {
        auto entry = URLCacheAccess::store(URLCache::shared(), std::move(*outcome.response),
                                           std::move(*outcome.data));
        if (handler) {
            handler(entry->data, entry->response, outcome.error);
        }
        return;
    }
    if (handler) {
        handler(outcome.data, outcome.response, outcome.error);
    }
}

// The task that runs a completion on its session's queue. The session core may be released
// inside it, on whichever thread runs it; the queue allows that.
dispatch::Task deliveryOf(std::shared_ptr<SessionCore> session, CompletionHandler completion,
                          Outcome outcome) {
    return [session = std::move(session), completion = std::move(completion),
            outcome = std::move(outcome)]() mutable {
        auto handler = std::move(completion);
        complete(handler, outcome);
    };
}

// Hands an outcome to the session's queue.
void deliver(std::shared_ptr<SessionCore> session, CompletionHandler completion, Outcome outcome) {
    auto& queue = session->queue;
    queue.async(deliveryOf(std::move(session), std::move(completion), std::move(outcome)));
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

void ensureCurl() {
    static const bool ready = [] {
        curl_global_init(CURL_GLOBAL_ALL);
        return true;
    }();
    (void)ready;
}

// Transfers driven on one curl multi handle, which keeps their connections alive for the
// next ones. Used by one thread at a time (wakeup() excepted): the network thread has one,
// and so has every thread that makes blocking fetches.
class Multi {
  public:
    struct Finished {
        std::unique_ptr<Transfer> transfer;
        Outcome outcome;
    };

    Multi() : multi_(curl_multi_init()) {}

    // Starts driving t. Returns false (t untouched) when curl does not take it.
    bool add(std::unique_ptr<Transfer>& t) {
        t->lastActivity = SteadyClock::now();
        t->deadline = t->lastActivity + t->deadlineInterval;
        if (!multi_ || curl_multi_add_handle(multi_.get(), t->easy.get()) != CURLM_OK) {
            return false;
        }
        CURL* easy = t->easy.get();
        active_.emplace(easy, std::move(t));
        return true;
    }

    // Ends the transfer with this id, if it is still driven here.
    std::optional<Finished> cancel(std::uint64_t id) {
        auto it = std::find_if(active_.begin(), active_.end(),
                               [id](const auto& entry) { return entry.second->id == id; });
        if (it == active_.end()) {
            return std::nullopt;
        }
        return take(it, Outcome::failure(makeError(Error::Code::Cancelled, "")));
    }

    // Lets curl move every transfer on, and collects the ones that ended: finished by curl,
    // silent for longer than their timeout, or past their deadline (a body trickled a byte at
    // a time is never silent for long).
    void perform(std::vector<Finished>& done) {
        int running = 0;
        curl_multi_perform(multi_.get(), &running);
        int queued = 0;
        while (CURLMsg* msg = curl_multi_info_read(multi_.get(), &queued)) {
            if (msg->msg != CURLMSG_DONE) {
                continue;
            }
            auto it = active_.find(msg->easy_handle);
            if (it == active_.end()) {
                continue;
            }
            CURLcode result = msg->data.result;
            Outcome outcome = it->second->finish(result);
            done.push_back(take(it, std::move(outcome)));
        }
        auto now = SteadyClock::now();
        for (auto it = active_.begin(); it != active_.end();) {
            auto next = std::next(it);
            const Transfer& t = *it->second;
            if (now >= t.deadline) {
                done.push_back(take(it, Outcome::failure(limitError(
                                            Error::Code::TimedOut,
                                            "request deadline of " +
                                                secondsText(t.deadlineInterval) + " s passed"))));
            } else if (now - t.lastActivity >= t.timeout) {
                done.push_back(take(
                    it, Outcome::failure(limitError(Error::Code::TimedOut,
                                                    "idle for " + secondsText(t.timeout) + " s"))));
            }
            it = next;
        }
    }

    // Waits for activity on the transfers, for a wakeup(), for curl's next deadline or for the
    // first transfer's timeout, at most a second.
    void poll() {
        long curlWait = -1;
        curl_multi_timeout(multi_.get(), &curlWait);
        long wait = curlWait < 0 ? 1000 : std::min(curlWait, 1000L);
        auto now = SteadyClock::now();
        for (const auto& [easy, t] : active_) {
            auto until = std::min(t->lastActivity + t->timeout, t->deadline);
            auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now);
            wait = std::min<long>(wait, std::max<long>(0, left.count()));
        }
        curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(wait), nullptr);
    }

    // Makes a poll() in progress on another thread return. Thread-safe.
    void wakeup() { curl_multi_wakeup(multi_.get()); }

    bool idle() const { return active_.empty(); }

  private:
    using ActiveMap = std::unordered_map<CURL*, std::unique_ptr<Transfer>>;

    Finished take(ActiveMap::iterator it, Outcome outcome) {
        auto t = std::move(it->second);
        active_.erase(it);
        curl_multi_remove_handle(multi_.get(), t->easy.get());
        return Finished{std::move(t), std::move(outcome)};
    }

    MultiHandle multi_;
    ActiveMap active_;
};

// Where spare curl handles wait for the next transfer. Thread-safe.
class HandlePool {
  public:
    EasyHandle take() {
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

  private:
    std::mutex mutex_;
    std::vector<EasyHandle> spare_;  // guarded by mutex_
};

// Set on the network thread only.
thread_local bool tOnNetworkThread = false;

class NetworkThread {
  public:
    static NetworkThread& instance() {
        // Never destroyed: transfers may still be in flight while the process exits.
        static NetworkThread* const network = new NetworkThread();
        return *network;
    }

    // Starts a transfer. While nothing is in flight the network thread sleeps apart from the
    // multi handle, and the submitting thread starts the transfer itself: the request goes
    // out at once, and the network thread wakes while the server works on the answer instead
    // of before the request can leave.
    void submit(std::unique_ptr<Transfer> transfer) {
        if (tOnNetworkThread) {
            // From a completion this thread runs (a route's second request): the loop takes
            // it up as soon as the completion returns, with no wake-up and no poll between.
            std::lock_guard lock(mutex_);
            incoming_.push_back(std::move(transfer));
            return;
        }
        {
            std::lock_guard lock(mutex_);
            if (!parked_ || driving_) {
                incoming_.push_back(std::move(transfer));
                transfer.reset();
            } else {
                driving_ = true;
            }
        }
        if (!transfer) {
            multi_.wakeup();
            return;
        }
        std::vector<Multi::Finished> done;
        if (multi_.add(transfer)) {
            multi_.perform(done);
        } else {
            done.push_back(
                {std::move(transfer),
                 Outcome::failure(makeError(Error::Code::Unknown, "cannot start the transfer"))});
        }
        {
            std::lock_guard lock(mutex_);
            // Whatever ended already is delivered by the network thread, never here.
            for (auto& f : done) {
                handedOver_.push_back(std::move(f));
            }
            driving_ = false;
            parked_ = false;
        }
        unpark_.notify_one();
    }

    void cancel(std::uint64_t id) {
        {
            std::lock_guard lock(mutex_);
            cancelled_.push_back(id);
        }
        multi_.wakeup();
    }

    HandlePool& handles() { return handles_; }

  private:
    NetworkThread() {
        ensureCurl();
        thread_ = std::thread([this] { loop(); });
        thread_.detach();
    }

    void loop() {
        pthread_setname_np(pthread_self(), "net.session");
        tOnNetworkThread = true;
        std::vector<Multi::Finished> done;
        for (;;) {
            takeSubmissions(done);
            multi_.perform(done);
            deliver(done);
            if (hasSubmissions()) {
                continue;
            }
            if (!parkWhileIdle()) {
                multi_.poll();
            }
        }
    }

    // With nothing in flight, sleeps without the multi handle until a submitter has started a
    // transfer on it (or queued one). Returns false, at once, when there is work.
    bool parkWhileIdle() {
        std::unique_lock lock(mutex_);
        if (!multi_.idle() || !incoming_.empty() || !cancelled_.empty() || !handedOver_.empty()) {
            return false;
        }
        parked_ = true;
        unpark_.wait(lock, [&] { return !parked_; });
        return true;
    }

    void takeSubmissions(std::vector<Multi::Finished>& done) {
        std::vector<std::unique_ptr<Transfer>> incoming;
        std::vector<std::uint64_t> cancelled;
        {
            std::lock_guard lock(mutex_);
            incoming.swap(incoming_);
            cancelled.swap(cancelled_);
            for (auto& f : handedOver_) {
                done.push_back(std::move(f));
            }
            handedOver_.clear();
        }
        for (auto& t : incoming) {
            if (!multi_.add(t)) {
                done.push_back(
                    {std::move(t), Outcome::failure(makeError(Error::Code::Unknown,
                                                              "cannot start the transfer"))});
            }
        }
        for (auto id : cancelled) {
            if (auto finished = multi_.cancel(id)) {
                done.push_back(std::move(*finished));
            }
        }
    }

    bool hasSubmissions() {
        std::lock_guard lock(mutex_);
        return !incoming_.empty() || !cancelled_.empty();
    }

    // Hands every ended transfer's outcome to its session's queue. While nothing else is in
    // flight, this thread runs the completion itself when the queue is idle: nothing waits for
    // the network meanwhile, and the queue's thread need not be woken. A completion that
    // starts a transfer and blocks waiting for it would wait for ever either way, as it would
    // on the queue's own thread.
    void deliver(std::vector<Multi::Finished>& done) {
        for (auto& f : done) {
            handles_.recycle(*f.transfer);
            auto session = std::move(f.transfer->session);
            auto task =
                deliveryOf(session, std::move(f.transfer->completion), std::move(f.outcome));
            f.transfer.reset();
            bool quiet = multi_.idle() && !hasSubmissions();
            if (quiet && dispatch::SerialQueueAccess::runIfIdle(session->queue, task)) {
                continue;
            }
            session->queue.async(std::move(task));
        }
        done.clear();
    }

    // Used by the network thread, or by one submitter while the thread is parked.
    Multi multi_;
    HandlePool handles_;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable unpark_;
    std::vector<std::unique_ptr<Transfer>> incoming_;  // guarded by mutex_
    std::vector<std::uint64_t> cancelled_;             // guarded by mutex_
    std::vector<Multi::Finished> handedOver_;          // ended under a submitter; guarded
    bool parked_ = false;   // the network thread sleeps apart from the multi; guarded
    bool driving_ = false;  // a submitter uses the multi; guarded
};

// Drives blocking fetches on the calling thread: a multi handle and a curl handle per thread,
// kept for the thread's next fetch (and its connections with them).
class ThreadDriver {
  public:
    static ThreadDriver& current() {
        thread_local ThreadDriver driver;
        return driver;
    }

    EasyHandle takeHandle() {
        if (spare_) {
            return std::move(spare_);
        }
        return EasyHandle(curl_easy_init());
    }

    Outcome run(std::unique_ptr<Transfer> t) {
        if (!multi_.add(t)) {
            curl_easy_reset(t->easy.get());
            spare_ = std::move(t->easy);
            return Outcome::failure(makeError(Error::Code::Unknown, "cannot start the transfer"));
        }
        std::vector<Multi::Finished> done;
        for (;;) {
            multi_.perform(done);
            if (!done.empty()) {
                break;
            }
            multi_.poll();
        }
        Multi::Finished& f = done.front();
        if (f.transfer->easy) {
            curl_easy_reset(f.transfer->easy.get());
            spare_ = std::move(f.transfer->easy);
        }
        return std::move(f.outcome);
    }

  private:
    ThreadDriver() { ensureCurl(); }

    Multi multi_;
    EasyHandle spare_;
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
    if (t.revalidating) {
        const auto& stored = t.revalidating->response->headers;
        for (const auto& [asked, validator] : {std::pair{"If-None-Match", "etag"},
                                               std::pair{"If-Modified-Since", "last-modified"}}) {
            auto it = stored.find(validator);
            if (it == stored.end() || request.valueForHeader(asked)) {
                continue;
            }
            std::string line = std::string(asked) + ": " + it->second;
            curl_slist* grown = curl_slist_append(list, line.c_str());
            if (!grown) {
                curl_slist_free_all(list);
                return false;
            }
            list = grown;
        }
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

// What a request comes to before any transfer: an answer from the cache, an error, or a
// transfer ready to start (its curl handle still to be given).
struct Prepared {
    std::shared_ptr<const CacheEntry> cached;
    std::optional<Error> error;
    std::unique_ptr<Transfer> transfer;
};

Prepared prepare(const URLSessionConfiguration& config, const URLRequest& request) {
    CachePolicy policy = config.requestCachePolicy.value_or(request.cachePolicy());
    std::shared_ptr<const CacheEntry> stale;
    if (auto cached = URLCacheAccess::lookup(URLCache::shared(), request.url())) {
        if (policy == CachePolicy::ReturnCacheDataElseLoad) {
            return Prepared{std::move(cached), std::nullopt, nullptr};
        }
        // The protocol's policy: a fresh answer as it is; a stale one with validators is
        // asked about, and a "304 Not Modified" answers with it.
        Reuse reuse = URLCacheAccess::reuse(*cached, std::chrono::system_clock::now());
        if (reuse.fresh) {
            return Prepared{std::move(cached), std::nullopt, nullptr};
        }
        if (!reuse.etag.empty() || !reuse.lastModified.empty()) {
            stale = std::move(cached);
        }
    }
    // The transport would guess a scheme for a relative URL; the platform refuses it.
    if (request.url().scheme().empty() || request.url().host().empty()) {
        return Prepared{nullptr, makeError(Error::Code::BadURL, "no scheme or host"), nullptr};
    }
    auto t = std::make_unique<Transfer>(request.url());
    auto timeout = std::min(request.timeoutInterval(), config.timeoutIntervalForRequest);
    if (!(timeout.count() > 0)) {
        timeout = config.timeoutIntervalForRequest.count() > 0 ? config.timeoutIntervalForRequest
                                                               : std::chrono::duration<double>(60);
    }
    // Beyond a year the clock arithmetic could overflow; no transfer needs that long.
    constexpr std::chrono::duration<double> kLongest(365.0 * 24 * 3600);
    timeout = std::min(timeout, kLongest);
    t->timeout = std::chrono::duration_cast<SteadyClock::duration>(timeout);
    auto deadline = std::min(request.deadlineInterval(), config.timeoutIntervalForResource);
    if (!(deadline.count() > 0)) {
        deadline = std::chrono::duration<double>(300);
    }
    deadline = std::min(deadline, kLongest);
    t->deadlineInterval = std::chrono::duration_cast<SteadyClock::duration>(deadline);
    t->maxBody = request.maximumBodySize();
    t->storable = request.allowsStoringResponse();
    t->revalidating = std::move(stale);
    return Prepared{nullptr, std::nullopt, std::move(t)};
}

Error cannotPrepare() {
    return makeError(Error::Code::Unknown, "cannot prepare the transfer");
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
    std::uint64_t id = nextTaskId++;
    Prepared prepared = prepare(impl_->core->configuration, request);
    if (prepared.cached) {
        deliverCached(impl_->core, std::move(completion), std::move(prepared.cached));
        return std::make_shared<Task>(id, false);
    }
    if (prepared.error) {
        deliver(impl_->core, std::move(completion), Outcome::failure(std::move(*prepared.error)));
        return std::make_shared<Task>(id, false);
    }
    auto& network = NetworkThread::instance();
    auto t = std::move(prepared.transfer);
    t->id = id;
    t->easy = network.handles().take();
    if (!t->easy || !configure(*t, request)) {
        deliver(impl_->core, std::move(completion), Outcome::failure(cannotPrepare()));
        return std::make_shared<Task>(id, false);
    }
    t->session = impl_->core;
    t->completion = std::move(completion);
    network.submit(std::move(t));
    return std::make_shared<Task>(id, true);
}

TransferResult URLSession::sendSynchronousRequest(const URLRequest& request) {
    Prepared prepared = prepare(impl_->core->configuration, request);
    if (prepared.cached) {
        return TransferResult{prepared.cached->data, prepared.cached->response, std::nullopt};
    }
    if (prepared.error) {
        return TransferResult{std::nullopt, std::nullopt, std::move(prepared.error)};
    }
    auto& driver = ThreadDriver::current();
    auto t = std::move(prepared.transfer);
    t->id = nextTaskId++;
    t->easy = driver.takeHandle();
    if (!t->easy || !configure(*t, request)) {
        return TransferResult{std::nullopt, std::nullopt, cannotPrepare()};
    }
    Outcome outcome = driver.run(std::move(t));
    if (outcome.revalidating && outcome.response) {
        auto entry = URLCacheAccess::revalidated(URLCache::shared(), *outcome.revalidating,
                                                 *outcome.response);
        return TransferResult{entry->data, entry->response, std::nullopt};
    }
    if (outcome.store && outcome.response && outcome.data) {
        auto entry = URLCacheAccess::store(URLCache::shared(), std::move(*outcome.response),
                                           std::move(*outcome.data));
        return TransferResult{entry->data, entry->response, std::nullopt};
    }
    return TransferResult{std::move(outcome.data), std::move(outcome.response),
                          std::move(outcome.error)};
}

}  // namespace sorvan::net
