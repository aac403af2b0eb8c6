// Load test of the embedded service, as developers run it as a stand-in server: a crowd of
// kept-alive connections sends mixed requests (map tiles, template tiles, search, suggest,
// route guide and path, the terms page, a path with no route) while other clients misbehave
// beside them: some trickle a head a byte a second, some stop halfway through a head, some wait
// on an answer delayed for ten minutes. Every request of the crowd must be answered with its
// status and its whole body; the service's memory must not grow from one round to the next.
//
// The service runs in a child process, so that its memory is its own: the resident size and
// its peak are read from /proc after every round. Each round opens the crowd's connections
// afresh and sends every request; the misbehaving clients stay through all the rounds, and
// come back each time the service's request deadline (2 s here) ends them. The first round
// also paints the tiles the service then keeps in its tile cache.
//
//   build-release/bench/load_service                      10,000 requests, 500 connections,
//                                                         8 clients of each bad kind, 5 rounds
//   build-release/bench/load_service --requests 50000 --connections 800 --rounds 3
//   build-release/bench/load_service --request-log 10000     the service keeps a request log
//   scripts/bench load
//
// Prints one line per round (requests per second, latency percentiles, failures, the
// service's memory), then the median and the spread over the rounds. Exits 1 when a request
// failed or the service's memory grew by more than --max-growth-mib from the first round to
// the last.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include "sorvan/server/embedded_service.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Settings {
    int requests = 10000;
    int connections = 500;
    int stalled = 8;  // clients of each bad kind
    int rounds = 5;
    int clientThreads = 2;
    double roundTimeoutSeconds = 120;
    // Shorter than the service's default, so that the slow and the half-sent are answered 408
    // and come back several times while the crowd is served.
    double requestTimeoutSeconds = 2;
    int requestLog = 0;  // requests the service keeps (off, as for `sorvan serve`)
    double maxGrowthMiB = 16;
};

struct Target {
    std::string path;
    int status;
};

// The mix, in the proportions an app's map screen sends: mostly tiles, some services.
std::vector<Target> mix() {
    std::vector<Target> targets;
    for (int i = 0; i < 6; ++i) {
        int x = 12760 + i % 8, y = 7550 + i / 8;
        targets.push_back({"/map/msn-server/img.php?mode=normal&res=16384&imgid=" +
                               std::to_string(static_cast<long long>(y) * 16384 + x) +
                               "&key=load-test-key&HD=1",
                           200});
        targets.push_back(
            {"/tiles/14/" + std::to_string(x) + "/" + std::to_string(y) + ".png", 200});
    }
    targets.push_back(
        {"/mapsearch/json/search?keyword=Siam&lat=13.745600&lon=100.534100&"
         "locale=en&key=load-test-key",
         200});
    targets.push_back({"/mapsearch/json/suggest?keyword=wat&locale=th&key=load-test-key", 200});
    targets.push_back(
        {"/tvroute/json/route/guide?flat=13.746200&flon=100.534700&"
         "tlat=13.690000&tlon=100.750100&mode=t&type=25&locale=en&"
         "key=load-test-key",
         200});
    targets.push_back({"/tvroute/json/route/path?id=1&key=load-test-key", 200});
    targets.push_back({"/terms?locale=en", 200});
    targets.push_back({"/nowhere", 404});
    return targets;
}

int connectTo(int port, bool blocking) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (blocking ? 0 : SOCK_NONBLOCK), 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 &&
        errno != EINPROGRESS) {
        ::close(fd);
        return -1;
    }
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

// ---------------------------------------------------------------------------------------------
// The crowd: kept-alive connections, one request at a time each, driven by epoll.

struct Outcome {
    std::vector<double> latencies;  // milliseconds, one per answered request
    int failures = 0;
    std::string firstFailure;
};

struct Client {
    int fd = -1;
    int left = 0;  // requests still to send after the one under way
    int next = 0;  // index into the mix
    const Target* target = nullptr;
    std::string out;
    std::size_t sent = 0;
    std::string in;
    Clock::time_point started;
};

