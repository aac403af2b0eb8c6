// `sorvan serve`: runs the embedded service in the foreground for demos and manual testing.
#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "command.hpp"
#include "options.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::cli {

namespace {

struct ServeOptions {
    std::int64_t port = 0;
    bool stamp = false;
    bool json = false;
};

Runner setupServe(CLI::App& app) {
    app.description(
        "Runs the embedded service on 127.0.0.1, answering every path the SDK calls with\n"
        "deterministic data, until interrupted (SIGINT or SIGTERM). The first line on stdout\n"
        "is the service's origin, e.g. http://127.0.0.1:8080; point the SDK at it with\n"
        "SORVAN_SERVICE_ORIGIN. Each request is logged on stderr unless --quiet.");
    auto o = std::make_shared<ServeOptions>();
    addInteger(app, "-p,--port", o->port,
               "listen on port N (default 0: a free port chosen by the system)", 0, 65535);
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

        std::unique_ptr<server::EmbeddedService> service;
        try {
            service = std::make_unique<server::EmbeddedService>(static_cast<int>(o->port));
        } catch (const std::exception& e) {
            return failure(context.name, e.what());
        }
        service->setStampTiles(o->stamp);
        if (!context.quiet) {
            service->setAccessLog([](const server::Request& request, int status) {
                std::fprintf(stderr, "%s %s %d\n", request.method.c_str(), request.target.c_str(),
                             status);
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
