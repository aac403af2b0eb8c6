#include "hostile_server.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace sorvan::testing {
namespace {

std::string message(int status, const std::string& contentType, const std::string& body) {
    return "HTTP/1.1 " + std::to_string(status) + " Answer\r\nContent-Type: " + contentType +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
           body;
}

}  // namespace

HostileServer::HostileServer(Answer answer) : answer_(std::move(answer)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        ::pipe2(wake_, O_CLOEXEC) != 0) {
        throw std::runtime_error("hostile server: cannot listen");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

HostileServer::~HostileServer() {
    stopping_ = true;
    (void)!::write(wake_[1], "x", 1);
    thread_.join();
    ::close(listener_);
    ::close(wake_[0]);
    ::close(wake_[1]);
}

std::string HostileServer::origin() const {
    return "http://127.0.0.1:" + std::to_string(port_);
}

bool HostileServer::wait(int fd, short events, int milliseconds) const {
    pollfd fds[2] = {{fd, events, 0}, {wake_[0], POLLIN, 0}};
    int ready = ::poll(fds, 2, milliseconds);
    return !stopping_ && ready >= 0 && (fds[1].revents & POLLIN) == 0;
}

void HostileServer::serve() {
    while (wait(listener_, POLLIN, -1)) {
        int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            answer(fd);
            ::close(fd);
        }
    }
}

void HostileServer::answer(int fd) {
    std::string head;
    char buffer[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
        if (!wait(fd, POLLIN, 5000)) {
            return;
        }
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            return;
        }
        head.append(buffer, static_cast<std::size_t>(n));
    }
    ++requests_;
    // "GET /path?query HTTP/1.1"
    std::size_t pathAt = head.find(' ') + 1;
    bool hostile =
        answer_.only.empty() || head.compare(pathAt, answer_.only.size(), answer_.only) == 0;
    if (!hostile) {
        send(fd, message(200, answer_.contentType, answer_.elsewhere),
             answer_.elsewhere.size() + 4096, std::chrono::milliseconds(0));
        return;
    }
    if (answer_.stall) {
        // Until the client closes (a read of 0) or the server ends.
        while (wait(fd, POLLIN, -1) && ::recv(fd, buffer, sizeof buffer, 0) > 0) {
        }
        return;
    }
    send(fd, message(answer_.status, answer_.contentType, answer_.body), answer_.piece,
         answer_.pause);
}

bool HostileServer::send(int fd, const std::string& out, std::size_t piece,
                         std::chrono::milliseconds pause) {
    std::size_t sent = 0;
    while (sent < out.size()) {
        if (!wait(fd, POLLOUT, 5000)) {
            return false;
        }
        std::size_t n = std::min(piece, out.size() - sent);
        ssize_t written = ::send(fd, out.data() + sent, n, MSG_NOSIGNAL);
        if (written <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(written);
        if (pause.count() > 0 && sent < out.size() &&
            !wait(wake_[0], POLLIN, static_cast<int>(pause.count()))) {
            return false;
        }
    }
    return true;
}

}  // namespace sorvan::testing
