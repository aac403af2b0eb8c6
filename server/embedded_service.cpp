#include "sorvan/server/embedded_service.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <unordered_map>

#include "http_message.hpp"

namespace sorvan::server {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWorkers = 8;
// A client that opened a request but stalls mid-head gets this long before we give up.
constexpr int kReadTimeoutSeconds = 10;
// Idle keep-alive connections are closed after this long; clients reconnect transparently.
constexpr auto kIdleTimeout = std::chrono::seconds(60);

// Bytes that decode neither as JSON nor as PNG (nor as UTF-8 text).
const std::string kMalformedBody = std::string("\xff\xfe<malformed>{\"data\": [1, 2,", 29);

// Event tags of the two descriptors that are not connections; connections count up from
// kFirstConnectionId and their ids are never reused, so a stale event cannot name another one.
constexpr std::uint64_t kListenId = 1;
constexpr std::uint64_t kWakeId = 2;
constexpr std::uint64_t kFirstConnectionId = 3;

struct Connection {
    int fd = -1;
    std::uint64_t id = 0;
    std::string buffer;  // bytes read but not yet consumed (pipelined requests)
    Clock::time_point idleSince = Clock::now();
};

// Sends the parts in order as one stream, without joining them first.
bool sendAll(int fd, std::string_view first, std::string_view second = {}) {
    iovec parts[2] = {{const_cast<char*>(first.data()), first.size()},
                      {const_cast<char*>(second.data()), second.size()}};
    iovec* next = parts;
    std::size_t count = 2;
    for (;;) {
        while (count > 0 && next->iov_len == 0) {
            ++next;
            --count;
        }
        if (count == 0) {
            return true;
        }
        msghdr message{};
        message.msg_iov = next;
        message.msg_iovlen = count;
        ssize_t n = ::sendmsg(fd, &message, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        for (auto left = static_cast<std::size_t>(n); left > 0;) {
            std::size_t taken = std::min(left, next->iov_len);
            next->iov_base = static_cast<char*>(next->iov_base) + taken;
            next->iov_len -= taken;
            left -= taken;
            if (next->iov_len == 0) {
                ++next;
                --count;
            }
        }
    }
}

bool startsWith(const std::string& path, const std::string& prefix) {
    return path.compare(0, prefix.size(), prefix) == 0;
}

// The value of the longest key of `map` that prefixes path, or end().
template <typename Map>
typename Map::iterator longestPrefix(Map& map, const std::string& path) {
    auto best = map.end();
    for (auto it = map.begin(); it != map.end(); ++it) {
        if (startsWith(path, it->first) &&
            (best == map.end() || it->first.size() > best->first.size())) {
            best = it;
        }
    }
    return best;
}

}  // namespace

struct EmbeddedService::Impl {
    int listenFd = -1;
    int wakeFd = -1;
    int epollFd = -1;
    int port = 0;

    // Routes, faults and the record of requests.
    mutable std::mutex stateMutex;
    std::map<std::string, Handler> routes;
    std::map<std::string, Fault> faults;
    std::vector<Request> recorded;
    std::function<void(const Request&, int)> accessLog;

    // Every worker waits on one epoll set: the kernel hands a readable connection straight to
    // one of them, and each connection is armed for one event at a time, so no two workers
    // ever read the same connection.
    std::mutex connMutex;
    std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> idle;  // armed, waiting
    std::set<int> liveFds;                                                // every open one
    std::uint64_t nextId = kFirstConnectionId;
    // When idle connections were last looked at (steady-clock ticks); one worker at a time
    // looks, at most once a second.
    std::atomic<Clock::rep> lastSweep{Clock::now().time_since_epoch().count()};
    std::atomic<std::size_t> accepted{0};
    std::atomic<bool> stampTiles{false};

    std::atomic<bool> stopping{false};
    std::mutex stopMutex;
    std::condition_variable stopCv;  // wakes wait() and interrupts injected delays
    bool stopped = false;

    std::vector<std::thread> workers;

    void listenOn(int requestedPort);
    void workerLoop();
    void acceptAll();
    void sweepIdle();
    void arm(std::unique_ptr<Connection> conn, int op);
    std::unique_ptr<Connection> claim(std::uint64_t id);
    void serve(std::unique_ptr<Connection> conn);
    void close(std::unique_ptr<Connection> conn);
    void lingeringClose(std::unique_ptr<Connection> conn);
    void wakeWorkers();
    void stop();

