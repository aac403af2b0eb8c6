// Test fixture over the embedded service: one EmbeddedService per test suite on an ephemeral
// loopback port, with a clean record and no faults at the start of each test. Plus a blocking
// fetch through a URL session for tests that only care about the outcome.
//
//   class TileLoading : public sorvan::testing::ServiceTest {};
//   TEST_F(TileLoading, RetriesAServerError) {
//       service().injectFault("/tiles", {.count = 2, .status = 500});
//       auto result = fetch(url("/tiles/1/2/3.png"));
//       ...
//       EXPECT_EQ(service().requests("/tiles").size(), 3u);
//   }
//
// A fixture that defines its own SetUpTestSuite/TearDownTestSuite/SetUp must call these.
// The suite's service keeps a request log (the latest kRequestLog requests); a test that starts
// a service of its own asks for one with recordingService() or ServiceOptions::requestLog.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::testing {

/// Requests a test's service keeps: far more than any test sends, and bounded all the same.
inline constexpr std::size_t kRequestLog = 10000;

/// Options for a service of a test's own: an ephemeral port and a request log.
inline server::ServiceOptions recordingService() {
    return server::ServiceOptions{.requestLog = kRequestLog};
}

class ServiceTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;

    /// REQUIRES: inside a test of the suite.
    static server::EmbeddedService& service();
    /// "http://127.0.0.1:PORT"
    static std::string origin();
    /// origin() + pathAndQuery as a URL. REQUIRES: the result is a valid URL.
    static net::URL url(std::string_view pathAndQuery);
};

/// The outcome of one data task.
struct FetchResult {
    std::optional<net::Data> data;
    std::optional<net::HTTPURLResponse> response;
    std::optional<net::Error> error;
    bool completed = false;
    bool ranOnDelegateQueue = false;
    int completions = 0;

    std::string body() const;
    int status() const { return response ? response->statusCode : 0; }
};

/// Runs a data task on session and waits for its completion (at most timeoutSeconds; a
/// missing completion fails the test and leaves completed false).
FetchResult fetch(net::URLSession& session, const net::URLRequest& request,
                  double timeoutSeconds = 30);
FetchResult fetch(const net::URL& url);  // shared session, default request
/// The same request through session's blocking fetch, in the same shape (completed once, and
/// "on the delegate queue", since the caller waits for it).
FetchResult fetchBlocking(net::URLSession& session, const net::URLRequest& request);

/// A loopback port nothing listens on (bound, then released).
int closedPort();

}  // namespace sorvan::testing
