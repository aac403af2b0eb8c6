#include "sorvan/platform/foundation/url_session.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "support/raw_http_server.hpp"
#include "support/service_harness.hpp"

namespace sorvan::net {
namespace {

using server::Fault;
using server::Request;
using server::Response;
using sorvan::testing::closedPort;
using sorvan::testing::fetch;
using sorvan::testing::FetchResult;

class URLSessionTest : public sorvan::testing::ServiceTest {
  protected:
    static void SetUpTestSuite() {
        ServiceTest::SetUpTestSuite();
        // The cache's disk layer goes to a scratch directory, never the user's.
        home_ = std::filesystem::temp_directory_path() /
                ("sorvan-session-test-" + std::to_string(::getpid()));
        std::filesystem::create_directories(home_);
        ::setenv("SORVAN_HOME", home_.c_str(), 1);
        service().route("/echo", [](const Request& r) {
            return Response::json("{\"path\":\"" + r.path + "\",\"query\":\"" + r.query + "\"}");
        });
        service().route("/status/", [](const Request& r) {
            int status = std::atoi(r.path.substr(8).c_str());
            return Response::text(status, "status " + std::to_string(status));
        });
        service().route("/redirect", [](const Request&) {
            Response r = Response::text(302, "moved");
            r.headers.emplace_back("Location", "/echo?from=redirect");
            return r;
        });
        service().route("/id", [](const Request& r) {
            // Slow enough that many requests overlap.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            return Response::text(200, r.queryItem("n").value_or("?"));
        });
    }
    static void TearDownTestSuite() {
        URLCache::shared().removeAllCachedResponses();
        ::unsetenv("SORVAN_HOME");
        std::error_code ec;
        std::filesystem::remove_all(home_, ec);
        ServiceTest::TearDownTestSuite();
    }
    void SetUp() override {
        ServiceTest::SetUp();
        URLCache::shared().removeAllCachedResponses();
    }