    // One request: record it, apply a fault, route it, answer. Returns false when the
    // connection must be closed afterwards.
    bool answer(Connection& conn, const http::ParsedRequest& parsed);
    std::optional<Fault> takeFault(const std::string& path);
    Response route(const Request& request);
    bool sleepInterruptibly(double seconds);
};

void EmbeddedService::Impl::listenOn(int requestedPort) {
    listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listenFd < 0) {
        throw std::runtime_error(std::string("cannot create a socket: ") + std::strerror(errno));
    }
    int one = 1;
    ::setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(requestedPort));
    if (::bind(listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listenFd, 128) != 0) {
        int err = errno;
        ::close(listenFd);
        listenFd = -1;
        throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(requestedPort) +
                                 ": " + std::strerror(err));
    }
    socklen_t len = sizeof addr;
    ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&addr), &len);
    port = ntohs(addr.sin_port);
    wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    if (wakeFd < 0 || epollFd < 0) {
        int err = errno;
        ::close(listenFd);
        listenFd = -1;
        throw std::runtime_error(std::string("cannot wait for connections: ") + std::strerror(err));
    }
    epoll_event listenEvent{EPOLLIN | EPOLLONESHOT, {.u64 = kListenId}};
    ::epoll_ctl(epollFd, EPOLL_CTL_ADD, listenFd, &listenEvent);
    // Level-triggered and never read: once written, every worker sees it.
    epoll_event wakeEvent{EPOLLIN, {.u64 = kWakeId}};
    ::epoll_ctl(epollFd, EPOLL_CTL_ADD, wakeFd, &wakeEvent);
}

void EmbeddedService::Impl::wakeWorkers() {
    std::uint64_t one = 1;
    [[maybe_unused]] auto n = ::write(wakeFd, &one, sizeof one);
}

void EmbeddedService::Impl::workerLoop() {
    while (!stopping) {
        // One event at a time, so that readable connections spread over the workers.
        epoll_event event{};
        int ready = ::epoll_wait(epollFd, &event, 1, 1000);
        if (stopping) {
            return;
        }
        if (ready < 0 && errno != EINTR) {
            return;
        }
        sweepIdle();
        if (ready <= 0 || event.data.u64 == kWakeId) {
            continue;
        }
        if (event.data.u64 == kListenId) {
            acceptAll();
        } else if (auto conn = claim(event.data.u64)) {
            serve(std::move(conn));
        }
    }
}

// Takes every pending connection, then listens again.
void EmbeddedService::Impl::acceptAll() {
    for (;;) {
        int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            break;  // EAGAIN: nothing more to accept; other errors: try next round
        }
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        timeval tv{kReadTimeoutSeconds, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        ++accepted;
        auto c = std::make_unique<Connection>();
        c->fd = fd;
        {
            std::lock_guard lock(connMutex);
            c->id = nextId++;
            liveFds.insert(fd);
        }
        arm(std::move(c), EPOLL_CTL_ADD);
    }
    epoll_event again{EPOLLIN | EPOLLONESHOT, {.u64 = kListenId}};
    ::epoll_ctl(epollFd, EPOLL_CTL_MOD, listenFd, &again);
}

// Parks a connection until its next request. The event may reach another worker before
// epoll_ctl returns; that worker claims the connection under the same lock, so it finds it
// listed and touches it only once this thread is done with it.
void EmbeddedService::Impl::arm(std::unique_ptr<Connection> conn, int op) {
    int fd = conn->fd;
    std::uint64_t id = conn->id;
    conn->idleSince = Clock::now();
    std::unique_ptr<Connection> failed;
    {
        std::lock_guard lock(connMutex);
        auto [it, added] = idle.emplace(id, std::move(conn));
        epoll_event event{EPOLLIN | EPOLLRDHUP | EPOLLONESHOT, {.u64 = id}};
        if (::epoll_ctl(epollFd, op, fd, &event) != 0) {
            failed = std::move(it->second);
            idle.erase(it);
        }
    }
    close(std::move(failed));
}

// The idle connection an event names, or null when it was closed meanwhile.
std::unique_ptr<Connection> EmbeddedService::Impl::claim(std::uint64_t id) {
    std::lock_guard lock(connMutex);
    auto it = idle.find(id);
    if (it == idle.end()) {
        return nullptr;
    }
    auto conn = std::move(it->second);
    idle.erase(it);
    return conn;
}

