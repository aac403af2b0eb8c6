#include "sorvan/server/embedded_service.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>

#include "http_message.hpp"

namespace sorvan::server {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kWorkers = 8;
// Newcomers one worker takes from the listening socket in a turn, so that a burst of them
// does not keep it from the connections it already has.
constexpr int kAcceptsPerTurn = 64;
// How long accepting pauses when the system has no room for a newcomer (no descriptor even
// after giving up an idle connection, no memory): the listening socket stays readable, and
// taking it again at once would spin.
constexpr auto kAcceptBackOff = 100ms;
// After an answer that ends a connection early (a malformed or late request), what the client
// still sends is read and dropped for this long before closing: closing with unread bytes
// resets the connection, and the reset can overtake the answer.
constexpr auto kLingerTime = 1s;
constexpr std::size_t kReadChunk = 16384;
// What one connection may hold of requests not yet answered: a whole head and a read more.
constexpr std::size_t kMaxBuffered = http::kMaxHeadBytes + kReadChunk;
// What one turn reads from a connection that is being closed, so a flood cannot hold a worker.
constexpr std::size_t kDrainPerTurn = 256 * 1024;
constexpr std::size_t kRequestLogBytes = std::size_t{64} << 20;

// Bytes that decode neither as JSON nor as PNG (nor as UTF-8 text).
const std::string kMalformedBody = std::string("\xff\xfe<malformed>{\"data\": [1, 2,", 29);

// Event tags of the descriptors that are not connections; connections count up from
// kFirstConnectionId and their ids are never reused, so a stale event cannot name another one.
constexpr std::uint64_t kListenId = 1;
constexpr std::uint64_t kWakeId = 2;
constexpr std::uint64_t kTickId = 3;
constexpr std::uint64_t kFirstConnectionId = 4;

// The longest wait a delay or a timeout can ask for (about four months), so that any number
// of seconds gives a valid timer and no deadline overflows.
constexpr double kLongestWaitSeconds = 1e7;

Clock::duration toDuration(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::min(seconds, kLongestWaitSeconds)));
}

std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", seconds);
    return text;
}

// One client connection. It belongs to one place at a time: the worker handling it, or the
// parked table while it waits for its socket, its delay or its deadline. Its socket never
// blocks, so no client can hold a worker by being slow.
struct Connection {
    enum class State {
        Reading,    // waiting for (the rest of) a request
        Delayed,    // waiting for its timer, then answering or sending
        Writing,    // waiting for the client to take more of an answer
        Lingering,  // answered and shut for writing; dropping what still arrives
    };
    // What follows once the answer being written has gone out.
    enum class After { KeepAlive, Close, Linger, Reset };

    int fd = -1;
    std::uint64_t id = 0;
    State state = State::Reading;

    std::string in;           // bytes read and not yet consumed (pipelined requests)
    std::size_t scanned = 0;  // bytes of `in` known to hold no end of head
    std::optional<http::ParsedRequest> request;       // head read, body or answer to come
    std::size_t bodyLeft = 0;                         // body bytes of that request still to drop
    std::optional<Fault> fault;                       // the fault that request drew
    std::optional<Clock::time_point> requestStarted;  // first byte of the request under way

    int timerFd = -1;             // while Delayed
    bool answerPrepared = false;  // while Delayed: send the prepared answer, else answer first

    std::string outHead;  // the answer being written
    std::string outBody;
    std::size_t outSent = 0;
    After after = After::KeepAlive;

    Clock::time_point since = Clock::now();  // last progress: accepted, read, written
    Clock::time_point deadline = Clock::time_point::max();

    bool idle() const { return state == State::Reading && in.empty() && !request; }
};

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

std::size_t sizeOf(const Request& r) {
    std::size_t size =
        sizeof r + r.method.size() + r.target.size() + r.path.size() + r.query.size();
    for (const auto& [name, value] : r.headers) {
        size += name.size() + value.size() + 64;
    }
    return size;
}

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

}  // namespace

struct EmbeddedService::Impl {
    explicit Impl(const ServiceOptions& o);
    ~Impl();

