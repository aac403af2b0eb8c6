#include "support/raw_http_server.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace sorvan::testing {

bool RawHTTPServer::Connection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        if (server_.stopping_) {
            return false;
        }
        // Polled in short steps so that a client that stopped reading cannot hold up the stop.
        pollfd p{fd_, POLLOUT, 0};
        if (::poll(&p, 1, 50) <= 0) {
            continue;
        }
        ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

bool RawHTTPServer::Connection::sleep(double seconds) {
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < until) {
        if (server_.stopping_) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return !server_.stopping_;
}

RawHTTPServer::RawHTTPServer(Script script) : script_(std::move(script)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        ::listen(listener_, 64) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        if (listener_ >= 0) {
            ::close(listener_);
        }
        throw std::runtime_error("RawHTTPServer: cannot listen on loopback");
    }
    port_ = ntohs(addr.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
}

RawHTTPServer::~RawHTTPServer() {
    stopping_ = true;
    acceptor_.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard lock(mutex_);
        workers.swap(workers_);
    }
    for (auto& w : workers) {
        w.join();
    }
    ::close(listener_);
}

net::URL RawHTTPServer::url(const std::string& pathAndQuery) const {
    return *net::URL::fromString("http://127.0.0.1:" + std::to_string(port_) + pathAndQuery);
}

std::vector<std::string> RawHTTPServer::heads() const {
    std::lock_guard lock(mutex_);
    return heads_;
}

void RawHTTPServer::acceptLoop() {
    while (!stopping_) {
        pollfd p{listener_, POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0) {
            continue;
        }
        int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        std::lock_guard lock(mutex_);
        workers_.emplace_back([this, fd] { serve(fd); });
    }
}

void RawHTTPServer::serve(int fd) {
    // One request per connection: the script's answer ends with the connection.
    Connection c(fd, *this);
    char buffer[4096];
    while (!stopping_ && c.head_.find("\r\n\r\n") == std::string::npos) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0) {
            continue;
        }
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            ::close(fd);
            return;
        }
        c.head_.append(buffer, static_cast<std::size_t>(n));
    }
    if (!stopping_) {
        {
            std::lock_guard lock(mutex_);
            heads_.push_back(c.head_);
        }
        ++requests_;
        script_(c);
    }
    ::close(fd);
}

}  // namespace sorvan::testing