    static inline std::filesystem::path home_;
};

// A data task and the blocking fetch follow the same rules; most tests run both.
FetchResult run(bool viaTask, const URLRequest& request) {
    return viaTask ? fetch(URLSession::shared(), request, 10)
                   : sorvan::testing::fetchBlocking(URLSession::shared(), request);
}
const char* way(bool viaTask) {
    return viaTask ? "data task" : "blocking fetch";
}

TEST_F(URLSessionTest, DeliversBodyResponseAndTheRequestHeadersAsSet) {
    for (bool viaTask : {true, false}) {
        SCOPED_TRACE(way(viaTask));
        service().clearRequests();
        URLRequest request(url("/echo/a%20b?x=1&y=%E0%B8%81"));
        request.setValue("sorvan://com.example.maps", "Referer");
        request.setValue("sorvan://replaced", "referer");  // same header, any case: replaced
        EXPECT_EQ(request.allHeaderFields().size(), 1u);
        FetchResult r = run(viaTask, request);
        ASSERT_TRUE(r.completed);
        EXPECT_FALSE(r.error);
        EXPECT_TRUE(r.ranOnDelegateQueue);
        EXPECT_EQ(r.completions, 1);
        EXPECT_EQ(r.status(), 200);
        EXPECT_EQ(r.body(), "{\"path\":\"/echo/a b\",\"query\":\"x=1&y=%E0%B8%81\"}");
        ASSERT_TRUE(r.response);
        EXPECT_EQ(r.response->url.absoluteString(), origin() + "/echo/a%20b?x=1&y=%E0%B8%81");
        EXPECT_EQ(r.response->headers.at("content-type"), "application/json; charset=utf-8");
        EXPECT_EQ(r.response->headers.at("content-length"), std::to_string(r.body().size()));

        auto seen = service().requests("/echo");
        ASSERT_EQ(seen.size(), 1u);
        const auto& headers = seen[0].headers;
        EXPECT_EQ(headers.at("referer"), "sorvan://replaced");
        EXPECT_EQ(headers.at("user-agent"), "SorvanMapSDK/3.13");
        EXPECT_EQ(headers.at("host"), "127.0.0.1:" + std::to_string(service().port()));
        EXPECT_EQ(seen[0].method, "GET");
        std::set<std::string> names;
        for (const auto& [name, value] : headers) {
            names.insert(name);
        }
        EXPECT_EQ(names, (std::set<std::string>{"accept", "host", "referer", "user-agent"}));
    }
}

TEST_F(URLSessionTest, ARequestsOwnHeadersNeverCarryOverToTheNext) {
    // Transfers reuse curl handles (the blocking fetch one per thread): nothing of a request,
    // nor of one that failed, carries over to the next.
    for (bool viaTask : {true, false}) {
        SCOPED_TRACE(way(viaTask));
        service().clearRequests();
        URLRequest request(url("/echo"));
        request.setValue("TileFetcher/1.0", "User-Agent");
        request.setValue("", "X-Empty");
        ASSERT_FALSE(run(viaTask, request).error);
        service().injectFault("/echo", Fault{.count = 1, .truncateBody = true});
        EXPECT_TRUE(run(viaTask, request).error);
        URLRequest plain(url("/echo?plain"));
        plain.setTimeoutInterval(std::chrono::duration<double>(30));
        for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(run(viaTask, plain).status(), 200);
        }
        auto seen = service().requests("/echo");
        ASSERT_EQ(seen.size(), 5u);
        EXPECT_EQ(seen[0].headers.at("user-agent"), "TileFetcher/1.0");
        EXPECT_EQ(seen[0].headers.at("x-empty"), "");
        for (std::size_t i = 2; i < seen.size(); ++i) {
            EXPECT_EQ(seen[i].query, "plain");
            EXPECT_EQ(seen[i].headers.at("user-agent"), "SorvanMapSDK/3.13");
            EXPECT_EQ(seen[i].headers.count("x-empty"), 0u);
        }
    }
}

TEST_F(URLSessionTest, StatusesAreAnswersRedirectsAreFollowedTransportFailuresAreErrors) {
    const auto refused = URL::fromString("http://127.0.0.1:" + std::to_string(closedPort()) + "/x");
    for (bool viaTask : {true, false}) {
        SCOPED_TRACE(way(viaTask));
        for (int status : {204, 404, 500, 503}) {
            FetchResult r = run(viaTask, URLRequest(url("/status/" + std::to_string(status))));
            EXPECT_FALSE(r.error) << status;
            EXPECT_EQ(r.status(), status);
            ASSERT_TRUE(r.data);
        }
        EXPECT_EQ(run(viaTask, URLRequest(url("/no/such/route"))).status(), 404);
        EXPECT_FALSE(URLCache::shared().cachedData(url("/status/404")));

        FetchResult moved = run(viaTask, URLRequest(url("/redirect")));
        ASSERT_FALSE(moved.error);
        EXPECT_EQ(moved.status(), 200);
        EXPECT_EQ(moved.response->url.absoluteString(), origin() + "/echo?from=redirect");
        EXPECT_EQ(moved.body(), "{\"path\":\"/echo\",\"query\":\"from=redirect\"}");

        FetchResult r = run(viaTask, URLRequest(*refused));
        ASSERT_TRUE(r.error);
        EXPECT_EQ(r.error->code, Error::Code::CannotConnect);
        EXPECT_EQ(r.error->localizedDescription, "Could not connect to the server.");
        EXPECT_FALSE(r.error->detail.empty());
        EXPECT_FALSE(r.data);
        EXPECT_FALSE(r.response);
        EXPECT_TRUE(r.ranOnDelegateQueue);

        FetchResult scheme = run(viaTask, URLRequest(*URL::fromString("sorvan://com.example/x")));
        ASSERT_TRUE(scheme.error);
        EXPECT_EQ(scheme.error->code, Error::Code::BadURL);
        EXPECT_EQ(scheme.error->localizedDescription, "unsupported URL");
        FetchResult relative = run(viaTask, URLRequest(*URL::fromString("tiles/1/2/3.png")));
        ASSERT_TRUE(relative.error);
        EXPECT_EQ(relative.error->code, Error::Code::BadURL);

        service().injectFault("/echo", Fault{.count = 1, .truncateBody = true});
        FetchResult truncated = run(viaTask, URLRequest(url("/echo")));
        ASSERT_TRUE(truncated.error);
        EXPECT_EQ(truncated.error->code, Error::Code::ConnectionLost);
        EXPECT_FALSE(truncated.data);

        service().injectFault("/echo", Fault{.count = 1, .delaySeconds = 3});
        URLRequest slow(url("/echo?slow"));
        slow.setTimeoutInterval(std::chrono::duration<double>(0.3));
        FetchResult silent = run(viaTask, slow);
        ASSERT_TRUE(silent.error);
        EXPECT_EQ(silent.error->code, Error::Code::TimedOut);
        EXPECT_EQ(silent.error->localizedDescription, "The request timed out. (idle for 0.3 s)");
    }

    URLSessionConfiguration config;
    config.timeoutIntervalForRequest = std::chrono::duration<double>(0.3);
    service().injectFault("/echo", Fault{.count = 1, .delaySeconds = 3});
    FetchResult viaConfig = fetch(*URLSession::create(config), URLRequest(url("/echo")));
    ASSERT_TRUE(viaConfig.error);
    EXPECT_EQ(viaConfig.error->code, Error::Code::TimedOut);
}

TEST_F(URLSessionTest, LimitsEndTransfersThatKeepReceivingAndSayWhichLimit) {
    using sorvan::testing::RawHTTPServer;
    constexpr std::size_t kLimit = 1024 * 1024;
    auto head = [](const std::string& fields) { return "HTTP/1.1 200 OK\r\n" + fields + "\r\n"; };
    // A byte every 50 ms never leaves the transfer idle for 0.5 s; the deadline ends it.
    RawHTTPServer trickle([&](RawHTTPServer::Connection& c) {
        c.send(head("Content-Length: 100000\r\n"));
        while (c.send("x") && c.sleep(0.05)) {
        }
    });
    // A body without a length that goes on far beyond the limit (ended after 8 MiB, so that
    // a client without the limit finishes with all of it).
    RawHTTPServer endless([&](RawHTTPServer::Connection& c) {
        c.send(head("Connection: close\r\n"));
        const std::string chunk(64 * 1024, 'z');
        for (int i = 0; i < 128 && c.send(chunk); ++i) {
        }
    });
    // A length beyond the limit, announced and then never sent.
    RawHTTPServer announced([&](RawHTTPServer::Connection& c) {
        c.send(head("Content-Length: 5000000000\r\n") + "abc");
        c.sleep(20);
    });
    RawHTTPServer exact([&](RawHTTPServer::Connection& c) {
        c.send(head("Content-Length: " + std::to_string(kLimit) + "\r\n") +
               std::string(kLimit, 'e'));
    });
    auto request = [&](const URL& address) {
        URLRequest r(address);
        r.setTimeoutInterval(std::chrono::duration<double>(0.5));
        r.setDeadlineInterval(std::chrono::duration<double>(1.5));
        r.setMaximumBodySize(kLimit);
        return r;
    };
    const std::string deadline = "The request timed out. (request deadline of 1.5 s passed)";
    const std::string tooLarge = "The response is too large. (body larger than 1048576 bytes)";
    for (bool viaTask : {true, false}) {
        FetchResult slow = run(viaTask, request(trickle.url("/trickle")));
        ASSERT_TRUE(slow.error) << "a trickled body outlived its deadline";
        EXPECT_EQ(slow.error->code, Error::Code::TimedOut);
        EXPECT_EQ(slow.error->localizedDescription, deadline);
        EXPECT_FALSE(slow.data);

        for (auto* server : {&endless, &announced}) {
            FetchResult big = run(viaTask, request(server->url("/big")));
            ASSERT_TRUE(big.error) << "a body beyond the limit was taken";
            EXPECT_EQ(big.error->code, Error::Code::DataLengthExceedsMaximum);
            EXPECT_EQ(big.error->localizedDescription, tooLarge);
            EXPECT_FALSE(big.data);
        }
        FetchResult whole = run(viaTask, request(exact.url("/exact")));
        EXPECT_FALSE(whole.error);
        EXPECT_EQ(whole.body().size(), kLimit);
    }

    // A session's own deadline applies to every request it runs, when shorter.
    URLSessionConfiguration config;
    config.timeoutIntervalForResource = std::chrono::duration<double>(0.4);
    FetchResult viaConfig = fetch(*URLSession::create(config), URLRequest(trickle.url("/t")), 10);
    ASSERT_TRUE(viaConfig.error);
    EXPECT_EQ(viaConfig.error->localizedDescription,
              "The request timed out. (request deadline of 0.4 s passed)");
}

TEST_F(URLSessionTest, InjectedFaultsReachTheClientAsTheirKind) {
    // A status for the next two requests, then the route's own answer.
    service().injectFault("/echo", Fault{.count = 2, .status = 503});
    EXPECT_EQ(fetch(url("/echo")).status(), 503);
    EXPECT_EQ(fetch(url("/echo")).status(), 503);
    EXPECT_EQ(fetch(url("/echo")).status(), 200);

    // The transport may retry a request whose reused connection closed at once, so the drop
    // stays until cleared.
    service().injectFault("/echo", Fault{.count = -1, .dropConnection = true});
    FetchResult dropped = fetch(url("/echo"));
    service().clearFaults();
    ASSERT_TRUE(dropped.error);
    EXPECT_EQ(dropped.error->code, Error::Code::ConnectionLost);
    EXPECT_EQ(dropped.error->localizedDescription, "The network connection was lost.");

    service().injectFault("/echo", Fault{.count = 1, .malformedBody = true});
    FetchResult malformed = fetch(url("/echo"));
    EXPECT_FALSE(malformed.error);
    EXPECT_EQ(malformed.status(), 200);
    EXPECT_TRUE(malformed.body().starts_with("\xff\xfe"));

    EXPECT_EQ(fetch(url("/echo")).status(), 200);
}

TEST_F(URLSessionTest, ReturnCacheDataElseLoadAnswersFromTheCacheWithoutTheNetwork) {
    URL address = url("/echo?cached=1");
    FetchResult first = fetch(address);  // the default policy loads and stores
    ASSERT_EQ(first.status(), 200);
    EXPECT_EQ(service().requests("/echo").size(), 1u);
    EXPECT_TRUE(URLCache::shared().cachedData(address).has_value());

    FetchResult again = fetch(address);  // ... and always loads
    EXPECT_EQ(service().requests("/echo").size(), 2u);

    URLRequest request(address);
    request.setCachePolicy(CachePolicy::ReturnCacheDataElseLoad);
    FetchResult cached = fetch(URLSession::shared(), request);
    EXPECT_EQ(service().requests("/echo").size(), 2u) << "no request reaches the server";
    EXPECT_FALSE(cached.error);
    EXPECT_EQ(cached.status(), 200);
    EXPECT_EQ(cached.body(), first.body());
    EXPECT_TRUE(cached.ranOnDelegateQueue);
    EXPECT_EQ(cached.response->headers.at("content-type"), "application/json; charset=utf-8");

    // A session whose configuration carries the policy applies it to plain requests.
    URLSessionConfiguration config = URLSessionConfiguration::defaultConfiguration();
    config.requestCachePolicy = CachePolicy::ReturnCacheDataElseLoad;
    auto iconSession = URLSession::create(config);
    FetchResult viaConfig = fetch(*iconSession, URLRequest(address));
    EXPECT_EQ(viaConfig.body(), first.body());
    EXPECT_TRUE(viaConfig.ranOnDelegateQueue);
    EXPECT_EQ(service().requests("/echo").size(), 2u);

    // Emptied: the same request goes to the network again, and is cached again.
    URLCache::shared().removeAllCachedResponses();
    EXPECT_FALSE(URLCache::shared().cachedData(address).has_value());
    fetch(*iconSession, URLRequest(address));
    EXPECT_EQ(service().requests("/echo").size(), 3u);
    fetch(*iconSession, URLRequest(address));
    EXPECT_EQ(service().requests("/echo").size(), 3u);
}

TEST_F(URLSessionTest, OnlySuccessfulAnswersAreCached) {
    URLSessionConfiguration config;
    config.requestCachePolicy = CachePolicy::ReturnCacheDataElseLoad;
    auto session = URLSession::create(config);
    for (const char* path : {"/status/404", "/status/500", "/status/204"}) {
        fetch(*session, URLRequest(url(path)));
        fetch(*session, URLRequest(url(path)));
        EXPECT_EQ(service().requests(path).size(), 2u) << path;
    }
    service().injectFault("/echo", Fault{.count = 1, .truncateBody = true});
    fetch(*session, URLRequest(url("/echo")));
    EXPECT_FALSE(URLCache::shared().cachedData(url("/echo")).has_value());
}

TEST_F(URLSessionTest, ARequestThatForbidsStoringLeavesTheCacheAsItWas) {
    for (bool viaTask : {true, false}) {
        URLCache::shared().removeAllCachedResponses();
        URLRequest request(url(viaTask ? "/echo?task" : "/echo?blocking"));
        request.setAllowsStoringResponse(false);
        const auto answer = run(viaTask, request);
        ASSERT_TRUE(answer.data.has_value()) << way(viaTask);
        EXPECT_FALSE(URLCache::shared().cachedData(request.url()).has_value()) << way(viaTask);
        // The same request with storing allowed is kept as before.
        request.setAllowsStoringResponse(true);
        run(viaTask, request);
        EXPECT_TRUE(URLCache::shared().cachedData(request.url()).has_value()) << way(viaTask);
    }
}

TEST_F(URLSessionTest, CacheReadsBackFromDiskAndIgnoresDamagedFiles) {
    URL address = url("/echo?disk=1");
    FetchResult loaded = fetch(address);
    URLCache::shared().flush();
    auto dir = std::filesystem::path(URLCache::shared().diskPath());
    EXPECT_EQ(dir, home_ / "caches" / "URLCache");
    std::vector<std::filesystem::path> files;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        files.push_back(e.path());
    }
    ASSERT_EQ(files.size(), 1u);