    // Constant after construction.
    ServiceOptions options;
    Clock::duration requestTimeout;
    Clock::duration idleTimeout;
    Clock::duration sendTimeout;
    int listenFd = -1;
    int wakeFd = -1;
    int tickFd = -1;
    int epollFd = -1;
    int port = 0;

    // Routes, faults, the request log and the access log.
    mutable std::mutex stateMutex;
    std::map<std::string, Handler> routes;
    std::map<std::string, Fault> faults;
    std::deque<Request> recorded;
    std::size_t recordedBytes = 0;
    std::size_t logCapacity = 0;
    std::function<void(const Request&, int)> accessLog;
    WallClock clock;

    // Every worker waits on one epoll set, and each descriptor is armed for one event at a
    // time, so the kernel hands an event to exactly one worker. The connection it names is
    // claimed from `parked` under connMutex: a stale event (the connection was closed or
    // claimed by the deadline sweep meanwhile) finds nothing there.
    std::mutex connMutex;
    std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> parked;
    std::uint64_t nextId = kFirstConnectionId;

    // Accepting, touched by the worker that accepts and the one that ticks.
    std::mutex acceptMutex;
    int spareFd = -1;  // given up to take one newcomer when descriptors run out, and refuse it
    std::optional<Clock::time_point> acceptPausedUntil;

    std::atomic<std::size_t> open{0};
    std::atomic<std::size_t> accepted{0};
    std::atomic<std::size_t> refused{0};
    std::atomic<std::size_t> reclaimed{0};
    std::atomic<std::size_t> timedOut{0};
    std::atomic<bool> stampTiles{false};

    std::atomic<bool> stopping{false};
    std::mutex stopMutex;
    std::condition_variable stopCv;  // wakes wait() and other callers of stop()
    bool stopped = false;

    std::vector<std::thread> workers;

    void listen();
    void workerLoop();
    void stop();

    // Newcomers.
    void acceptSome();
    void admit(int fd);
    bool makeRoomForDescriptor();
    bool reclaimIdle();
    void refuse(int fd, const std::string& why);
    void pauseAccepting();
    void tick();
    void armListen();

    // One connection, by state. Each takes the connection and either parks it, closes it, or
    // (those returning it) hands it back ready for its next request.
    void handle(std::unique_ptr<Connection> conn);
    void readRequests(std::unique_ptr<Connection> conn);
    void serveRequests(std::unique_ptr<Connection> conn, bool ended = false);
    std::unique_ptr<Connection> startAnswer(std::unique_ptr<Connection> conn);
    std::unique_ptr<Connection> answer(std::unique_ptr<Connection> conn);
    std::unique_ptr<Connection> flush(std::unique_ptr<Connection> conn);
    void delay(std::unique_ptr<Connection> conn, double seconds);
    void endDelay(std::unique_ptr<Connection> conn);
    void refuseRequest(std::unique_ptr<Connection> conn, int status, const std::string& reason,
                       const Request& seen);
    void expire(std::unique_ptr<Connection> conn);
    void linger(std::unique_ptr<Connection> conn);
    void drain(std::unique_ptr<Connection> conn);
    void park(std::unique_ptr<Connection> conn, std::uint32_t events, int op = EPOLL_CTL_MOD);
    std::unique_ptr<Connection> claim(std::uint64_t id);
    void close(std::unique_ptr<Connection> conn);

    void record(const Request& request);
    std::optional<Fault> takeFault(const std::string& path);
    Response route(const Request& request);
    void logAccess(const Request& request, int status);
};

EmbeddedService::Impl::Impl(const ServiceOptions& o)
    : options(o),
      requestTimeout(toDuration(o.requestTimeoutSeconds)),
      idleTimeout(toDuration(o.idleTimeoutSeconds)),
      sendTimeout(toDuration(o.sendTimeoutSeconds)),
      logCapacity(o.requestLog) {
    if (o.maxConnections < 1 || !(o.requestTimeoutSeconds > 0) || !(o.idleTimeoutSeconds > 0) ||
        !(o.sendTimeoutSeconds > 0)) {
        throw std::invalid_argument(
            "the embedded service needs at least one connection and timeouts above zero");
    }
}

