#include "sorvan/server/embedded_service.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "http_message.hpp"
#include "support/service_harness.hpp"
#include "wire.hpp"

namespace sorvan::server {
namespace {

using test::Wire;

class EmbeddedServiceTest : public sorvan::testing::ServiceTest {
  protected:
    static void SetUpTestSuite() {
        ServiceTest::SetUpTestSuite();
        service().route("/",
                        [](const Request& r) { return Response::text(200, "root " + r.path); });
        service().route("/a", [](const Request&) { return Response::text(200, "a"); });
        service().route("/a/b", [](const Request&) { return Response::json("{\"b\":true}"); });
        service().route("/throws",
                        [](const Request&) -> Response { throw std::runtime_error("no data"); });
        service().route("/body", [](const Request&) { return Response::text(200, "0123456789"); });
    }
    Wire connect() { return Wire(service().port()); }
};

TEST_F(EmbeddedServiceTest, ParsesAndRecordsEachRequest) {
    Wire wire = connect();
    wire.get("/a/b%20c/%E0%B8%81?q=%E0%B8%81+x&flag&=v&k=1&k=2&&",
             "Referer: sorvan://com.example\r\nX-Mixed-Case:  spaced value \r\n");
    EXPECT_EQ(wire.read().status, 200);
    auto seen = service().requests();
    ASSERT_EQ(seen.size(), 1u);
    const Request& r = seen[0];
    EXPECT_EQ(r.method, "GET");
    EXPECT_EQ(r.target, "/a/b%20c/%E0%B8%81?q=%E0%B8%81+x&flag&=v&k=1&k=2&&");
    EXPECT_EQ(r.path, "/a/b c/ก");
    EXPECT_EQ(r.query, "q=%E0%B8%81+x&flag&=v&k=1&k=2&&");
    EXPECT_EQ(r.headers.at("referer"), "sorvan://com.example");
    EXPECT_EQ(r.headers.at("x-mixed-case"), "spaced value");
    EXPECT_EQ(r.headers.at("host"), "test");

    auto items = r.queryItems();
    EXPECT_EQ(items.count("q"), 1u);
    EXPECT_EQ(r.queryItem("q"), "ก+x");
    EXPECT_EQ(r.queryItem("flag"), "");
    EXPECT_EQ(r.queryItem(""), "v");
    EXPECT_EQ(items.count("k"), 2u);
    EXPECT_EQ(r.queryItem("k"), "1");
    EXPECT_EQ(r.queryItem("missing"), std::nullopt);
    EXPECT_EQ(items.size(), 5u);

    EXPECT_EQ(service().requests("/a/b").size(), 1u);
    EXPECT_EQ(service().requests("/z").size(), 0u);
    service().clearRequests();
    EXPECT_TRUE(service().requests().empty());
}

TEST_F(EmbeddedServiceTest, RoutesByLongestPrefix) {
    Wire wire = connect();
    struct Case {
        std::string target;
        int status;
        std::string body;
    };
    const std::vector<Case> cases = {
        {"/a", 200, "a"},
        {"/a/b", 200, "{\"b\":true}"},
        {"/a/bc?x=1", 200, "{\"b\":true}"},
        {"/a/c", 200, "a"},
        {"/elsewhere", 200, "root /elsewhere"},
        {"/throws", 500, "handler failed: no data\n"},
    };
    for (const auto& c : cases) {
        wire.get(c.target);
        auto reply = wire.read();
        EXPECT_EQ(reply.status, c.status) << c.target;
        EXPECT_EQ(reply.body, c.body) << c.target;
    }
    // Replacing a route takes effect at once.
    service().route("/a", [](const Request&) { return Response::text(200, "new a"); });
    wire.get("/a");
    EXPECT_EQ(wire.read().body, "new a");
    service().route("/a", [](const Request&) { return Response::text(200, "a"); });
}

TEST_F(EmbeddedServiceTest, KeepsConnectionsAliveAndAnswersPipelinedRequestsInOrder) {
    auto before = service().acceptedConnections();
    Wire wire = connect();
    wire.send(
        "GET /a HTTP/1.1\r\nHost: t\r\n\r\n"
        "GET /body HTTP/1.1\r\nHost: t\r\n\r\n"
        "GET /a/b HTTP/1.1\r\nHost: t\r\n\r\n");
    EXPECT_EQ(wire.read().body, "a");
    auto body = wire.read();
    EXPECT_EQ(body.body, "0123456789");
    EXPECT_EQ(body.headers["connection"], "keep-alive");
    EXPECT_EQ(body.headers["content-type"], "text/plain; charset=utf-8");
    EXPECT_EQ(wire.read().body, "{\"b\":true}");
    // Later, on the same connection once it went idle.
    wire.get("/a");
    EXPECT_EQ(wire.read().body, "a");
    EXPECT_EQ(service().acceptedConnections() - before, 1u);

    // "Connection: close" ends it after the answer.
    wire.get("/a", "Connection: close\r\n");
    auto last = wire.read();
    EXPECT_EQ(last.headers["connection"], "close");
    EXPECT_TRUE(wire.closedByPeer());
}

TEST_F(EmbeddedServiceTest, HeadersSplitAcrossPacketsAndBodiesAreHandled) {
    Wire wire = connect();
    wire.send("GET /a HT");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    wire.send("TP/1.1\r\nHost: t\r\nContent-Length: 5\r\n\r\nab");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    wire.send("cde");
    EXPECT_EQ(wire.read().body, "a");
    wire.get("/body");
    EXPECT_EQ(wire.read().body, "0123456789");
}

TEST_F(EmbeddedServiceTest, AnswersMalformedRequestsAndCloses) {
    const std::vector<std::pair<std::string, int>> cases = {
        {"NONSENSE\r\n\r\n", 400},
        {"GET /a HTTP/2.0\r\n\r\n", 505},
        {"GET /a HTTP/1.1\r\nno colon here\r\n\r\n", 400},
        {"GET /a HTTP/1.1\r\nContent-Length: x\r\n\r\n", 400},
        {"GET /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n", 501},
        {"GET /a HTTP/1.1\r\nX: " + std::string(70000, 'y'), 431},
    };
    for (const auto& [bytes, status] : cases) {
        Wire wire = connect();
        wire.send(bytes);
        auto reply = wire.read();
        EXPECT_EQ(reply.status, status) << bytes.substr(0, 40);
        EXPECT_TRUE(wire.closedByPeer());
    }
    EXPECT_TRUE(service().requests().empty());
}

TEST_F(EmbeddedServiceTest, StatusFaultAppliesToTheNextRequestsThenStops) {
    service().injectFault("/a", Fault{.count = 2, .status = 503});
    Wire wire = connect();
    for (int expected : {503, 503, 200, 200}) {
        wire.get("/a/x");
        EXPECT_EQ(wire.read().status, expected);
    }
    // Until cleared; the longest faulted prefix wins; other paths are untouched.
    service().injectFault("/a", Fault{.count = -1, .status = 500});
    service().injectFault("/a/b", Fault{.count = -1, .status = 429});
    for (int i = 0; i < 3; ++i) {
        wire.get("/a/b");
        EXPECT_EQ(wire.read().status, 429);
        wire.get("/a");
        EXPECT_EQ(wire.read().status, 500);
        wire.get("/body");
        EXPECT_EQ(wire.read().status, 200);
    }
    service().clearFaults();
    wire.get("/a");
    EXPECT_EQ(wire.read().status, 200);
    EXPECT_EQ(service().requests("/a").size(), 11u) << "faulted requests are recorded too";
}

TEST_F(EmbeddedServiceTest, DropTruncateAndMalformedFaultsSpoilOneAnswerEach) {
    // A drop closes without an answer, and the request is still recorded.
    service().injectFault("/body", Fault{.count = 1, .dropConnection = true});
    Wire dropped = connect();
    dropped.get("/body");
    EXPECT_TRUE(dropped.closedByPeer());
    EXPECT_EQ(service().requests("/body").size(), 1u);

    // A truncated body promises the full length, then closes.
    service().injectFault("/body", Fault{.count = 1, .truncateBody = true});
    Wire cut = connect();
    cut.get("/body");
    auto reply = cut.read();
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.headers["content-length"], "10");
    EXPECT_FALSE(reply.complete);
    EXPECT_EQ(reply.body, "01234");
    EXPECT_TRUE(cut.closedByPeer());