    // Without the memory layer the answer comes from the file, headers and all.
    URLCache::shared().setMemoryCapacity(0);
    auto fromDisk = URLCache::shared().cachedResponse(address);
    ASSERT_TRUE(fromDisk);
    EXPECT_EQ(std::string(fromDisk->data.begin(), fromDisk->data.end()), loaded.body());
    EXPECT_EQ(fromDisk->response.statusCode, 200);
    EXPECT_EQ(fromDisk->response.headers, loaded.response->headers);

    URLCache::shared().setMemoryCapacity(4 * 1024 * 1024);

    URLCache::shared().removeAllCachedResponses();
    EXPECT_FALSE(std::filesystem::exists(files[0]));
}

// Answers carrying the headers their query names: ?cc=Cache-Control, ?vary=, ?age=,
// ?expires=, and validators ?etag= / ?lastmod= that turn a matching question into a 304.
Response withHeaders(const Request& r) {
    auto item = [&](const char* name) { return r.queryItem(name); };
    auto asked = [&](const char* name) {
        auto it = r.headers.find(name);
        return it == r.headers.end() ? std::optional<std::string>() : it->second;
    };
    std::optional<std::string> etag = item("etag");
    std::optional<std::string> lastmod = item("lastmod");
    bool same = (etag && asked("if-none-match") == "\"" + *etag + "\"") ||
                (lastmod && asked("if-modified-since") == *lastmod);
    Response out =
        same ? Response{304, "text/plain", "", {}} : Response::text(200, "body of " + r.target);
    out.headers.emplace_back("X-Answer", same ? "not modified" : "full");
    for (auto [query, name] :
         {std::pair{"cc", "Cache-Control"}, std::pair{"vary", "Vary"}, std::pair{"age", "Age"},
          std::pair{"expires", "Expires"}, std::pair{"lastmod", "Last-Modified"}}) {
        if (auto v = item(query)) {
            out.headers.emplace_back(name, *v);
        }
    }
    if (etag) {
        out.headers.emplace_back("ETag", "\"" + *etag + "\"");
    }
    return out;
}

