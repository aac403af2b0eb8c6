#include "support/services_fixtures.hpp"

#include "sorvan/platform/foundation/dispatch.hpp"

namespace sorvan::testing {

void ServicesTest::TearDown() {
    // Answers a test put in place must not leak into the next test of the suite.
    server::installBuiltinRoutes(service());
}

services::ServiceSettings ServicesTest::settings() {
    services::ServiceSettings s;
    s.baseAddress = origin();
    s.locale = "th";
    s.key = "test-key";
    s.bundleIdentifier = "org.sorvan.tests";
    return s;
}

services::SearchClient ServicesTest::searchClient(map::Coordinate center) {
    return services::SearchClient(settings(), [center] { return center; });
}

services::RouteClient ServicesTest::routeClient() {
    return services::RouteClient(settings());
}

void ServicesTest::answer(const std::string& path, std::string body, int status) {
    service().route(path, [body = std::move(body), status](const server::Request&) {
        auto response = server::Response::json(body);
        response.status = status;
        return response;
    });
}

std::string ServicesTest::lastQuery(const std::string& path) {
    auto requests = service().requests(path);
    return requests.empty() ? std::string() : requests.back().query;
}

void ServicesTest::settle() {
    net::URLSession::shared().delegateQueue().sync([] {});
}

void CallbackProbe::hit() {
    bool session = net::URLSession::shared().delegateQueue().isCurrent();
    bool main = dispatch::RunLoop::main().isCurrent();
    std::size_t lines = capture_.lines().size();
    std::lock_guard lock(mutex_);
    if (++calls_ == 1) {
        session_ = session;
        main_ = main;
        linesBefore_ = lines;
    }
    cv_.notify_all();
}

bool CallbackProbe::wait(std::chrono::milliseconds timeout) {
    // The main queue is pumped while waiting, for callbacks that hop to it.
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        {
            std::unique_lock lock(mutex_);
            if (cv_.wait_for(lock, std::chrono::milliseconds(2), [&] { return calls_ > 0; })) {
                return true;
            }
        }
        dispatch::RunLoop::main().drain();
    }
    ADD_FAILURE() << "the callback was not called";
    return false;
}

int CallbackProbe::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

bool CallbackProbe::ranOnSessionQueue() const {
    std::lock_guard lock(mutex_);
    return session_;
}

bool CallbackProbe::ranOnMainQueue() const {
    std::lock_guard lock(mutex_);
    return main_;
}

std::size_t CallbackProbe::linesBefore() const {
    std::lock_guard lock(mutex_);
    return linesBefore_;
}

bool waitForLines(const log::Capture& capture, std::size_t n, std::chrono::milliseconds timeout) {
    return dispatch::RunLoop::main().runUntil([&] { return capture.lines().size() >= n; },
                                              dispatch::Duration(timeout));
}

}  // namespace sorvan::testing