// Closes connections idle for too long; clients reconnect transparently.
void EmbeddedService::Impl::sweepIdle() {
    auto now = Clock::now();
    Clock::rep last = lastSweep.load();
    if (now - Clock::time_point(Clock::duration(last)) < std::chrono::seconds(1) ||
        !lastSweep.compare_exchange_strong(last, now.time_since_epoch().count())) {
        return;
    }
    std::vector<std::unique_ptr<Connection>> expired;
    {
        std::lock_guard lock(connMutex);
        for (auto it = idle.begin(); it != idle.end();) {
            if (now - it->second->idleSince > kIdleTimeout) {
                expired.push_back(std::move(it->second));
                it = idle.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& c : expired) {
        close(std::move(c));
    }
}

void EmbeddedService::Impl::close(std::unique_ptr<Connection> conn) {
    if (!conn || conn->fd < 0) {
        return;
    }
    {
        // Removed before closing so that stop() never shuts down a reused descriptor.
        std::lock_guard lock(connMutex);
        liveFds.erase(conn->fd);
    }
    ::close(conn->fd);  // also takes it out of the epoll set
    conn->fd = -1;
}

// Closing a socket with unread bytes resets it, and the reset can overtake the answer we just
// sent. So stop sending, read what the client still sends for a moment, then close.
void EmbeddedService::Impl::lingeringClose(std::unique_ptr<Connection> conn) {
    ::shutdown(conn->fd, SHUT_WR);
    char chunk[16384];
    auto deadline = Clock::now() + std::chrono::seconds(1);
    while (!stopping && Clock::now() < deadline) {
        pollfd p{conn->fd, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) {
            continue;
        }
        if (::recv(conn->fd, chunk, sizeof chunk, 0) <= 0) {
            break;
        }
    }
    close(std::move(conn));
}

void EmbeddedService::Impl::serve(std::unique_ptr<Connection> conn) {
    char chunk[16384];
    for (;;) {
        auto outcome = http::parseRequestHead(conn->buffer);
        if (outcome.kind == http::ParseOutcome::Kind::Invalid) {
            Response r = Response::text(outcome.status, outcome.reason + "\n");
            sendAll(conn->fd, http::responseHead(r, false), r.body);
            lingeringClose(std::move(conn));
            return;
        }
        if (outcome.kind == http::ParseOutcome::Kind::Complete &&
            conn->buffer.size() >= outcome.parsed.headBytes + outcome.parsed.bodyBytes) {
            conn->buffer.erase(0, outcome.parsed.headBytes + outcome.parsed.bodyBytes);
            if (!answer(*conn, outcome.parsed) || stopping) {
                close(std::move(conn));
                return;
            }
            if (!conn->buffer.empty()) {
                continue;  // a pipelined request is already here
            }
            arm(std::move(conn), EPOLL_CTL_MOD);
            return;
        }
        ssize_t n = ::recv(conn->fd, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            close(std::move(conn));  // peer closed, timed out mid-request, or stop()
            return;
        }
        conn->buffer.append(chunk, static_cast<std::size_t>(n));
    }
}

std::optional<Fault> EmbeddedService::Impl::takeFault(const std::string& path) {
    std::lock_guard lock(stateMutex);
    auto it = longestPrefix(faults, path);
    if (it == faults.end()) {
        return std::nullopt;
    }
    Fault fault = it->second;
    if (it->second.count > 0 && --it->second.count == 0) {
        faults.erase(it);
    }
    return fault;
}

Response EmbeddedService::Impl::route(const Request& request) {
    Handler handler;
    {
        std::lock_guard lock(stateMutex);
        auto it = longestPrefix(routes, request.path);
        if (it != routes.end()) {
            handler = it->second;
        }
    }
    if (!handler) {
        return Response::text(404, "no route for " + request.path + "\n");
    }
    try {
        return handler(request);
    } catch (const std::exception& e) {
        return Response::text(500, std::string("handler failed: ") + e.what() + "\n");
    } catch (...) {
        return Response::text(500, "handler failed\n");
    }
}

bool EmbeddedService::Impl::sleepInterruptibly(double seconds) {
    std::unique_lock lock(stopMutex);
    return !stopCv.wait_for(lock, std::chrono::duration<double>(seconds),
                            [&] { return stopping.load(); });
}

bool EmbeddedService::Impl::answer(Connection& conn, const http::ParsedRequest& parsed) {
    const Request& request = parsed.request;
    {
        std::lock_guard lock(stateMutex);
        recorded.push_back(request);
    }
    std::optional<Fault> fault = takeFault(request.path);
    if (fault && fault->delaySeconds > 0 && !sleepInterruptibly(fault->delaySeconds)) {
        return false;
    }
    if (fault && fault->dropConnection) {
        ::shutdown(conn.fd, SHUT_RDWR);
        return false;
    }
    Response response;
    if (fault && fault->status != 0) {
        response = Response::text(fault->status,
                                  "injected status " + std::to_string(fault->status) + "\n");
    } else {
        response = route(request);
    }
    if (fault && fault->malformedBody) {
        response.body = kMalformedBody;
    }
    std::function<void(const Request&, int)> log;
    {
        std::lock_guard lock(stateMutex);
        log = accessLog;
    }
    if (log) {
        log(request, response.status);
    }
    bool keepAlive = parsed.keepAlive && !(fault && fault->truncateBody);
    std::string head = http::responseHead(response, keepAlive);
    if (request.method == "HEAD") {
        return sendAll(conn.fd, head) && keepAlive;
    }
    if (fault && fault->truncateBody) {
        // The head promises the whole body; half of it arrives before the connection closes.
        sendAll(conn.fd, head, std::string_view(response.body).substr(0, response.body.size() / 2));
        ::shutdown(conn.fd, SHUT_RDWR);
        return false;
    }
    return sendAll(conn.fd, head, response.body) && keepAlive;
}

void EmbeddedService::Impl::stop() {
    {
        std::unique_lock lock(stopMutex);
        if (stopping) {
            // Another caller is stopping (or has stopped) the service: wait for it to finish.
            stopCv.wait(lock, [&] { return stopped; });
            return;
        }
        stopping = true;
        stopCv.notify_all();
    }
    wakeWorkers();
    {
        // Workers blocked reading a slow client return at once.
        std::lock_guard lock(connMutex);
        for (int fd : liveFds) {
            ::shutdown(fd, SHUT_RDWR);
        }
    }
    for (auto& w : workers) {
        if (w.joinable()) {
            w.join();
        }
    }
    std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> left;
    {
        std::lock_guard lock(connMutex);
        left.swap(idle);
    }
    for (auto& [id, c] : left) {
        close(std::move(c));
    }
    ::close(listenFd);
    ::close(wakeFd);
    ::close(epollFd);
    std::lock_guard lock(stopMutex);
    stopped = true;
    stopCv.notify_all();
}

// ---------------------------------------------------------------------------------------------

EmbeddedService::EmbeddedService(int port) : impl_(std::make_unique<Impl>()) {
    impl_->listenOn(port);
    installBuiltinRoutes(*this);
    for (int i = 0; i < kWorkers; ++i) {
        impl_->workers.emplace_back([this] { impl_->workerLoop(); });
    }
}

EmbeddedService::~EmbeddedService() {
    impl_->stop();
}

int EmbeddedService::port() const {
    return impl_->port;
}

std::string EmbeddedService::origin() const {
    return "http://127.0.0.1:" + std::to_string(impl_->port);
}

void EmbeddedService::route(const std::string& pathPrefix, Handler handler) {
    std::lock_guard lock(impl_->stateMutex);
    impl_->routes[pathPrefix] = std::move(handler);
}

std::vector<Request> EmbeddedService::requests() const {
    std::lock_guard lock(impl_->stateMutex);
    return impl_->recorded;
}

std::vector<Request> EmbeddedService::requests(const std::string& pathPrefix) const {
    std::lock_guard lock(impl_->stateMutex);
    std::vector<Request> out;
    for (const auto& r : impl_->recorded) {
        if (startsWith(r.path, pathPrefix)) {
            out.push_back(r);
        }
    }
    return out;
}

void EmbeddedService::clearRequests() {
    std::lock_guard lock(impl_->stateMutex);
    impl_->recorded.clear();
}

void EmbeddedService::injectFault(const std::string& pathPrefix, Fault fault) {
    std::lock_guard lock(impl_->stateMutex);
    if (fault.count == 0) {
        impl_->faults.erase(pathPrefix);
    } else {
        impl_->faults[pathPrefix] = fault;
    }
}

void EmbeddedService::clearFaults() {
    std::lock_guard lock(impl_->stateMutex);
    impl_->faults.clear();
}

std::size_t EmbeddedService::acceptedConnections() const {
    return impl_->accepted;
}

void EmbeddedService::setStampTiles(bool stamp) {
    impl_->stampTiles.store(stamp, std::memory_order_relaxed);
}

bool EmbeddedService::stampTiles() const {
    return impl_->stampTiles.load(std::memory_order_relaxed);
}

void EmbeddedService::setAccessLog(std::function<void(const Request&, int status)> log) {
    std::lock_guard lock(impl_->stateMutex);
    impl_->accessLog = std::move(log);
}

void EmbeddedService::wait() {
    std::unique_lock lock(impl_->stopMutex);
    impl_->stopCv.wait(lock, [&] { return impl_->stopped; });
}

void EmbeddedService::stop() {
    impl_->stop();
}

}  // namespace sorvan::server