std::string httpDate(std::chrono::system_clock::time_point t) {
    std::time_t time = std::chrono::system_clock::to_time_t(t);
    std::tm tm{};
    ::gmtime_r(&time, &tm);
    char text[64];
    std::strftime(text, sizeof text, "%a,%%20%d%%20%b%%20%Y%%20%H:%M:%S%%20GMT", &tm);
    return text;  // as a query value: the route decodes it
}

TEST_F(URLSessionTest, TheCacheKeepsOnlyWhatHTTPAllowsAndNoDamagedFile) {
    service().route("/h", withHeaders);
    URLSessionConfiguration config;
    config.requestCachePolicy = CachePolicy::ReturnCacheDataElseLoad;
    auto session = URLSession::create(config);
    struct Case {
        std::string query;
        bool kept;
    } cases[] = {
        {"?cc=no-store", false},
        {"?cc=max-age%3D60,%20No-Store", false},
        {"?vary=*", false},
        {"?vary=Accept-Encoding", true},
        {"?cc=private,%20max-age%3D0", true},
        {"?cc=no-cache", true},  // kept, but asked about before each use by the protocol
        {"", true},
    };
    for (const auto& c : cases) {
        service().clearRequests();
        fetch(*session, URLRequest(url("/h" + c.query)));
        FetchResult again = fetch(*session, URLRequest(url("/h" + c.query)));
        EXPECT_EQ(again.status(), 200);
        EXPECT_EQ(service().requests("/h").size(), c.kept ? 1u : 2u) << c.query;
        EXPECT_EQ(URLCache::shared().cachedData(url("/h" + c.query)).has_value(), c.kept);
    }

    // A file cut short, or a flipped bit anywhere in it, body or head, makes it a miss; the
    // file goes and the next load asks the server and stores a whole one (the same answer the
    // cache knows it wrote unchanged before).
    URLCache::shared().setMemoryCapacity(0);
    URL address = url("/h?flip=1");
    const std::string body = fetch(address).body();
    URLCache::shared().flush();
    std::filesystem::path file;
    for (const auto& e : std::filesystem::directory_iterator(URLCache::shared().diskPath())) {
        if (std::filesystem::file_size(e.path()) > 0) {
            std::ifstream in(e.path(), std::ios::binary);
            std::string text((std::istreambuf_iterator<char>(in)), {});
            if (text.find("flip=1") != std::string::npos) {
                file = e.path();
            }
        }
    }
    ASSERT_FALSE(file.empty());
    const auto size = std::filesystem::file_size(file);
    std::string whole;
    {
        std::ifstream in(file, std::ios::binary);
        whole.assign((std::istreambuf_iterator<char>(in)), {});
    }
    for (std::size_t at : {size - 1, whole.find("x-answer") + 1, std::string::npos}) {
        std::string damaged = whole;
        if (at == std::string::npos) {
            damaged.resize(size - 3);
        } else {
            damaged[at] ^= 0x04;
        }
        std::ofstream(file, std::ios::binary | std::ios::trunc) << damaged;
        EXPECT_FALSE(URLCache::shared().cachedData(address)) << "damaged at " << at;
        EXPECT_FALSE(std::filesystem::exists(file));
        service().clearRequests();
        FetchResult reloaded = fetch(*session, URLRequest(address));
        EXPECT_EQ(reloaded.body(), body);
        EXPECT_EQ(service().requests("/h").size(), 1u);
        URLCache::shared().flush();
        EXPECT_EQ(std::filesystem::file_size(file), size);
        ASSERT_TRUE(URLCache::shared().cachedData(address));
    }

    // With no capacity at all nothing is read or kept, not even what is already on disk.
    URLCache::shared().setDiskCapacity(0);
    EXPECT_FALSE(URLCache::shared().cachedData(address));
    service().clearRequests();
    fetch(*session, URLRequest(address));
    fetch(*session, URLRequest(url("/h?new=1")));
    fetch(*session, URLRequest(url("/h?new=1")));
    EXPECT_EQ(service().requests("/h").size(), 3u);
    URLCache::shared().setDiskCapacity(64 * 1024 * 1024);
    URLCache::shared().setMemoryCapacity(4 * 1024 * 1024);
    EXPECT_FALSE(URLCache::shared().cachedData(url("/h?new=1")));
}