EmbeddedService::Impl::~Impl() {
    closeFd(listenFd);
    closeFd(wakeFd);
    closeFd(tickFd);
    closeFd(epollFd);
    closeFd(spareFd);
}

void EmbeddedService::Impl::listen() {
    listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listenFd < 0) {
        throw std::runtime_error(std::string("cannot create a socket: ") + std::strerror(errno));
    }
    int one = 1;
    ::setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(options.port));
    if (::bind(listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listenFd, SOMAXCONN) != 0) {
        int err = errno;
        throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(options.port) +
                                 ": " + std::strerror(err));
    }
    socklen_t len = sizeof addr;
    ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&addr), &len);
    port = ntohs(addr.sin_port);

    wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    tickFd = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    spareFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (wakeFd < 0 || tickFd < 0 || epollFd < 0) {
        throw std::runtime_error(std::string("cannot wait for connections: ") +
                                 std::strerror(errno));
    }
    // Deadlines are looked at a few times per shortest timeout, at most ten times a second.
    auto shortest = std::min({requestTimeout, idleTimeout, sendTimeout,
                              std::chrono::duration_cast<Clock::duration>(kLingerTime)});
    auto period = std::clamp<Clock::duration>(shortest / 4, 5ms, 100ms);
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(period).count();
    timespec every{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    itimerspec tickEvery{every, every};
    ::timerfd_settime(tickFd, 0, &tickEvery, nullptr);

    epoll_event listenEvent{EPOLLIN | EPOLLONESHOT, {.u64 = kListenId}};
    epoll_event tickEvent{EPOLLIN | EPOLLONESHOT, {.u64 = kTickId}};
    // Level-triggered and never read: once written, every worker sees it.
    epoll_event wakeEvent{EPOLLIN, {.u64 = kWakeId}};
    if (::epoll_ctl(epollFd, EPOLL_CTL_ADD, listenFd, &listenEvent) != 0 ||
        ::epoll_ctl(epollFd, EPOLL_CTL_ADD, tickFd, &tickEvent) != 0 ||
        ::epoll_ctl(epollFd, EPOLL_CTL_ADD, wakeFd, &wakeEvent) != 0) {
        throw std::runtime_error(std::string("cannot wait for connections: ") +
                                 std::strerror(errno));
    }
}

void EmbeddedService::Impl::workerLoop() {
    while (!stopping) {
        // One event at a time, so that ready connections spread over the workers.
        epoll_event event{};
        int ready = ::epoll_wait(epollFd, &event, 1, -1);
        if (stopping) {
            return;
        }
        if (ready <= 0) {
            continue;  // interrupted
        }
        switch (event.data.u64) {
            case kWakeId:
                break;
            case kTickId:
                tick();
                break;
            case kListenId:
                acceptSome();
                break;
            default:
                if (auto conn = claim(event.data.u64)) {
                    handle(std::move(conn));
                }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Newcomers

void EmbeddedService::Impl::acceptSome() {
    for (int i = 0; i < kAcceptsPerTurn; ++i) {
        int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            admit(fd);
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            break;
        }
        if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) {
            continue;  // that newcomer is gone; the next may be fine
        }
        if (errno == EMFILE || errno == ENFILE) {
            // Reported before the queue is looked at: make room only for a newcomer that is
            // there, not for the look that finds the queue empty.
            pollfd listening{listenFd, POLLIN, 0};
            if (::poll(&listening, 1, 0) == 0) {
                break;
            }
            if (makeRoomForDescriptor()) {
                continue;
            }
        }
        pauseAccepting();
        return;
    }
    armListen();
}

void EmbeddedService::Impl::armListen() {
    epoll_event again{EPOLLIN | EPOLLONESHOT, {.u64 = kListenId}};
    ::epoll_ctl(epollFd, EPOLL_CTL_MOD, listenFd, &again);
}

void EmbeddedService::Impl::pauseAccepting() {
    std::lock_guard lock(acceptMutex);
    acceptPausedUntil = Clock::now() + kAcceptBackOff;
}

void EmbeddedService::Impl::admit(int fd) {
    if (open.load() >= options.maxConnections && !reclaimIdle()) {
        refuse(fd, "too many connections: at most " + std::to_string(options.maxConnections) +
                       " at once\n");
        return;
    }
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ++open;
    ++accepted;
    auto conn = std::make_unique<Connection>();
    conn->fd = fd;
    conn->deadline = conn->since + idleTimeout;
    {
        std::lock_guard lock(connMutex);
        conn->id = nextId++;
    }
    park(std::move(conn), EPOLLIN, EPOLL_CTL_ADD);
}

// Out of descriptors: give up the connection idle the longest, or failing that take the
// newcomer with the spare descriptor just to tell it why it is refused. False when neither
// was possible.
bool EmbeddedService::Impl::makeRoomForDescriptor() {
    if (reclaimIdle()) {
        return true;
    }
    std::lock_guard lock(acceptMutex);
    if (spareFd < 0) {
        return false;
    }
    closeFd(spareFd);
    int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) {
        refuse(fd, "too many connections: no file descriptor left\n");
    }
    spareFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    return fd >= 0;
}