// How much of `in` the answer at its start takes, 0 while it has not arrived whole; its
// status in `status`. npos when it is no HTTP answer.
std::size_t answerLength(const std::string& in, int& status) {
    auto headEnd = in.find("\r\n\r\n");
    if (headEnd == std::string::npos) {
        return 0;
    }
    if (in.compare(0, 9, "HTTP/1.1 ") != 0 || headEnd < 12) {
        return std::string::npos;
    }
    status = std::atoi(in.c_str() + 9);
    std::size_t length = 0;
    for (std::size_t line = in.find("\r\n") + 2; line < headEnd;) {
        std::size_t end = in.find("\r\n", line);
        constexpr std::string_view kName = "content-length:";
        if (end - line > kName.size() &&
            std::equal(kName.begin(), kName.end(), in.begin() + static_cast<long>(line),
                       [](char a, char b) { return a == std::tolower(b); })) {
            length = std::strtoull(in.c_str() + line + kName.size(), nullptr, 10);
        }
        line = end + 2;
    }
    std::size_t total = headEnd + 4 + length;
    return in.size() >= total ? total : 0;
}

class Crowd {
  public:
    Crowd(int port, int connections, int requests, int shard, const std::vector<Target>& targets)
        : targets_(targets), epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
        clients_.resize(static_cast<std::size_t>(connections));
        for (int i = 0; i < connections; ++i) {
            auto& c = clients_[static_cast<std::size_t>(i)];
            c.fd = connectTo(port, false);
            c.left = requests / connections + (i < requests % connections ? 1 : 0);
            c.next = (i * 7 + shard * 3) % static_cast<int>(targets_.size());
            if (c.fd < 0) {
                fail(c, "cannot connect");
                continue;
            }
            epoll_event event{EPOLLIN | EPOLLOUT, {.u32 = static_cast<std::uint32_t>(i)}};
            ::epoll_ctl(epoll_, EPOLL_CTL_ADD, c.fd, &event);
        }
    }
    ~Crowd() {
        for (auto& c : clients_) {
            if (c.fd >= 0) {
                ::close(c.fd);
            }
        }
        ::close(epoll_);
    }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    // Every connection sends its first request at once, then the next as each answer arrives.
    Outcome run(Clock::time_point deadline) {
        for (std::size_t i = 0; i < clients_.size(); ++i) {
            if (clients_[i].fd >= 0) {
                startNext(clients_[i]);
            }
        }
        std::vector<epoll_event> events(256);
        while (active() > 0) {
            auto wait =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (wait.count() <= 0) {
                break;
            }
            int n = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()),
                                 static_cast<int>(std::min<long long>(wait.count(), 1000)));
            for (int e = 0; e < n; ++e) {
                auto& c = clients_[events[static_cast<std::size_t>(e)].data.u32];
                if (c.fd < 0) {
                    continue;
                }
                if (events[static_cast<std::size_t>(e)].events & EPOLLOUT) {
                    flush(c);
                }
                if (c.fd >= 0 && (events[static_cast<std::size_t>(e)].events &
                                  (EPOLLIN | EPOLLHUP | EPOLLERR))) {
                    receive(c);
                }
            }
        }
        for (auto& c : clients_) {
            if (c.fd >= 0 && c.target) {
                fail(c, "no answer within the round's time");
            }
        }
        return std::move(outcome_);
    }

  private:
    std::size_t active() const {
        return static_cast<std::size_t>(
            std::count_if(clients_.begin(), clients_.end(),
                          [](const Client& c) { return c.fd >= 0 && c.target != nullptr; }));
    }

    void startNext(Client& c) {
        if (c.left == 0) {
            c.target = nullptr;
            return;
        }
        --c.left;
        c.target = &targets_[static_cast<std::size_t>(c.next)];
        c.next = (c.next + 1) % static_cast<int>(targets_.size());
        c.out = "GET " + c.target->path +
                " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: load_service\r\n"
                "Accept: */*\r\n\r\n";
        c.sent = 0;
        c.started = Clock::now();
        flush(c);
    }

    void flush(Client& c) {
        while (c.sent < c.out.size()) {
            ssize_t n = ::send(c.fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
            if (n > 0) {
                c.sent += static_cast<std::size_t>(n);
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                return;  // EPOLLOUT comes back
            }
            fail(c, std::string("send: ") + std::strerror(errno));
            return;
        }
        // Sent: only answers matter from now on.
        epoll_event event{EPOLLIN, {.u32 = index(c)}};
        ::epoll_ctl(epoll_, EPOLL_CTL_MOD, c.fd, &event);
    }

    void receive(Client& c) {
        char chunk[65536];
        for (;;) {
            ssize_t n = ::recv(c.fd, chunk, sizeof chunk, 0);
            if (n > 0) {
                c.in.append(chunk, static_cast<std::size_t>(n));
                if (static_cast<std::size_t>(n) < sizeof chunk) {
                    break;
                }
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                break;
            }
            fail(c, n == 0 ? "closed by the service before its answer"
                           : std::string("recv: ") + std::strerror(errno));
            return;
        }
        int status = 0;
        std::size_t length = answerLength(c.in, status);
        if (length == std::string::npos) {
            fail(c, "an answer that is no HTTP");
            return;
        }
        if (length == 0 || !c.target) {
            return;
        }
        if (length != c.in.size()) {
            fail(c, "more bytes than the answer");
            return;
        }
        if (status != c.target->status) {
            fail(c, "status " + std::to_string(status));
            return;
        }
        c.in.clear();
        outcome_.latencies.push_back(
            std::chrono::duration<double, std::milli>(Clock::now() - c.started).count());
        startNext(c);
    }

    void fail(Client& c, const std::string& why) {
        int lost = c.left + (c.target ? 1 : 0);
        outcome_.failures += lost;
        if (outcome_.firstFailure.empty() && lost > 0) {
            outcome_.firstFailure = (c.target ? c.target->path : std::string("-")) + ": " + why;
        }
        if (c.fd >= 0) {
            ::close(c.fd);
            c.fd = -1;
        }
        c.left = 0;
        c.target = nullptr;
    }

    std::uint32_t index(const Client& c) const {
        return static_cast<std::uint32_t>(&c - clients_.data());
    }

    const std::vector<Target>& targets_;
    int epoll_;
    std::vector<Client> clients_;
    Outcome outcome_;
};

