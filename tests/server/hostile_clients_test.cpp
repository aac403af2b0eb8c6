// The embedded service against clients that stall, trickle, never read, or simply come in
// numbers: the service keeps answering everyone else, ends what it waits for, and stops at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sorvan/server/embedded_service.hpp"
#include "wire.hpp"

namespace sorvan::server {
namespace {

using test::Wire;
using namespace std::chrono_literals;

// More than the service has workers, so that one stuck client per worker would show.
constexpr int kCrowd = 12;

std::vector<std::unique_ptr<Wire>> connectMany(int port, int count, int receiveBuffer = 0) {
    std::vector<std::unique_ptr<Wire>> wires;
    for (int i = 0; i < count; ++i) {
        wires.push_back(std::make_unique<Wire>(port, 10, receiveBuffer));
    }
    return wires;
}

// Answers a fresh client within a few seconds (a stuck service leaves it waiting).
void expectAnswered(int port, const std::string& why) {
    Wire client(port, 5);
    client.get("/terms");
    EXPECT_EQ(client.read().status, 200) << why;
}

// Sends one more byte of an endless header to every wire until stopped.
class Trickler {
  public:
    explicit Trickler(std::vector<std::unique_ptr<Wire>>& wires) : wires_(wires) {
        for (auto& w : wires_) {
            w->send("GET /terms HTTP/1.1\r\nX-Slow: ");
        }
        thread_ = std::thread([this] {
            while (!done_) {
                for (auto& w : wires_) {
                    w->trySend("a");
                }
                std::this_thread::sleep_for(50ms);
            }
        });
    }
    ~Trickler() {
        done_ = true;
        thread_.join();
    }

  private:
    std::vector<std::unique_ptr<Wire>>& wires_;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

TEST(EmbeddedServiceUnderAbuse, RequestLogIsOffUnlessAskedAndKeepsOnlyTheLatest) {
    EmbeddedService service;
    auto send = [&](int count) {
        Wire wire(service.port());
        for (int i = 0; i < count; ++i) {
            wire.get("/terms?i=" + std::to_string(i));
            EXPECT_EQ(wire.read().status, 200);
        }
    };
    send(2);
    try {
        service.requests();
        FAIL() << "a service that was not asked keeps a request log";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(),
                     "the embedded service keeps no request log: ask for one with "
                     "ServiceOptions::requestLog or recordRequests()");
    }
    EXPECT_THROW(service.requests("/terms"), std::logic_error);

    service.recordRequests(3);
    send(5);
    auto kept = service.requests("/terms");
    ASSERT_EQ(kept.size(), 3u);
    EXPECT_EQ(kept[0].query, "i=2");
    EXPECT_EQ(kept[2].query, "i=4");
    service.recordRequests(1);
    ASSERT_EQ(service.requests().size(), 1u);
    EXPECT_EQ(service.requests()[0].query, "i=4");
    service.recordRequests(0);
    EXPECT_THROW(service.requests(), std::logic_error);