TEST_F(URLSessionTest, TheProtocolPolicyFollowsFreshnessAndRevalidates) {
    service().route("/h", withHeaders);
    auto now = std::chrono::system_clock::now();
    auto twice = [&](const std::string& query) {
        service().clearRequests();
        fetch(url("/h" + query));
        FetchResult second = fetch(url("/h" + query));
        EXPECT_EQ(second.status(), 200) << query;
        EXPECT_EQ(second.body(), "body of /h" + query);
        return std::make_pair(service().requests("/h"), second);
    };
    // Fresh by max-age or Expires: answered from the cache. Stale, or without freshness:
    // asked again.
    struct Case {
        std::string query;
        std::size_t requests;
    } cases[] = {
        {"?cc=max-age%3D100", 1},
        {"?cc=max-age%3D100&age=150", 2},
        {"?cc=s-maxage%3D100", 2},
        {"?expires=" + httpDate(now + std::chrono::hours(1)), 1},
        {"?expires=" + httpDate(now - std::chrono::hours(1)), 2},
        {"?expires=0", 2},
        {"?cc=max-age%3D100,no-cache", 2},
        {"", 2},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(twice(c.query).first.size(), c.requests) << c.query;
    }

    // Stale with validators: the server is asked with them, and its 304 completes as the
    // stored answer, with the 304's headers.
    const std::vector<std::string> validated = {
        "?etag=v1", "?lastmod=" + httpDate(now - std::chrono::hours(2)), "?etag=v2&cc=no-cache"};
    for (const std::string& query : validated) {
        auto [requests, second] = twice(query);
        ASSERT_EQ(requests.size(), 2u) << query;
        EXPECT_EQ(requests[0].headers.count("if-none-match") +
                      requests[0].headers.count("if-modified-since"),
                  0u);
        EXPECT_EQ(requests[1].headers.count("if-none-match") +
                      requests[1].headers.count("if-modified-since"),
                  1u)
            << query;
        EXPECT_EQ(second.response->headers.at("x-answer"), "not modified");
        EXPECT_EQ(second.response->headers.at("content-type"), "text/plain; charset=utf-8");
    }

    // The tile loader's policy keeps its meaning: a stored answer, however stale.
    fetch(url("/h?cc=max-age%3D0"));
    URLRequest request(url("/h?cc=max-age%3D0"));
    request.setCachePolicy(CachePolicy::ReturnCacheDataElseLoad);
    service().clearRequests();
    EXPECT_EQ(fetch(URLSession::shared(), request).status(), 200);
    EXPECT_TRUE(service().requests("/h").empty());
}

