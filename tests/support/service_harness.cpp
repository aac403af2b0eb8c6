#include "support/service_harness.hpp"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <mutex>

namespace sorvan::testing {

namespace {

std::unique_ptr<server::EmbeddedService>& current() {
    static std::unique_ptr<server::EmbeddedService> service;
    return service;
}

}  // namespace

void ServiceTest::SetUpTestSuite() {
    current() = std::make_unique<server::EmbeddedService>(recordingService());
}

void ServiceTest::TearDownTestSuite() {
    current().reset();
}

void ServiceTest::SetUp() {
    ASSERT_NE(current(), nullptr) << "SetUpTestSuite did not start the service";
    current()->clearFaults();
    current()->clearRequests();
}

server::EmbeddedService& ServiceTest::service() {
    return *current();
}

std::string ServiceTest::origin() {
    return current()->origin();
}

net::URL ServiceTest::url(std::string_view pathAndQuery) {
    std::string text = origin() + std::string(pathAndQuery);
    auto parsed = net::URL::fromString(text);
    if (!parsed) {
        ADD_FAILURE() << "not a URL: " << text;
        return *net::URL::fromString(origin());
    }
    return *parsed;
}

std::string FetchResult::body() const {
    return data ? std::string(data->begin(), data->end()) : std::string();
}

FetchResult fetch(net::URLSession& session, const net::URLRequest& request, double timeoutSeconds) {
    // Shared with the completion, which may come after a timed-out wait has given up.
    struct Shared {
        std::mutex mutex;
        FetchResult result;
        dispatch::Semaphore done;
    };
    auto shared = std::make_shared<Shared>();
    auto* queue = &session.delegateQueue();
    session.dataTask(request,
                     [shared, queue](const auto& data, const auto& response, const auto& error) {
                         std::lock_guard lock(shared->mutex);
                         auto& r = shared->result;
                         if (++r.completions == 1) {
                             r.data = data;
                             r.response = response;
                             r.error = error;
                             r.ranOnDelegateQueue = queue->isCurrent();
                             r.completed = true;
                             shared->done.signal();
                         }
                     });
    if (!shared->done.waitFor(dispatch::Duration(timeoutSeconds))) {
        ADD_FAILURE() << "no completion within " << timeoutSeconds << " s for "
                      << request.url().absoluteString();
    }
    std::lock_guard lock(shared->mutex);
    return shared->result;
}

FetchResult fetch(const net::URL& url) {
    return fetch(net::URLSession::shared(), net::URLRequest(url));
}

FetchResult fetchBlocking(net::URLSession& session, const net::URLRequest& request) {
    net::TransferResult t = session.sendSynchronousRequest(request);
    return FetchResult{t.data, t.response, t.error, true, true, 1};
}

int closedPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

}  // namespace sorvan::testing