    EmbeddedService asked(ServiceOptions{.requestLog = 2});
    Wire wire(asked.port());
    wire.get("/terms");
    EXPECT_EQ(wire.read().status, 200);
    EXPECT_EQ(asked.requests().size(), 1u);
}

TEST(EmbeddedServiceUnderAbuse, RequestsThatArriveTooSlowlyAreAnswered408) {
    EmbeddedService service(
        ServiceOptions{.requestTimeoutSeconds = 0.3, .idleTimeoutSeconds = 0.5});
    std::mutex mutex;
    std::vector<std::string> log;
    service.setAccessLog([&](const Request& r, int status) {
        std::lock_guard lock(mutex);
        log.push_back(accessLogLine(r, status));
    });
    Wire half(service.port());
    half.send("GET /terms HTTP/1.1\r\nHo");
    Wire body(service.port());
    body.send("GET /terms?part=body HTTP/1.1\r\nContent-Length: 100\r\n\r\n0123456789");
    std::vector<std::unique_ptr<Wire>> slow;
    slow.push_back(std::make_unique<Wire>(service.port()));
    Trickler trickler(slow);  // a byte every 50 ms: never idle, never done
    Wire idle(service.port());

    for (Wire* late : {&half, &body, slow[0].get()}) {
        auto reply = late->read();
        EXPECT_EQ(reply.status, 408);
        EXPECT_EQ(reply.body, "request not received in full within 0.3 s\n");
        EXPECT_EQ(reply.headers["connection"], "close");
        EXPECT_TRUE(late->readToEnd());
    }
    // An idle connection is closed without a word once its wait is over.
    EXPECT_TRUE(idle.closedByPeer());
    EXPECT_EQ(service.stats().timedOut, 3u);
    std::lock_guard lock(mutex);
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (std::vector<std::string>{"GET /terms 408", "GET /terms 408",
                                             "GET /terms?part=body 408"}));
}

TEST(EmbeddedServiceUnderAbuse, BeyondTheLimitANewcomerTakesAnIdlePlaceOrIsRefused) {
    EmbeddedService service(ServiceOptions{.maxConnections = 2});
    // A client may read its answer before the service has put its connection aside to wait:
    // wait for that, so that which connection waited longest is plain.
    auto untilIdle = [&](std::size_t count) {
        for (int i = 0; i < 500 && service.stats().idleConnections < count; ++i) {
            std::this_thread::sleep_for(10ms);
        }
    };
    Wire older(service.port());
    older.get("/terms");
    EXPECT_EQ(older.read().status, 200);
    untilIdle(1);
    Wire newer(service.port());
    newer.get("/terms");
    EXPECT_EQ(newer.read().status, 200);
    untilIdle(2);

    // Both wait between requests: the one that waited longest makes room.
    Wire third(service.port());
    third.get("/terms");
    EXPECT_EQ(third.read().status, 200);
    EXPECT_TRUE(older.closedByPeer());
    newer.get("/terms");
    EXPECT_EQ(newer.read().status, 200);

    // Both busy with a request: the newcomer is told why it is turned away.
    newer.send("GET /terms HTTP/1.1\r\n");
    third.send("GET /terms HTTP/1.1\r\n");
    Wire refused(service.port());
    refused.get("/terms");
    auto reply = refused.read();
    EXPECT_EQ(reply.status, 503);
    EXPECT_EQ(reply.body, "too many connections: at most 2 at once\n");
    EXPECT_EQ(reply.headers["retry-after"], "1");
    EXPECT_EQ(reply.headers["connection"], "close");
    EXPECT_TRUE(refused.readToEnd());

    // The busy ones go on as if nothing happened.
    newer.send("\r\n");
    EXPECT_EQ(newer.read().status, 200);
    auto stats = service.stats();
    EXPECT_EQ(stats.accepted, 3u);
    EXPECT_EQ(stats.reclaimed, 1u);
    EXPECT_EQ(stats.refused, 1u);
    EXPECT_EQ(stats.openConnections, 2u);
}

TEST(EmbeddedServiceUnderAbuse, AnAnswerTheClientStopsTakingIsDropped) {
    const std::string big(8 << 20, 'x');
    EmbeddedService service(ServiceOptions{.sendTimeoutSeconds = 0.3});
    service.route("/big", [&](const Request&) { return Response::text(200, big); });
    Wire stalled(service.port(), 10, 4096);
    stalled.get("/big");
    // Nothing read until the service gave up: what is left is less than the whole answer.
    std::this_thread::sleep_for(1s);
    std::size_t received = 0;
    char chunk[65536];
    for (ssize_t n; (n = ::recv(stalled.fd(), chunk, sizeof chunk, 0)) > 0;) {
        received += static_cast<std::size_t>(n);
    }
    EXPECT_LT(received, big.size());
    EXPECT_EQ(service.stats().timedOut, 1u);
    EXPECT_EQ(service.stats().openConnections, 0u);
}

TEST(EmbeddedServiceUnderAbuse, BodiesAreDroppedAsTheyArriveAndTheNextRequestFollows) {
    EmbeddedService service;
    Wire wire(service.port());
    std::string body(1 << 20, 'b');
    wire.send("GET /terms?first HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
              "\r\n\r\n" + body + "GET /nowhere HTTP/1.1\r\n\r\n");
    EXPECT_EQ(wire.read().status, 200);
    EXPECT_EQ(wire.read().status, 404);
}

TEST(EmbeddedServiceUnderAbuse, OthersAreAnsweredBesideClientsThatWaitAndStopEndsEveryWait) {
    auto service = std::make_unique<EmbeddedService>();
    service->injectFault("/terms/slow", Fault{.count = -1, .delaySeconds = 600});
    const std::string big(4 << 20, 'x');
    service->route("/big", [&](const Request&) { return Response::text(200, big); });
    std::vector<std::unique_ptr<Wire>> clients;
    // A crowd of each kind: delayed twice over, never reading, half sent, silent.
    for (int i = 0; i < 5 * kCrowd; ++i) {
        clients.push_back(std::make_unique<Wire>(service->port(), 10, 4096));
        const char* requests[] = {"GET /terms/slow HTTP/1.1\r\n\r\n",
                                  "GET /tiles/1/0/0.png?delay=600 HTTP/1.1\r\n\r\n",
                                  "GET /big HTTP/1.1\r\n\r\n", "GET /terms HTTP/1.1\r\nHo", ""};
        clients.back()->send(requests[i % 5]);
    }
    auto slow = connectMany(service->port(), kCrowd);
    Trickler trickler(slow);
    std::this_thread::sleep_for(200ms);
    expectAnswered(service->port(), "while clients wait, trickle, stop halfway or do not read");
    std::thread waiter([&] { service->wait(); });
    auto stopped = std::async(std::launch::async, [&] { service->stop(); });
    EXPECT_EQ(stopped.wait_for(5s), std::future_status::ready) << "stop() waits for clients";
    waiter.join();
    for (auto& c : clients) {
        EXPECT_TRUE(c->readToEnd());
    }
    for (auto& c : slow) {
        EXPECT_TRUE(c->readToEnd());
    }
    EXPECT_EQ(service->stats().openConnections, 0u);
    service.reset();  // a second stop from the destructor is harmless
}

TEST(EmbeddedServiceUnderAbuse, ServesAKeptAliveCrowdBesideSlowClientsWithNothingLost) {
    EmbeddedService service(ServiceOptions{.requestTimeoutSeconds = 0.5, .requestLog = 100});
    auto slow = connectMany(service.port(), 4);
    Trickler trickler(slow);
    auto half = connectMany(service.port(), 4);
    for (auto& w : half) {
        w->send("GET /terms HTTP/1.1\r\n");
    }
    const std::vector<std::pair<std::string, int>> mix = {
        {"/map/msn-server/img.php?mode=normal&res=4096&imgid=7148049596242115", 200},
        {"/tiles/14/12765/7556.png", 200},
        {"/mapsearch/json/search?keyword=Siam&lat=13.7456&lon=100.5341&locale=en&key=k", 200},
        {"/mapsearch/json/suggest?keyword=wat&locale=th&key=k", 200},
        {"/terms", 200},
        {"/nowhere", 404},
    };
    constexpr int kClients = 32;
    constexpr int kEach = 18;
    std::atomic<int> failures{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            Wire wire(service.port());
            for (int i = 0; i < kEach; ++i) {
                const auto& [target, status] = mix[(c + i) % mix.size()];
                wire.get(target);
                auto reply = wire.read();
                if (reply.status != status || !reply.complete) {
                    ++failures;
                }
            }
        });
    }
    for (auto& t : clients) {
        t.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(service.requests().size(), 100u) << "the request log keeps only the latest";
    for (auto& w : half) {
        EXPECT_EQ(w->read().status, 408);
    }
    EXPECT_GE(service.stats().timedOut, 4u);
    EXPECT_EQ(service.stats().accepted, static_cast<std::size_t>(kClients + 8));
}

}  // namespace
}  // namespace sorvan::server