TEST_F(URLSessionTest, StoredAnswersAreFoundWhileTheirFilesAreWrittenAndRemovalDropsThem) {
    constexpr int kCount = 40;
    auto address = [&](int n) { return url("/stored?n=" + std::to_string(n)); };
    auto body = [](const std::string& text) { return Data(text.begin(), text.end()); };
    auto cachedText = [](const URL& u) -> std::optional<std::string> {
        auto data = URLCache::shared().cachedData(u);
        return data ? std::optional<std::string>(std::string(data->begin(), data->end()))
                    : std::nullopt;
    };
    auto fileCount = [] {
        std::error_code ec;
        auto it = std::filesystem::directory_iterator(URLCache::shared().diskPath(), ec);
        return ec ? 0 : std::distance(it, std::filesystem::directory_iterator());
    };
    // Without the memory layer an answer is found at once, written or not.
    URLCache::shared().setMemoryCapacity(0);
    for (int n = 0; n < kCount; ++n) {
        URLCache::shared().store(address(n), {address(n), 200, {{"x-n", std::to_string(n)}}},
                                 body("body " + std::to_string(n)));
        EXPECT_EQ(cachedText(address(n)), "body " + std::to_string(n));
    }
    URLCache::shared().store(address(0), {address(0), 200, {}}, body("newer"));
    URLCache::shared().flush();
    EXPECT_EQ(fileCount(), kCount);
    EXPECT_EQ(cachedText(address(0)), "newer") << "the later answer wins on disk too";
    for (int n = 1; n < kCount; ++n) {
        auto cached = URLCache::shared().cachedResponse(address(n));
        ASSERT_TRUE(cached) << n;
        EXPECT_EQ(cached->response.headers.at("x-n"), std::to_string(n));
    }

    // Writes still waiting when everything is removed never land afterwards.
    for (int n = 0; n < kCount; ++n) {
        URLCache::shared().store(address(n), {address(n), 200, {}}, body("again"));
    }
    URLCache::shared().removeAllCachedResponses();
    URLCache::shared().flush();
    EXPECT_EQ(fileCount(), 0);
    EXPECT_FALSE(cachedText(address(kCount - 1)));
    URLCache::shared().setMemoryCapacity(4 * 1024 * 1024);
}