    // A malformed body replaces the answer but keeps its type; the next answer is whole.
    service().injectFault("/a/b", Fault{.count = 1, .malformedBody = true});
    Wire wire = connect();
    wire.get("/a/b");
    reply = wire.read();
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.headers["content-type"], "application/json; charset=utf-8");
    EXPECT_NE(reply.body, "{\"b\":true}");
    EXPECT_FALSE(reply.body.starts_with("{"));
    EXPECT_FALSE(reply.body.starts_with("\x89PNG"));
    wire.get("/a/b");
    EXPECT_EQ(wire.read().body, "{\"b\":true}");
}

TEST_F(EmbeddedServiceTest, ServesTheTermsPageInThaiAndEnglish) {
    Wire wire = connect();
    wire.get("/terms");
    auto reply = wire.read();
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.headers["content-type"], "text/html; charset=utf-8");
    EXPECT_NE(reply.body.find("Terms of Use"), std::string::npos);
    EXPECT_NE(reply.body.find("ข้อกำหนดการใช้งาน"), std::string::npos);
}

TEST_F(EmbeddedServiceTest, RecordsEveryRequestFromManyClientsAtOnce) {
    constexpr int kClients = 8;
    constexpr int kEach = 25;
    std::vector<std::thread> clients;
    std::atomic<int> ok{0};
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            Wire wire = connect();
            for (int i = 0; i < kEach; ++i) {
                wire.get("/a?c=" + std::to_string(c) + "&i=" + std::to_string(i));
                if (wire.read().body == "a") {
                    ++ok;
                }
            }
        });
    }
    for (auto& t : clients) {
        t.join();
    }
    EXPECT_EQ(ok, kClients * kEach);
    auto seen = service().requests("/a");
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(kClients * kEach));
    std::set<std::string> distinct;
    for (const auto& r : seen) {
        distinct.insert(r.query);
    }
    EXPECT_EQ(distinct.size(), seen.size());
}

