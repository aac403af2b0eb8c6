#include "sorvan/platform/foundation/url_session.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <thread>

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

TEST_F(URLSessionTest, DeliversBodyAndResponseOnTheSessionQueue) {
    FetchResult r = fetch(url("/echo/a%20b?x=1&y=%E0%B8%81"));
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
}

TEST_F(URLSessionTest, SendsTheRequestHeadersAsSetAndNothingUnexpected) {
    URLRequest request(url("/echo"));
    request.setValue("sorvan://com.example.maps", "Referer");
    request.setValue("sorvan://replaced", "referer");  // same header, any case: replaced
    EXPECT_EQ(request.allHeaderFields().size(), 1u);
    FetchResult r = fetch(URLSession::shared(), request);
    ASSERT_FALSE(r.error);
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

TEST_F(URLSessionTest, ARequestsOwnUserAgentReplacesTheKits) {
    URLRequest request(url("/echo"));
    request.setValue("TileFetcher/1.0", "User-Agent");
    request.setValue("", "X-Empty");
    ASSERT_FALSE(fetch(URLSession::shared(), request).error);
    auto seen = service().requests("/echo");
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].headers.at("user-agent"), "TileFetcher/1.0");
    EXPECT_EQ(seen[0].headers.at("x-empty"), "");

    // Transfers reuse curl handles: nothing of this request, nor of one that failed, carries
    // over to the next.
    service().injectFault("/echo", Fault{.count = 1, .truncateBody = true});
    EXPECT_TRUE(fetch(URLSession::shared(), request).error);
    URLRequest plain(url("/echo?plain"));
    plain.setTimeoutInterval(std::chrono::duration<double>(30));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(fetch(URLSession::shared(), plain).status(), 200);
    }
    seen = service().requests("/echo");
    ASSERT_EQ(seen.size(), 5u);
    for (std::size_t i = 2; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].query, "plain");
        EXPECT_EQ(seen[i].headers.at("user-agent"), "SorvanMapSDK/3.13");
        EXPECT_EQ(seen[i].headers.count("x-empty"), 0u);
    }
}

TEST_F(URLSessionTest, HttpStatusCodesAreNotErrors) {
    for (int status : {204, 404, 500, 503}) {
        FetchResult r = fetch(url("/status/" + std::to_string(status)));
        EXPECT_FALSE(r.error) << status;
        EXPECT_EQ(r.status(), status);
        ASSERT_TRUE(r.data);
    }
    FetchResult missing = fetch(url("/no/such/route"));
    EXPECT_FALSE(missing.error);
    EXPECT_EQ(missing.status(), 404);
}

TEST_F(URLSessionTest, FollowsRedirectsAndReportsTheFinalURL) {
    FetchResult r = fetch(url("/redirect"));
    ASSERT_FALSE(r.error);
    EXPECT_EQ(r.status(), 200);
    EXPECT_EQ(r.response->url.absoluteString(), origin() + "/echo?from=redirect");
    EXPECT_EQ(r.body(), "{\"path\":\"/echo\",\"query\":\"from=redirect\"}");
}

TEST_F(URLSessionTest, TransportErrorsHaveReadableDescriptions) {
    auto refused = URL::fromString("http://127.0.0.1:" + std::to_string(closedPort()) + "/x");
    FetchResult r = fetch(*refused);
    ASSERT_TRUE(r.error);
    EXPECT_EQ(r.error->code, Error::Code::CannotConnect);
    EXPECT_EQ(r.error->localizedDescription, "Could not connect to the server.");
    EXPECT_FALSE(r.error->detail.empty());
    EXPECT_FALSE(r.data);
    EXPECT_FALSE(r.response);
    EXPECT_TRUE(r.ranOnDelegateQueue);

    FetchResult scheme = fetch(*URL::fromString("sorvan://com.example/x"));
    ASSERT_TRUE(scheme.error);
    EXPECT_EQ(scheme.error->code, Error::Code::BadURL);
    EXPECT_EQ(scheme.error->localizedDescription, "unsupported URL");

    FetchResult relative = fetch(*URL::fromString("tiles/1/2/3.png"));
    ASSERT_TRUE(relative.error);
    EXPECT_EQ(relative.error->code, Error::Code::BadURL);
}

TEST_F(URLSessionTest, SilentServerTimesOutAfterTheRequestTimeout) {
    service().injectFault("/echo", Fault{.count = 1, .delaySeconds = 3});
    URLRequest request(url("/echo"));
    request.setTimeoutInterval(std::chrono::duration<double>(0.3));
    FetchResult r = fetch(URLSession::shared(), request);
    ASSERT_TRUE(r.error);
    EXPECT_EQ(r.error->code, Error::Code::TimedOut);
    EXPECT_EQ(r.error->localizedDescription, "The request timed out.");

    URLSessionConfiguration config;
    config.timeoutIntervalForRequest = std::chrono::duration<double>(0.3);
    service().injectFault("/echo", Fault{.count = 1, .delaySeconds = 3});
    auto session = URLSession::create(config);
    FetchResult viaConfig = fetch(*session, URLRequest(url("/echo")));
    ASSERT_TRUE(viaConfig.error);
    EXPECT_EQ(viaConfig.error->code, Error::Code::TimedOut);
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

    service().injectFault("/echo", Fault{.count = 1, .truncateBody = true});
    FetchResult truncated = fetch(url("/echo"));
    ASSERT_TRUE(truncated.error);
    EXPECT_EQ(truncated.error->code, Error::Code::ConnectionLost);
    EXPECT_FALSE(truncated.data);

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

    // A file cut short is no answer, and the same answer stored again makes it whole (even
    // one the cache knows it wrote unchanged before).
    URLCache::shared().store(address, *loaded.response, *loaded.data);
    URLCache::shared().flush();
    auto size = std::filesystem::file_size(files[0]);
    std::filesystem::resize_file(files[0], size - 3);
    EXPECT_FALSE(URLCache::shared().cachedData(address));
    URLCache::shared().store(address, *loaded.response, *loaded.data);
    URLCache::shared().flush();
    EXPECT_EQ(std::filesystem::file_size(files[0]), size);
    EXPECT_TRUE(URLCache::shared().cachedData(address));
    URLCache::shared().setMemoryCapacity(4 * 1024 * 1024);

    URLCache::shared().removeAllCachedResponses();
    EXPECT_FALSE(std::filesystem::exists(files[0]));
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