TEST_F(URLSessionTest, AnswersWrittenAfterAMissAreFoundOnDisk) {
    // A miss lists the disk directory; what is written afterwards, and what is written after
    // everything was removed, is still found there.
    URLCache::shared().setMemoryCapacity(0);
    URL first = url("/echo?listed=1");
    EXPECT_FALSE(URLCache::shared().cachedData(first));
    ASSERT_EQ(fetch(first).status(), 200);
    URLCache::shared().flush();
    EXPECT_TRUE(URLCache::shared().cachedData(first));

    URLCache::shared().removeAllCachedResponses();
    EXPECT_FALSE(URLCache::shared().cachedData(first));
    URL second = url("/echo?listed=2");
    EXPECT_FALSE(URLCache::shared().cachedData(second));
    ASSERT_EQ(fetch(second).status(), 200);
    URLCache::shared().flush();
    EXPECT_TRUE(URLCache::shared().cachedData(second));
    EXPECT_FALSE(URLCache::shared().cachedData(first));
    URLCache::shared().setMemoryCapacity(4 * 1024 * 1024);
}

TEST_F(URLSessionTest, StoredAnswersReachTheDiskOnTheirOwn) {
    URL address = url("/echo?unflushed=1");
    ASSERT_EQ(fetch(address).status(), 200);
    auto file = [] {
        std::error_code ec;
        std::filesystem::directory_iterator it(URLCache::shared().diskPath(), ec);
        return !ec && it != std::filesystem::directory_iterator();
    };
    for (int i = 0; i < 1000 && !file(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(file()) << "nothing written without a flush";
}

TEST_F(URLSessionTest, TemporaryFilesOfAKilledWriterGoOnTheNextStart) {
    // A directory this process has not used yet, as a new start finds it: a writer killed
    // between writing and renaming left its temporary file, an older version left one named
    // without a writer, and a live process (the one running this test) is writing one now.
    const auto home = home_ / "restart";
    ::setenv("SORVAN_HOME", home.c_str(), 1);
    const std::filesystem::path dir = URLCache::shared().diskPath();
    std::filesystem::create_directories(dir);
    pid_t dead = ::fork();
    if (dead == 0) {
        ::_exit(0);
    }
    ASSERT_GT(dead, 0);
    ::waitpid(dead, nullptr, 0);
    const pid_t parent = ::getppid();
    ASSERT_GT(parent, 1);
    const auto abandoned = dir / ("0123456789abcdef.response." + std::to_string(dead) + ".0.tmp");
    const auto unnamed = dir / "0123456789abcdef.response.tmp";
    const auto live = dir / ("fedcba9876543210.response." + std::to_string(parent) + ".3.tmp");
    for (const auto& file : {abandoned, unnamed, live}) {
        std::ofstream(file) << "half an answer";
    }

    URL address = url("/echo?restart=1");
    ASSERT_EQ(fetch(address).status(), 200);
    URLCache::shared().flush();
    std::set<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        names.insert(e.path().filename().string());
    }
    // The live writer's file stays, the answer's own file is written (no temporary of this
    // process is left), and the leftovers are gone.
    ASSERT_EQ(names.size(), 2u);
    EXPECT_TRUE(names.erase(live.filename().string()));
    EXPECT_TRUE(names.begin()->ends_with(".response")) << *names.begin();
    URLCache::shared().setMemoryCapacity(0);
    EXPECT_TRUE(URLCache::shared().cachedData(address));
    URLCache::shared().setMemoryCapacity(4 * 1024 * 1024);

    URLCache::shared().removeAllCachedResponses();
    ::setenv("SORVAN_HOME", home_.c_str(), 1);
}

TEST_F(URLSessionTest, CancelEndsATransferInFlightOnce) {
    service().injectFault("/echo", Fault{.count = 1, .delaySeconds = 5});
    std::atomic<int> completions{0};
    dispatch::Semaphore done;
    std::optional<Error> error;
    auto task =
        URLSession::shared().dataTask(url("/echo"), [&](const auto&, const auto&, const auto& e) {
            error = e;
            ++completions;
            done.signal();
        });
    EXPECT_GT(task->identifier(), 0u);
    task->cancel();
    ASSERT_TRUE(done.waitFor(dispatch::Duration(10)));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, Error::Code::Cancelled);
    EXPECT_EQ(error->localizedDescription, "cancelled");
    task->cancel();  // after the end: nothing
    URLSession::shared().delegateQueue().sync([] {});
    EXPECT_EQ(completions, 1);
}