TEST(EmbeddedService, NamesItsOriginAndReportsAPortItCannotBind) {
    EmbeddedService first;
    EXPECT_EQ(first.origin(), "http://127.0.0.1:" + std::to_string(first.port()));
    try {
        EmbeddedService second(first.port());
        FAIL() << "bound a port in use";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("cannot listen on 127.0.0.1:", 0), 0u) << e.what();
    }
}

TEST(HttpMessage, ParsesRequestHeadsAndTheirBoundaries) {
    using http::ParseOutcome;
    EXPECT_EQ(http::parseRequestHead("").kind, ParseOutcome::Kind::Incomplete);
    EXPECT_EQ(http::parseRequestHead("GET / HTTP/1.1\r\nHost: x\r\n").kind,
              ParseOutcome::Kind::Incomplete);

    auto lf = http::parseRequestHead("GET /p?q HTTP/1.0\nHost: x\n\nrest");
    ASSERT_EQ(lf.kind, ParseOutcome::Kind::Complete);
    EXPECT_EQ(lf.parsed.headBytes, 27u);
    EXPECT_FALSE(lf.parsed.keepAlive) << "HTTP/1.0 closes unless asked";
    EXPECT_EQ(lf.parsed.request.query, "q");

    auto absolute = http::parseRequestHead(
        "GET http://127.0.0.1:80/x%2Fy?z=1 HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n");
    ASSERT_EQ(absolute.kind, ParseOutcome::Kind::Complete);
    EXPECT_EQ(absolute.parsed.request.target, "/x%2Fy?z=1");
    EXPECT_EQ(absolute.parsed.request.path, "/x/y");
    EXPECT_TRUE(absolute.parsed.keepAlive);

    auto repeated = http::parseRequestHead("GET / HTTP/1.1\r\nA: 1\r\na: 2\r\n\r\n");
    EXPECT_EQ(repeated.parsed.request.headers.at("a"), "1, 2");
    auto empty = http::parseRequestHead("GET / HTTP/1.1\r\nX-Empty:\r\n\r\n");
    EXPECT_EQ(empty.parsed.request.headers.at("x-empty"), "");

    auto big = http::parseRequestHead("GET / HTTP/1.1\r\nContent-Length: 99999999\r\n\r\n");
    EXPECT_EQ(big.kind, ParseOutcome::Kind::Invalid);
    EXPECT_EQ(big.status, 413);
    auto spaces = http::parseRequestHead("GET /a b HTTP/1.1\r\n\r\n");
    EXPECT_EQ(spaces.status, 400);
}

TEST(HttpMessage, ResponseHeadCarriesLengthTypeAndExtraHeaders) {
    Response r = Response::png("\x89PNG");
    r.headers.emplace_back("Cache-Control", "max-age=60");
    EXPECT_EQ(http::responseHead(r, true),
              "HTTP/1.1 200 OK\r\nContent-Type: image/png\r\nContent-Length: 4\r\n"
              "Connection: keep-alive\r\nCache-Control: max-age=60\r\n\r\n");
    EXPECT_EQ(http::responseHead(Response::text(599, ""), false).substr(0, 22),
              "HTTP/1.1 599 Unknown\r\n");
}

}  // namespace
}  // namespace sorvan::server