// ---------------------------------------------------------------------------------------------
// The misbehaving clients, for as long as the test runs.

class Troublemakers {
  public:
    Troublemakers(int port, int each) : port_(port), each_(each) {
        thread_ = std::thread([this] { run(); });
    }
    ~Troublemakers() {
        done_ = true;
        thread_.join();
    }
    Troublemakers(const Troublemakers&) = delete;
    Troublemakers& operator=(const Troublemakers&) = delete;

    // Answers they were given: 408 to the slow and the half-sent, after the request deadline.
    int timedOut() const { return timedOut_; }
    int reconnects() const { return reconnects_; }

  private:
    enum class Kind { Trickle, HalfHead, Delayed };
    struct Pest {
        Kind kind;
        int fd = -1;
    };

    void open(Pest& p) {
        p.fd = connectTo(port_, true);
        if (p.fd < 0) {
            return;
        }
        timeval tv{0, 1000};  // reads only look
        ::setsockopt(p.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        const char* first = p.kind == Kind::Trickle ? "GET /terms HTTP/1.1\r\nX-Slow: "
                            : p.kind == Kind::HalfHead
                                ? "GET /mapsearch/json/search?keyword=Siam HTTP/1.1\r\nHo"
                                : "GET /tiles/1/0/0.png?delay=600 HTTP/1.1\r\n\r\n";
        ::send(p.fd, first, std::strlen(first), MSG_NOSIGNAL);
    }

    void run() {
        std::vector<Pest> pests;
        for (Kind kind : {Kind::Trickle, Kind::HalfHead, Kind::Delayed}) {
            for (int i = 0; i < each_; ++i) {
                pests.push_back({kind});
                open(pests.back());
            }
        }
        while (!done_) {
            for (auto& p : pests) {
                char chunk[4096];
                ssize_t n = p.fd >= 0 ? ::recv(p.fd, chunk, sizeof chunk, 0) : 0;
                if (n > 0) {
                    if (std::string_view(chunk, static_cast<std::size_t>(n)).find(" 408 ") !=
                        std::string_view::npos) {
                        ++timedOut_;
                    }
                } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
                    // Ended by the service: come back and do it again.
                    if (p.fd >= 0) {
                        ::close(p.fd);
                    }
                    ++reconnects_;
                    open(p);
                } else if (p.kind == Kind::Trickle) {
                    ::send(p.fd, "a", 1, MSG_NOSIGNAL);
                }
            }
            for (int i = 0; i < 10 && !done_; ++i) {
                std::this_thread::sleep_for(100ms);  // a byte a second
            }
        }
        for (auto& p : pests) {
            if (p.fd >= 0) {
                ::close(p.fd);
            }
        }
    }