TEST_F(URLSessionTest, ManyTransfersInFlightFromManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 16;
    auto session = URLSession::create(URLSessionConfiguration::defaultConfiguration());
    std::mutex m;
    std::map<int, std::string> bodies;
    std::atomic<int> wrongQueue{0};
    dispatch::Semaphore done;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                int n = t * kPerThread + i;
                session->dataTask(url("/id?n=" + std::to_string(n)),
                                  [&, n](const auto& data, const auto&, const auto& error) {
                                      if (!session->delegateQueue().isCurrent()) {
                                          ++wrongQueue;
                                      }
                                      std::lock_guard lock(m);
                                      bodies[n] = error ? "error: " + error->localizedDescription
                                                        : std::string(data->begin(), data->end());
                                      done.signal();
                                  });
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    for (int i = 0; i < kThreads * kPerThread; ++i) {
        ASSERT_TRUE(done.waitFor(dispatch::Duration(30))) << "completion " << i;
    }
    std::lock_guard lock(m);
    ASSERT_EQ(bodies.size(), static_cast<std::size_t>(kThreads * kPerThread));
    for (const auto& [n, body] : bodies) {
        EXPECT_EQ(body, std::to_string(n));
    }
    EXPECT_EQ(wrongQueue, 0);
}

TEST_F(URLSessionTest, ReusesConnectionsForSequentialRequests) {
    fetch(url("/echo"));  // warm: a connection to this service exists now
    auto before = service().acceptedConnections();
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(fetch(url("/echo")).status(), 200);
    }
    EXPECT_LE(service().acceptedConnections() - before, 1u);
}

TEST_F(URLSessionTest, ACompletionWaitsForTheTaskTheQueueIsRunning) {
    // The network thread may run a completion in the queue's place only while the queue is
    // idle: here the queue is busy, so the completion waits for the running task.
    auto session = URLSession::create(URLSessionConfiguration::defaultConfiguration());
    dispatch::Semaphore entered, release, done;
    std::atomic<bool> blockerOver{false};
    std::atomic<bool> sawBlockerOver{false};
    session->delegateQueue().async([&] {
        entered.signal();
        release.wait();
        blockerOver = true;
    });
    entered.wait();
    session->dataTask(url("/echo"), [&](const auto&, const auto&, const auto&) {
        sawBlockerOver = blockerOver.load();
        done.signal();
    });
    for (int i = 0; i < 1000 && service().requests("/echo").empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // the answer is in by now
    release.signal();
    ASSERT_TRUE(done.waitFor(dispatch::Duration(10)));
    EXPECT_TRUE(sawBlockerOver);
}

TEST_F(URLSessionTest, ABlockingFetchSharesTheCacheWithDataTasks) {
    // Its 200 answer is in the cache for a data task that asks the cache first, and a blocking
    // fetch that asks the cache first is answered from it without the network.
    FetchResult r = run(false, URLRequest(url("/echo/a%20b?x=1")));
    ASSERT_EQ(r.status(), 200);
    URLRequest cacheFirst(url("/echo/a%20b?x=1"));
    cacheFirst.setCachePolicy(CachePolicy::ReturnCacheDataElseLoad);
    EXPECT_EQ(fetch(URLSession::shared(), cacheFirst).body(), r.body());
    EXPECT_EQ(run(false, cacheFirst).data, r.data);
    EXPECT_EQ(service().requests("/echo").size(), 1u) << "no request reaches the server";
}

TEST_F(URLSessionTest, BlockingFetchesKeepAConnectionPerThreadAndWorkFromACompletion) {
    URLSession::shared().sendSynchronousRequest(URLRequest(url("/echo")));
    auto before = service().acceptedConnections();
    for (int i = 0; i < 10; ++i) {
        auto r = URLSession::shared().sendSynchronousRequest(URLRequest(url("/echo")));
        ASSERT_EQ(r.response->statusCode, 200);
    }
    EXPECT_EQ(service().acceptedConnections(), before);

    // The fetch needs neither the network thread nor the session's queue, so a completion may
    // make one.
    dispatch::Semaphore done;
    std::atomic<int> status{0};
    URLSession::shared().dataTask(url("/echo?outer"), [&](const auto&, const auto&, const auto&) {
        auto inner = URLSession::shared().sendSynchronousRequest(URLRequest(url("/echo?inner")));
        status = inner.response ? inner.response->statusCode : -1;
        done.signal();
    });
    ASSERT_TRUE(done.waitFor(dispatch::Duration(10)));
    EXPECT_EQ(status, 200);
}

TEST_F(URLSessionTest, ADroppedSessionStillCompletesItsTransfers) {
    service().injectFault("/echo", Fault{.count = 1, .delaySeconds = 0.1});
    dispatch::Semaphore done;
    std::atomic<int> status{0};
    {
        auto session = URLSession::create(URLSessionConfiguration::defaultConfiguration());
        session->dataTask(url("/echo"), [&](const auto&, const auto& response, const auto&) {
            status = response ? response->statusCode : -1;
            done.signal();
        });
    }
    ASSERT_TRUE(done.waitFor(dispatch::Duration(10)));
    EXPECT_EQ(status, 200);
}

}  // namespace
}  // namespace sorvan::net
