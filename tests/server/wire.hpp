// A bare client socket for the embedded service's tests, so they see exactly what goes over
// the wire: send raw bytes, read one response at a time, tell a close from a stall.
// Not thread-safe: one thread per Wire.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

namespace sorvan::server::test {

class Wire {
  public:
    /// Connects to 127.0.0.1:port; reads give up after timeoutSeconds. receiveBuffer, when
    /// not 0, shrinks the socket's receive buffer (for clients that read slowly or not at all).
    explicit Wire(int port, double timeoutSeconds = 10, int receiveBuffer = 0) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (receiveBuffer > 0) {
            ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        }
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<std::uint16_t>(port));
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            ::close(fd_);
            throw std::runtime_error("connect failed");
        }
        auto whole = static_cast<long>(timeoutSeconds);
        timeval tv{whole, static_cast<long>((timeoutSeconds - static_cast<double>(whole)) * 1e6)};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~Wire() { ::close(fd_); }
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    /// False when the connection is gone (reset or closed by the server).
    bool trySend(std::string_view bytes) {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    void send(std::string_view bytes) { ASSERT_TRUE(trySend(bytes)); }
    void get(const std::string& target, const std::string& extraHeaders = "") {
        send("GET " + target + " HTTP/1.1\r\nHost: test\r\n" + extraHeaders + "\r\n");
    }

    struct Reply {
        int status = 0;  // 0: no answer (closed, reset or timed out first)
        std::map<std::string, std::string> headers;
        std::string body;
        bool complete = false;  // the whole Content-Length arrived
    };

    /// Reads one response; stops early at end of stream.
    Reply read() {
        Reply reply;
        while (buffer_.find("\r\n\r\n") == std::string::npos) {
            if (!fill()) {
                return reply;
            }
        }
        auto headEnd = buffer_.find("\r\n\r\n");
        std::string head = buffer_.substr(0, headEnd);
        buffer_.erase(0, headEnd + 4);
        reply.status = std::stoi(head.substr(9, 3));
        std::size_t pos = head.find("\r\n");
        while (pos != std::string::npos) {
            auto next = head.find("\r\n", pos + 2);
            std::string line = head.substr(
                pos + 2, next == std::string::npos ? std::string::npos : next - pos - 2);
            auto colon = line.find(':');
            std::string name = line.substr(0, colon);
            for (auto& c : name) {
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            }
            reply.headers[name] = line.substr(colon + 2);
            pos = next;
        }
        std::size_t length = std::stoul(reply.headers["content-length"]);
        while (buffer_.size() < length && fill()) {
        }
        reply.complete = buffer_.size() >= length;
        reply.body = buffer_.substr(0, std::min(length, buffer_.size()));
        buffer_.erase(0, reply.body.size());
        return reply;
    }

    /// True when the server closed the connection (nothing more to read); false when bytes
    /// arrived or the read timed out.
    bool closedByPeer() {
        if (!buffer_.empty()) {
            return false;
        }
        char chunk[4096];
        ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n > 0) {
            buffer_.append(chunk, static_cast<std::size_t>(n));
            return false;
        }
        return n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    }

    /// Reads and drops everything until the server closes; false when the read timed out.
    bool readToEnd() {
        buffer_.clear();
        for (;;) {
            char chunk[16384];
            ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n == 0) {
                return true;
            }
            if (n < 0) {
                return errno != EAGAIN && errno != EWOULDBLOCK;
            }
        }
    }

    int fd() const { return fd_; }

  private:
    bool fill() {
        char chunk[16384];
        ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) {
            return false;
        }
        buffer_.append(chunk, static_cast<std::size_t>(n));
        return true;
    }

    int fd_ = -1;
    std::string buffer_;
};

}  // namespace sorvan::server::test
