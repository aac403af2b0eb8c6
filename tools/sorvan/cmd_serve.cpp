// `sorvan serve`: runs the embedded service in the foreground for demos and manual testing.
#include <pthread.h>
#include <signal.h>

#include <charconv>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::cli {

namespace {

void printServeHelp() {
    std::printf(
        "usage: sorvan serve [--port N] [--quiet]\n\n"
        "Runs the embedded service on 127.0.0.1, answering every path the SDK calls with\n"
        "deterministic data, until interrupted (SIGINT or SIGTERM). The first line on stdout\n"
        "is the service's origin, e.g. http://127.0.0.1:8080; point the SDK at it with\n"
        "SORVAN_SERVICE_ORIGIN.\n\n"
        "options:\n"
        "  --port N   listen on port N (default 0: a free port chosen by the system)\n"
        "  --quiet    do not log each request on stderr\n"
        "  --help     show this help\n");
}

std::optional<int> parsePort(const std::string& text) {
    int port = -1;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (ec != std::errc() || end != text.data() + text.size() || port < 0 || port > 65535) {
        return std::nullopt;
    }
    return port;
}

int runServe(const std::vector<std::string>& args) {
    int port = 0;
    bool quiet = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--help" || arg == "-h") {
            printServeHelp();
            return 0;
        }
        if (arg == "--quiet" || arg == "-q") {
            quiet = true;
            continue;
        }
        std::string value;
        if (arg == "--port" || arg == "-p") {
            if (i + 1 >= args.size()) {
                return usageError("serve", "--port needs a value");
            }
            value = args[++i];
        } else if (arg.starts_with("--port=")) {
            value = arg.substr(7);
        } else {
            return usageError("serve", "unknown option '" + arg + "'");
        }
        auto parsed = parsePort(value);
        if (!parsed) {
            return usageError("serve", "'" + value + "' is no port (0 to 65535)");
        }
        port = *parsed;
    }

    // Blocked before the service starts its threads, so they inherit the mask and only the
    // sigwait below receives the stop signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    std::unique_ptr<server::EmbeddedService> service;
    try {
        service = std::make_unique<server::EmbeddedService>(port);
    } catch (const std::exception& e) {
        return failure("serve", e.what());
    }
    if (!quiet) {
        service->setAccessLog([](const server::Request& request, int status) {
            std::fprintf(stderr, "%s %s %d\n", request.method.c_str(), request.target.c_str(),
                         status);
        });
    }
    std::printf("%s\n", service->origin().c_str());
    std::fflush(stdout);

    int signal = 0;
    sigwait(&stopSignals, &signal);
    service->stop();
    return 0;
}

const Command::Registration registration{
    Command{"serve", "run the embedded service on 127.0.0.1 until interrupted", runServe}};

}  // namespace

}  // namespace sorvan::cli