// Closes the connection that has waited longest between requests, unless a request is
// arriving on it already. False when every connection is busy.
bool EmbeddedService::Impl::reclaimIdle() {
    std::unique_ptr<Connection> victim;
    {
        std::lock_guard lock(connMutex);
        std::vector<std::pair<Clock::time_point, std::uint64_t>> candidates;
        for (const auto& [id, conn] : parked) {
            if (conn->idle()) {
                candidates.emplace_back(conn->since, id);
            }
        }
        std::sort(candidates.begin(), candidates.end());
        for (const auto& candidate : candidates) {
            auto it = parked.find(candidate.second);
            char byte = 0;
            if (::recv(it->second->fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0) {
                continue;
            }
            victim = std::move(it->second);
            parked.erase(it);
            break;
        }
    }
    if (!victim) {
        return false;
    }
    ++reclaimed;
    close(std::move(victim));
    return true;
}

void EmbeddedService::Impl::refuse(int fd, const std::string& why) {
    ++refused;
    // What already arrived is read first, so that closing does not reset the connection under
    // the answer; it also names the request in the access log.
    std::string arrived;
    char chunk[4096];
    for (ssize_t n;
         arrived.size() < 4 * sizeof chunk && (n = ::recv(fd, chunk, sizeof chunk, 0)) > 0;) {
        arrived.append(chunk, static_cast<std::size_t>(n));
    }
    Response r = Response::text(503, why);
    r.headers.emplace_back("Retry-After", "1");
    logAccess(http::requestLineOf(arrived), r.status);
    std::string answer = http::responseHead(r, false) + r.body;
    [[maybe_unused]] auto sent = ::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    ::close(fd);
}

// Deadlines, the accept back-off and the spare descriptor, a few times a second.
void EmbeddedService::Impl::tick() {
    std::uint64_t expirations = 0;
    [[maybe_unused]] auto n = ::read(tickFd, &expirations, sizeof expirations);
    auto now = Clock::now();
    std::vector<std::unique_ptr<Connection>> expired;
    {
        std::lock_guard lock(connMutex);
        for (auto it = parked.begin(); it != parked.end();) {
            if (it->second->state != Connection::State::Delayed && it->second->deadline <= now) {
                expired.push_back(std::move(it->second));
                it = parked.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& conn : expired) {
        expire(std::move(conn));
    }
    bool resume = false;
    {
        std::lock_guard lock(acceptMutex);
        if (spareFd < 0) {
            spareFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        }
        if (acceptPausedUntil && *acceptPausedUntil <= now) {
            acceptPausedUntil.reset();
            resume = true;
        }
    }
    if (resume) {
        armListen();
    }
    epoll_event again{EPOLLIN | EPOLLONESHOT, {.u64 = kTickId}};
    ::epoll_ctl(epollFd, EPOLL_CTL_MOD, tickFd, &again);
}

// ---------------------------------------------------------------------------------------------
// Connections

void EmbeddedService::Impl::handle(std::unique_ptr<Connection> conn) {
    switch (conn->state) {
        case Connection::State::Reading:
            readRequests(std::move(conn));
            return;
        case Connection::State::Delayed:
            endDelay(std::move(conn));
            return;
        case Connection::State::Writing:
            if ((conn = flush(std::move(conn)))) {
                serveRequests(std::move(conn));
            }
            return;
        case Connection::State::Lingering:
            drain(std::move(conn));
            return;
    }
}

void EmbeddedService::Impl::readRequests(std::unique_ptr<Connection> conn) {
    char chunk[kReadChunk];
    bool ended = false;
    while (conn->in.size() < kMaxBuffered) {
        ssize_t n = ::recv(conn->fd, chunk, sizeof chunk, 0);
        if (n > 0) {
            if (!conn->requestStarted) {
                conn->requestStarted = Clock::now();
            }
            conn->in.append(chunk, static_cast<std::size_t>(n));
            continue;
        }
        if (n == 0) {
            ended = true;
            break;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            break;
        }
        close(std::move(conn));  // reset by the client
        return;
    }
    serveRequests(std::move(conn), ended);
}

// Answers every request that has arrived whole, in order, then waits for more.
void EmbeddedService::Impl::serveRequests(std::unique_ptr<Connection> conn, bool ended) {
    while (conn && !stopping) {
        if (conn->request) {
            std::size_t take = std::min(conn->bodyLeft, conn->in.size());
            conn->in.erase(0, take);
            conn->bodyLeft -= take;
            if (conn->bodyLeft > 0) {
                break;
            }
            conn = startAnswer(std::move(conn));
            continue;
        }
        if (conn->in.empty()) {
            break;
        }
        if (http::findHeadEnd(conn->in, conn->scanned) == std::string::npos &&
            conn->in.size() <= http::kMaxHeadBytes) {
            conn->scanned = conn->in.size();
            break;
        }
        auto outcome = http::parseRequestHead(conn->in);
        if (outcome.kind != http::ParseOutcome::Kind::Complete) {
            Request seen = outcome.parsed.request;
            if (seen.method.empty()) {
                seen = http::requestLineOf(conn->in);
            }
            refuseRequest(std::move(conn), outcome.status, outcome.reason, seen);
            return;
        }
        conn->in.erase(0, outcome.parsed.headBytes);
        conn->scanned = 0;
        conn->bodyLeft = outcome.parsed.bodyBytes;
        conn->request = std::move(outcome.parsed);
    }
    if (!conn) {
        return;
    }
    if (stopping || ended) {
        close(std::move(conn));
        return;
    }
    auto now = Clock::now();
    if (conn->idle()) {
        conn->requestStarted.reset();
        conn->deadline = conn->since + idleTimeout;
    } else {
        if (!conn->requestStarted) {
            conn->requestStarted = now;
        }
        conn->deadline = *conn->requestStarted + requestTimeout;
    }
    park(std::move(conn), EPOLLIN);
}

std::unique_ptr<Connection> EmbeddedService::Impl::startAnswer(std::unique_ptr<Connection> conn) {
    const Request& request = conn->request->request;
    record(request);
    conn->fault = takeFault(request.path);
    if (conn->fault && conn->fault->delaySeconds > 0) {
        double seconds = conn->fault->delaySeconds;
        conn->answerPrepared = false;
        delay(std::move(conn), seconds);
        return nullptr;
    }
    return answer(std::move(conn));
}

// Routes the request (or applies its fault) and starts sending the answer.
std::unique_ptr<Connection> EmbeddedService::Impl::answer(std::unique_ptr<Connection> conn) {
    http::ParsedRequest parsed = std::move(*conn->request);
    conn->request.reset();
    std::optional<Fault> fault = std::exchange(conn->fault, std::nullopt);
    // Whatever is left in the buffer is the next request, already under way.
    conn->requestStarted = conn->in.empty() ? std::nullopt : std::optional(Clock::now());
    const Request& request = parsed.request;
    if (fault && fault->dropConnection) {
        ::shutdown(conn->fd, SHUT_RDWR);
        close(std::move(conn));
        return nullptr;
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
    logAccess(request, response.status);
    bool truncate = fault && fault->truncateBody;
    bool keepAlive = parsed.keepAlive && !truncate;
    conn->outHead = http::responseHead(response, keepAlive);
    conn->outBody = request.method == "HEAD" ? std::string() : std::move(response.body);
    if (truncate) {
        // The head promises the whole body; half of it goes out before the connection ends.
        conn->outBody.resize(conn->outBody.size() / 2);
    }
    conn->outSent = 0;
    conn->after = truncate    ? Connection::After::Reset
                  : keepAlive ? Connection::After::KeepAlive
                              : Connection::After::Close;
    if (response.delaySeconds > 0) {
        conn->answerPrepared = true;
        delay(std::move(conn), response.delaySeconds);
        return nullptr;
    }
    return flush(std::move(conn));
}

// Sends what is left of the answer without waiting. Returns the connection when all of it has
// gone out and the connection goes on; otherwise parks it until the client takes more, or
// ends it, and returns null.
std::unique_ptr<Connection> EmbeddedService::Impl::flush(std::unique_ptr<Connection> conn) {
    for (;;) {
        std::size_t headLeft = conn->outHead.size() - std::min(conn->outSent, conn->outHead.size());
        std::size_t bodyDone = conn->outSent - (conn->outHead.size() - headLeft);
        iovec parts[2] = {{conn->outHead.data() + (conn->outHead.size() - headLeft), headLeft},
                          {conn->outBody.data() + bodyDone, conn->outBody.size() - bodyDone}};
        if (parts[0].iov_len + parts[1].iov_len == 0) {
            break;
        }
        msghdr message{};
        message.msg_iov = parts[0].iov_len > 0 ? parts : parts + 1;
        message.msg_iovlen = parts[0].iov_len > 0 ? 2 : 1;
        ssize_t n = ::sendmsg(conn->fd, &message, MSG_NOSIGNAL);
        if (n > 0) {
            conn->outSent += static_cast<std::size_t>(n);
            conn->since = Clock::now();
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            conn->state = Connection::State::Writing;
            conn->deadline = conn->since + sendTimeout;
            park(std::move(conn), EPOLLOUT);
            return nullptr;
        }
        close(std::move(conn));  // the client went away
        return nullptr;
    }
    std::string().swap(conn->outHead);
    std::string().swap(conn->outBody);
    conn->outSent = 0;
    conn->state = Connection::State::Reading;
    conn->since = Clock::now();
    switch (conn->after) {
        case Connection::After::KeepAlive:
            return conn;
        case Connection::After::Close:
            close(std::move(conn));
            return nullptr;
        case Connection::After::Reset:
            ::shutdown(conn->fd, SHUT_RDWR);
            close(std::move(conn));
            return nullptr;
        case Connection::After::Linger:
            linger(std::move(conn));
            return nullptr;
    }
    return nullptr;
}

// Parks the connection on a timer of its own, so the wait holds no worker and stop() ends it
// by closing the timer.
void EmbeddedService::Impl::delay(std::unique_ptr<Connection> conn, double seconds) {
    int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (timer < 0) {
        close(std::move(conn));  // no room for a timer: the client sees the connection end
        return;
    }
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(toDuration(seconds)).count();
    ns = std::max<std::int64_t>(ns, 1);  // zero would disarm the timer
    itimerspec when{{0, 0},
                    {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)}};
    ::timerfd_settime(timer, 0, &when, nullptr);
    conn->timerFd = timer;
    conn->state = Connection::State::Delayed;
    conn->deadline = Clock::time_point::max();
    std::uint64_t id = conn->id;
    std::unique_ptr<Connection> failed;
    {
        std::lock_guard lock(connMutex);
        auto [it, added] = parked.emplace(id, std::move(conn));
        epoll_event event{EPOLLIN | EPOLLONESHOT, {.u64 = id}};
        if (::epoll_ctl(epollFd, EPOLL_CTL_ADD, timer, &event) != 0) {
            failed = std::move(it->second);
            parked.erase(it);
        }
    }
    close(std::move(failed));
}

void EmbeddedService::Impl::endDelay(std::unique_ptr<Connection> conn) {
    std::uint64_t expirations = 0;
    if (::read(conn->timerFd, &expirations, sizeof expirations) != sizeof expirations) {
        // Not the timer (it is still armed): back to waiting for it.
        std::lock_guard lock(connMutex);
        std::uint64_t id = conn->id;
        parked.emplace(id, std::move(conn));
        return;
    }
    closeFd(conn->timerFd);
    conn->state = Connection::State::Reading;
    conn = conn->answerPrepared ? flush(std::move(conn)) : answer(std::move(conn));
    if (conn) {
        serveRequests(std::move(conn));
    }
}

// A request that cannot be served (malformed, too large, too late): say why, then close.
void EmbeddedService::Impl::refuseRequest(std::unique_ptr<Connection> conn, int status,
                                          const std::string& reason, const Request& seen) {
    logAccess(seen, status);
    Response r = Response::text(status, reason + "\n");
    conn->in.clear();
    conn->request.reset();
    conn->outHead = http::responseHead(r, false);
    conn->outBody = std::move(r.body);
    conn->outSent = 0;
    conn->after = Connection::After::Linger;
    flush(std::move(conn));
}

// A connection whose deadline passed, taken from the parked table by the tick.
void EmbeddedService::Impl::expire(std::unique_ptr<Connection> conn) {
    switch (conn->state) {
        case Connection::State::Reading:
            if (conn->idle()) {
                close(std::move(conn));  // kept alive long enough; clients reconnect
                return;
            }
            ++timedOut;
            {
                Request seen =
                    conn->request ? conn->request->request : http::requestLineOf(conn->in);
                refuseRequest(std::move(conn), 408,
                              "request not received in full within " +
                                  secondsText(options.requestTimeoutSeconds) + " s",
                              seen);
            }
            return;
        case Connection::State::Writing:
            ++timedOut;  // the client stopped taking its answer
            close(std::move(conn));
            return;
        case Connection::State::Lingering:
        case Connection::State::Delayed:
            close(std::move(conn));
            return;
    }
}

void EmbeddedService::Impl::linger(std::unique_ptr<Connection> conn) {
    ::shutdown(conn->fd, SHUT_WR);
    conn->state = Connection::State::Lingering;
    conn->deadline = Clock::now() + kLingerTime;
    std::string().swap(conn->in);
    park(std::move(conn), EPOLLIN);
}

void EmbeddedService::Impl::drain(std::unique_ptr<Connection> conn) {
    char chunk[kReadChunk];
    for (std::size_t taken = 0; taken < kDrainPerTurn;) {
        ssize_t n = ::recv(conn->fd, chunk, sizeof chunk, 0);
        if (n > 0) {
            taken += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        close(std::move(conn));  // the client is done too
        return;
    }
    park(std::move(conn), EPOLLIN);
}

// Waits for the next event of the connection. The event may reach another worker before
// epoll_ctl returns; that worker claims the connection under the same lock, so it finds it
// listed and touches it only once this thread is done with it.
void EmbeddedService::Impl::park(std::unique_ptr<Connection> conn, std::uint32_t events, int op) {
    int fd = conn->fd;
    std::uint64_t id = conn->id;
    std::unique_ptr<Connection> failed;
    {
        std::lock_guard lock(connMutex);
        auto [it, added] = parked.emplace(id, std::move(conn));
        epoll_event event{events | EPOLLONESHOT, {.u64 = id}};
        if (::epoll_ctl(epollFd, op, fd, &event) != 0) {
            failed = std::move(it->second);
            parked.erase(it);
        }
    }
    close(std::move(failed));
}

std::unique_ptr<Connection> EmbeddedService::Impl::claim(std::uint64_t id) {
    std::lock_guard lock(connMutex);
    auto it = parked.find(id);
    if (it == parked.end()) {
        return nullptr;
    }
    auto conn = std::move(it->second);
    parked.erase(it);
    return conn;
}

void EmbeddedService::Impl::close(std::unique_ptr<Connection> conn) {
    if (!conn) {
        return;
    }
    closeFd(conn->timerFd);
    if (conn->fd >= 0) {
        closeFd(conn->fd);  // also takes it out of the epoll set
        --open;
    }
}

// ---------------------------------------------------------------------------------------------
// Requests

void EmbeddedService::Impl::record(const Request& request) {
    std::lock_guard lock(stateMutex);
    if (logCapacity == 0) {
        return;
    }
    recorded.push_back(request);
    recordedBytes += sizeOf(request);
    while (recorded.size() > logCapacity ||
           (recordedBytes > kRequestLogBytes && recorded.size() > 1)) {
        recordedBytes -= sizeOf(recorded.front());
        recorded.pop_front();
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

void EmbeddedService::Impl::logAccess(const Request& request, int status) {
    std::function<void(const Request&, int)> log;
    {
        std::lock_guard lock(stateMutex);
        log = accessLog;
    }
    if (log) {
        log(request, status);
    }
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
    }
    std::uint64_t one = 1;
    [[maybe_unused]] auto n = ::write(wakeFd, &one, sizeof one);
    // No worker waits on a client, so each is back at the epoll set as soon as the handler it
    // may be running returns.
    for (auto& w : workers) {
        if (w.joinable()) {
            w.join();
        }
    }
    std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> left;
    {
        std::lock_guard lock(connMutex);
        left.swap(parked);
    }
    for (auto& [id, conn] : left) {
        close(std::move(conn));
    }
    closeFd(listenFd);
    closeFd(tickFd);
    closeFd(wakeFd);
    closeFd(epollFd);
    closeFd(spareFd);
    std::lock_guard lock(stopMutex);
    stopped = true;
    stopCv.notify_all();
}

// ---------------------------------------------------------------------------------------------

EmbeddedService::EmbeddedService(int port) : EmbeddedService(ServiceOptions{.port = port}) {}

EmbeddedService::EmbeddedService(const ServiceOptions& options)
    : impl_(std::make_unique<Impl>(options)) {
    impl_->listen();
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

void EmbeddedService::recordRequests(std::size_t capacity) {
    std::lock_guard lock(impl_->stateMutex);
    impl_->logCapacity = capacity;
    while (impl_->recorded.size() > capacity) {
        impl_->recordedBytes -= sizeOf(impl_->recorded.front());
        impl_->recorded.pop_front();
    }
}

std::vector<Request> EmbeddedService::requests() const {
    return requests("");
}

std::vector<Request> EmbeddedService::requests(const std::string& pathPrefix) const {
    std::lock_guard lock(impl_->stateMutex);
    if (impl_->logCapacity == 0) {
        throw std::logic_error(
            "the embedded service keeps no request log: ask for one with "
            "ServiceOptions::requestLog or recordRequests()");
    }
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
    impl_->recordedBytes = 0;
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

ServiceStats EmbeddedService::stats() const {
    std::size_t idle = 0;
    {
        std::lock_guard lock(impl_->connMutex);
        for (const auto& [id, conn] : impl_->parked) {
            idle += conn->idle() ? 1 : 0;
        }
    }
    return ServiceStats{impl_->accepted, impl_->refused, impl_->reclaimed,
                        impl_->timedOut, impl_->open,    idle};
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

void EmbeddedService::setClock(WallClock clock) {
    std::lock_guard lock(impl_->stateMutex);
    impl_->clock = std::move(clock);
}

std::chrono::system_clock::time_point EmbeddedService::now() const {
    WallClock clock;
    {
        std::lock_guard lock(impl_->stateMutex);
        clock = impl_->clock;
    }
    return clock ? clock() : std::chrono::system_clock::now();
}

void EmbeddedService::wait() {
    std::unique_lock lock(impl_->stopMutex);
    impl_->stopCv.wait(lock, [&] { return impl_->stopped; });
}

void EmbeddedService::stop() {
    impl_->stop();
}

}  // namespace sorvan::server
