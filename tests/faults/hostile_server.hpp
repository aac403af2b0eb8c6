// A loopback HTTP server that answers every request with one canned answer, sent the way a
// failing server sends it: a byte at a time with pauses (trickle), or not at all (stall).
// For the faults the embedded service does not make itself. Serves one connection at a time
// on a thread of its own; the destructor ends any answer in progress and joins it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>

namespace sorvan::testing {

class HostileServer {
  public:
    struct Answer {
        int status = 200;
        std::string contentType = "application/json";
        std::string body = {};
        /// Bytes of the answer (head and body) sent at once, and the pause after each piece.
        std::size_t piece = 1 << 20;
        std::chrono::milliseconds pause{0};
        /// Read the request, then send nothing until the client gives up or the server ends.
        bool stall = false;
        /// When set, only requests whose path starts with this meet the answer above; any
        /// other request gets `elsewhere` whole and at once, as a healthy server sends it.
        std::string only = {};
        std::string elsewhere = {};
    };

    /// Listens on an ephemeral loopback port at once.
    explicit HostileServer(Answer answer);
    ~HostileServer();
    HostileServer(const HostileServer&) = delete;
    HostileServer& operator=(const HostileServer&) = delete;

    /// "http://127.0.0.1:PORT"
    std::string origin() const;
    /// Requests whose head arrived in full.
    int requests() const { return requests_.load(); }

  private:
    void serve();
    void answer(int fd);
    bool send(int fd, const std::string& out, std::size_t piece, std::chrono::milliseconds pause);
    /// Waits for fd to be ready (POLLIN or POLLOUT) or the server to end; false when ending.
    bool wait(int fd, short events, int milliseconds) const;

    Answer answer_;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    int port_ = 0;
    std::atomic<int> requests_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace sorvan::testing
