// A loopback server that answers with whatever bytes a test writes to the socket, for the
// answers no well-behaved server gives: bodies that never end or come a byte at a time, heads
// that lie about the length, headers a cache must refuse. Each connection runs the test's
// script on a thread of its own once the request head has been read.
//
//   RawHTTPServer server([](RawHTTPServer::Connection& c) {
//       c.send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
//       while (c.send("x") && c.sleep(0.5)) {}
//   });
//   fetch(net::URLSession::shared(), net::URLRequest(server.url("/slow")));
//
// Thread-safe. Destruction stops every script at its next send or sleep and waits for it.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sorvan/platform/foundation/url.hpp"

namespace sorvan::testing {

class RawHTTPServer {
  public:
    class Connection {
      public:
        /// The request head as received (request line and headers).
        const std::string& head() const { return head_; }
        /// Writes all of bytes; false once the client is gone or the server stops.
        bool send(std::string_view bytes);
        /// Waits; false (at once) when the server stops.
        bool sleep(double seconds);

      private:
        friend class RawHTTPServer;
        Connection(int fd, const RawHTTPServer& server) : fd_(fd), server_(server) {}
        int fd_;
        const RawHTTPServer& server_;
        std::string head_;
    };
    using Script = std::function<void(Connection&)>;

    explicit RawHTTPServer(Script script);
    ~RawHTTPServer();
    RawHTTPServer(const RawHTTPServer&) = delete;
    RawHTTPServer& operator=(const RawHTTPServer&) = delete;

    /// "http://127.0.0.1:PORT" + pathAndQuery.
    net::URL url(const std::string& pathAndQuery) const;
    /// How many requests have reached the script so far.
    int requests() const { return requests_.load(); }
    /// The heads of the requests so far, in order.
    std::vector<std::string> heads() const;

  private:
    void acceptLoop();
    void serve(int fd);

    Script script_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> requests_{0};
    mutable std::mutex mutex_;
    std::vector<std::string> heads_;    // guarded by mutex_
    std::vector<std::thread> workers_;  // guarded by mutex_
    std::thread acceptor_;
};

}  // namespace sorvan::testing