    int port_;
    int each_;
    std::atomic<bool> done_{false};
    std::atomic<int> timedOut_{0};
    std::atomic<int> reconnects_{0};
    std::thread thread_;
};

// ---------------------------------------------------------------------------------------------
// The service, in a child process.

struct Memory {
    double rssMiB = 0;
    double peakMiB = 0;
    int threads = 0;
    int descriptors = 0;
};

Memory memoryOf(pid_t pid) {
    Memory m;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        auto kib = [&] { return std::strtod(line.c_str() + line.find(':') + 1, nullptr) / 1024; };
        if (line.rfind("VmRSS:", 0) == 0) {
            m.rssMiB = kib();
        } else if (line.rfind("VmHWM:", 0) == 0) {
            m.peakMiB = kib();
        } else if (line.rfind("Threads:", 0) == 0) {
            m.threads = std::atoi(line.c_str() + 8);
        }
    }
    std::string fdDir = "/proc/" + std::to_string(pid) + "/fd";
    if (auto* dir = ::opendir(fdDir.c_str())) {
        while (::readdir(dir)) {
            ++m.descriptors;
        }
        ::closedir(dir);
        m.descriptors -= 2;  // . and ..
    }
    return m;
}

void allowDescriptors(rlim_t wanted) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Runs the service until the parent closes its end of `control`; reports the port on `ready`.
[[noreturn]] void serve(int ready, int control, std::size_t maxConnections,
                        double requestTimeoutSeconds, std::size_t requestLog) {
    try {
        sorvan::server::EmbeddedService service(
            sorvan::server::ServiceOptions{.maxConnections = maxConnections,
                                           .requestTimeoutSeconds = requestTimeoutSeconds,
                                           .requestLog = requestLog});
        int port = service.port();
        [[maybe_unused]] auto w = ::write(ready, &port, sizeof port);
        char byte;
        while (::read(control, &byte, 1) > 0) {
        }
        service.stop();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "load_service: the service did not start: %s\n", e.what());
        ::_exit(1);
    }
    ::_exit(0);
}

double percentile(std::vector<double> sorted, double p) {
    if (sorted.empty()) {
        return 0;
    }
    auto at = static_cast<std::size_t>(p / 100 * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(at, sorted.size() - 1)];
}

struct Round {
    double seconds = 0;
    double perSecond = 0;
    double p50 = 0, p99 = 0, max = 0;
    int answered = 0;
    int failures = 0;
    Memory memory;
};

