// `sorvan serve`: runs the embedded service in the foreground for demos, manual testing and as
// a stand-in server for developers.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "command.hpp"
#include "options.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::cli {

namespace {

struct ServeOptions {
    std::int64_t port = 0;
    std::int64_t maxConnections = 1024;
    double requestTimeout = 10;
    double idleTimeout = 60;
    bool stamp = false;
    bool json = false;
};

// Writes access log lines to stderr on a thread of its own. The service's workers only queue
// a line: were they to write it themselves, a reader that stops reading stderr (a pager, a
// full pipe) would stop every worker. Lines beyond what the queue holds are counted, and the
// count is written once the writer catches up.
class AccessLogWriter {
  public:
    AccessLogWriter() : thread_([this] { run(); }) {}
    ~AccessLogWriter() {
        {
            std::lock_guard lock(mutex_);
            done_ = true;
        }
        ready_.notify_one();
        thread_.join();
    }
    AccessLogWriter(const AccessLogWriter&) = delete;
    AccessLogWriter& operator=(const AccessLogWriter&) = delete;

    void add(std::string line) {
        {
            std::lock_guard lock(mutex_);
            if (lines_.size() >= kMaxQueued) {
                ++dropped_;
                return;
            }
            lines_.push_back(std::move(line));
        }
        ready_.notify_one();
    }

  private:
    static constexpr std::size_t kMaxQueued = 10000;

    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            ready_.wait(lock, [&] { return done_ || !lines_.empty(); });
            if (lines_.empty()) {
                return;  // done, and every line is out
            }
            std::deque<std::string> batch;
            batch.swap(lines_);
            std::size_t dropped = std::exchange(dropped_, 0);
            lock.unlock();
            for (const auto& line : batch) {
                std::fprintf(stderr, "%s\n", line.c_str());
            }
            if (dropped > 0) {
                std::fprintf(stderr, "sorvan serve: %zu access log lines dropped\n", dropped);
            }
            std::fflush(stderr);
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::string> lines_;
    std::size_t dropped_ = 0;
    bool done_ = false;
    std::thread thread_;  // last: starts once the members above exist
};

// Each connection is a descriptor: lift the soft limit toward the hard one so that the
// connection limit, not the descriptor limit, is what a crowd of clients meets first.
void allowDescriptorsFor(std::int64_t connections) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    auto wanted = static_cast<rlim_t>(connections) + 64;  // the service's own, the streams
    if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < wanted) {
        limit.rlim_cur =
            limit.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, limit.rlim_max);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

Runner setupServe(CLI::App& app) {
    app.description(
        "Runs the embedded service on 127.0.0.1, answering every path the SDK calls with\n"
        "deterministic data, until interrupted (SIGINT or SIGTERM, which end it at once,\n"
        "whatever its clients are doing). The first line on stdout is the service's origin,\n"
        "e.g. http://127.0.0.1:8080; point the SDK at it with SORVAN_SERVICE_ORIGIN.\n"
        "\n"
        "Each answer is logged on stderr unless --quiet, as \"METHOD TARGET STATUS\", with\n"
        "control characters and bytes that are not text written as \\xHH and the value of\n"
        "every \"key\" query item as ***. The service keeps no record of requests, so it can\n"
        "run for as long as it is needed.\n"
        "\n"
        "Slow or stuck clients hold a connection but never the service: a request must\n"
        "arrive whole within --request-timeout (else 408), a kept-alive connection waits\n"
        "--idle-timeout for its next request, and beyond --max-connections a newcomer\n"
        "takes the place of the connection idle the longest or is refused with a 503 that\n"
        "says why.");
    auto o = std::make_shared<ServeOptions>();
    addInteger(app, "-p,--port", o->port,
               "listen on port N (default 0: a free port chosen by the system)", 0, 65535);
    addInteger(app, "--max-connections", o->maxConnections,
               "at most N connections at once (default 1024)", 1, 1000000);
    addNumber(app, "--request-timeout", o->requestTimeout,
              "SECONDS from a request's first byte to its last (default 10)", 0.001, 86400);
    addNumber(app, "--idle-timeout", o->idleTimeout,
              "SECONDS a kept-alive connection may wait between requests (default 60)", 0.001,
              86400);
    app.add_flag("--stamp", o->stamp,
                 "write \"mode z/x/y\" on every map tile, for telling tiles apart (a tile\n"
                 "request's own stamp=1 does it for that tile)");
    addJsonFlag(app, o->json,
                "print the first line as JSON: {\"origin\": \"http://127.0.0.1:PORT\", "
                "\"port\": PORT}");
    return [o](const Context& context) -> int {
        // Blocked before the service starts its threads, so they inherit the mask and only
        // the sigwait below receives the stop signals.
        sigset_t stopSignals;
        sigemptyset(&stopSignals);
        sigaddset(&stopSignals, SIGINT);
        sigaddset(&stopSignals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

        allowDescriptorsFor(o->maxConnections);
        std::unique_ptr<AccessLogWriter> accessLog;
        if (!context.quiet) {
            accessLog = std::make_unique<AccessLogWriter>();
        }
        std::unique_ptr<server::EmbeddedService> service;
        try {
            server::ServiceOptions options;
            options.port = static_cast<int>(o->port);
            options.maxConnections = static_cast<std::size_t>(o->maxConnections);
            options.requestTimeoutSeconds = o->requestTimeout;
            options.idleTimeoutSeconds = o->idleTimeout;
            service = std::make_unique<server::EmbeddedService>(options);
        } catch (const std::exception& e) {
            return failure(context.name, e.what());
        }
        service->setStampTiles(o->stamp);
        if (accessLog) {
            service->setAccessLog(
                [log = accessLog.get()](const server::Request& request, int status) {
                    log->add(server::accessLogLine(request, status));
                });
        }
        if (o->json) {
            nlohmann::ordered_json line = {{"origin", service->origin()},
                                           {"port", service->port()}};
            std::printf("%s\n", line.dump().c_str());
        } else {
            std::printf("%s\n", service->origin().c_str());
        }
        std::fflush(stdout);

        int signal = 0;
        sigwait(&stopSignals, &signal);
        service->stop();
        return kSuccess;
    };
}

const Command::Registration registration{{"serve",
                                          "run the embedded service on 127.0.0.1 until interrupted",
                                          "the port could not be bound", setupServe}};

}  // namespace

}  // namespace sorvan::cli