bool parse(int argc, char** argv, Settings& s) {
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        auto value = [&](auto& field) {
            if (i + 1 >= argc) {
                return false;
            }
            char* end = nullptr;
            double v = std::strtod(argv[++i], &end);
            if (*end != '\0' || !(v >= 0) || v > 1e7) {
                return false;
            }
            field = static_cast<std::remove_reference_t<decltype(field)>>(v);
            return true;
        };
        bool ok = arg == "--requests"          ? value(s.requests)
                  : arg == "--connections"     ? value(s.connections)
                  : arg == "--stalled"         ? value(s.stalled)
                  : arg == "--rounds"          ? value(s.rounds)
                  : arg == "--threads"         ? value(s.clientThreads)
                  : arg == "--round-timeout"   ? value(s.roundTimeoutSeconds)
                  : arg == "--request-timeout" ? value(s.requestTimeoutSeconds)
                  : arg == "--request-log"     ? value(s.requestLog)
                  : arg == "--max-growth-mib"  ? value(s.maxGrowthMiB)
                                               : false;
        if (!ok) {
            std::fprintf(stderr,
                         "usage: load_service [--requests N] [--connections N] [--stalled N]\n"
                         "                    [--rounds N] [--threads N] [--round-timeout S]\n"
                         "                    [--request-timeout S] [--request-log N]\n"
                         "                    [--max-growth-mib M]\n");
            return false;
        }
    }
    s.clientThreads = std::clamp(s.clientThreads, 1, std::max(1, s.connections));
    return s.connections > 0 && s.rounds > 0 && s.requests >= s.connections &&
           s.requestTimeoutSeconds > 0;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    if (!parse(argc, argv, settings)) {
        return 2;
    }
    auto descriptorsNeeded = static_cast<rlim_t>(settings.connections + 3 * settings.stalled + 64);
    allowDescriptors(descriptorsNeeded);
    ::signal(SIGPIPE, SIG_IGN);

    // Forked before any thread starts, so the child is a whole process of its own.
    int ready[2], control[2];
    if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(control, O_CLOEXEC) != 0) {
        std::perror("load_service: pipe");
        return 1;
    }
    pid_t child = ::fork();
    if (child < 0) {
        std::perror("load_service: fork");
        return 1;
    }
    if (child == 0) {
        ::close(ready[0]);
        ::close(control[1]);
        serve(ready[1], control[0],
              static_cast<std::size_t>(settings.connections + 3 * settings.stalled + 16),
              settings.requestTimeoutSeconds, static_cast<std::size_t>(settings.requestLog));
    }
    ::close(ready[1]);
    ::close(control[0]);
    int port = 0;
    if (::read(ready[0], &port, sizeof port) != sizeof port) {
        std::fprintf(stderr, "load_service: the service did not start\n");
        return 1;
    }

    const auto targets = mix();
    std::printf(
        "load_service: %d requests over %d kept-alive connections per round, %d rounds;\n"
        "  beside them %d clients trickling a byte a second, %d half-sent heads, %d "
        "requests delayed 600 s\n",
        settings.requests, settings.connections, settings.rounds, settings.stalled,
        settings.stalled, settings.stalled);
    Memory before = memoryOf(child);
    std::printf("  service at start: %.1f MiB resident, %d threads, %d descriptors\n\n",
                before.rssMiB, before.threads, before.descriptors);
    std::printf("%5s %9s %10s %9s %9s %9s %9s %8s %9s %9s %5s\n", "round", "answered", "failures",
                "seconds", "req/s", "p50 ms", "p99 ms", "max ms", "rss MiB", "peak MiB", "fds");

    std::vector<Round> rounds;
    int failures = 0;
    std::string firstFailure;
    {
        Troublemakers pests(port, settings.stalled);
        std::this_thread::sleep_for(200ms);  // all of them in place before the crowd comes
        for (int r = 0; r < settings.rounds; ++r) {
            const int shards = settings.clientThreads;
            std::vector<std::unique_ptr<Crowd>> crowds;
            for (int s = 0; s < shards; ++s) {
                int conns = settings.connections / shards + (s < settings.connections % shards);
                int reqs = settings.requests / shards + (s < settings.requests % shards);
                crowds.push_back(std::make_unique<Crowd>(port, conns, reqs, s, targets));
            }
            std::vector<Outcome> outcomes(static_cast<std::size_t>(shards));
            auto start = Clock::now();
            auto deadline =
                start + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(settings.roundTimeoutSeconds));
            std::vector<std::thread> threads;
            for (int s = 0; s < shards; ++s) {
                threads.emplace_back([&, s] {
                    outcomes[static_cast<std::size_t>(s)] =
                        crowds[static_cast<std::size_t>(s)]->run(deadline);
                });
            }
            for (auto& t : threads) {
                t.join();
            }
            Round round;
            round.seconds = std::chrono::duration<double>(Clock::now() - start).count();
            std::vector<double> latencies;
            for (auto& o : outcomes) {
                latencies.insert(latencies.end(), o.latencies.begin(), o.latencies.end());
                round.failures += o.failures;
                if (firstFailure.empty()) {
                    firstFailure = o.firstFailure;
                }
            }
            crowds.clear();  // closes the crowd's connections
            std::sort(latencies.begin(), latencies.end());
            round.answered = static_cast<int>(latencies.size());
            round.perSecond = round.answered / round.seconds;
            round.p50 = percentile(latencies, 50);
            round.p99 = percentile(latencies, 99);
            round.max = latencies.empty() ? 0 : latencies.back();
            std::this_thread::sleep_for(300ms);  // the service sees the crowd leave
            round.memory = memoryOf(child);
            failures += round.failures;
            rounds.push_back(round);
            std::printf("%5d %9d %10d %9.2f %9.0f %9.2f %9.2f %8.1f %9.1f %9.1f %5d\n", r + 1,
                        round.answered, round.failures, round.seconds, round.perSecond, round.p50,
                        round.p99, round.max, round.memory.rssMiB, round.memory.peakMiB,
                        round.memory.descriptors);
            std::fflush(stdout);
        }
        std::printf("\n  misbehaving clients: %d answered 408, %d reconnects\n", pests.timedOut(),
                    pests.reconnects());
    }

    auto summary = [&](const char* name, auto field) {
        std::vector<double> values;
        for (const auto& r : rounds) {
            values.push_back(field(r));
        }
        std::sort(values.begin(), values.end());
        std::printf("  %-8s median %9.2f   min %9.2f   max %9.2f\n", name,
                    values[values.size() / 2], values.front(), values.back());
    };
    summary("req/s", [](const Round& r) { return r.perSecond; });
    summary("p50 ms", [](const Round& r) { return r.p50; });
    summary("p99 ms", [](const Round& r) { return r.p99; });
    double growth = rounds.back().memory.rssMiB - rounds.front().memory.rssMiB;
    std::printf(
        "  service memory: %.1f MiB resident after round 1, %.1f after round %zu "
        "(%+.1f), peak %.1f\n",
        rounds.front().memory.rssMiB, rounds.back().memory.rssMiB, rounds.size(), growth,
        rounds.back().memory.peakMiB);

    ::close(control[1]);  // the service stops
    int status = 0;
    ::waitpid(child, &status, 0);
    bool ok = true;
    if (failures > 0) {
        std::printf("FAILED: %d requests without their answer (first: %s)\n", failures,
                    firstFailure.c_str());
        ok = false;
    }
    if (growth > settings.maxGrowthMiB) {
        std::printf("FAILED: the service grew by %.1f MiB over %zu rounds\n", growth,
                    rounds.size());
        ok = false;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::printf("FAILED: the service did not stop cleanly\n");
        ok = false;
    }
    if (ok) {
        std::printf("PASSED: every request answered, memory bounded\n");
    }
    return ok ? 0 : 1;
}
