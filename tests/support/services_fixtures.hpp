// Fixtures for the search, suggest and routing tests: the embedded service with answers a
// test may replace per path (restored after each test), clients pointed at it, a capture of
// log lines, and a probe that records where and when a callback ran.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "services/service_client.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "support/service_harness.hpp"

namespace sorvan::testing {

class ServicesTest : public ServiceTest {
  protected:
    void TearDown() override;

    /// Base = the service's origin, locale "th", key "test-key", bundle "org.sorvan.tests".
    static services::ServiceSettings settings();
    static services::SearchClient searchClient(map::Coordinate center = {13.75, 100.5});
    static services::RouteClient routeClient();

    /// Every request to path is answered with body (and status) until the test ends.
    static void answer(const std::string& path, std::string body, int status = 200);
    /// The raw query of the last request to path ("" when there was none).
    static std::string lastQuery(const std::string& path);
    /// Waits until every completion already queued on the shared session has run.
    static void settle();

    log::Capture capture;
};

/// Records one callback: how many calls, on which queue, and how many log lines had been
/// written when it ran. Thread-safe.
class CallbackProbe {
  public:
    explicit CallbackProbe(const log::Capture& capture) : capture_(capture) {}
    /// Call from the callback after storing its results.
    void hit();
    /// Waits for the first call; false (and a test failure) after the timeout.
    bool wait(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    int calls() const;
    bool ranOnSessionQueue() const;
    bool ranOnMainQueue() const;
    std::size_t linesBefore() const;

  private:
    const log::Capture& capture_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    int calls_ = 0;
    bool session_ = false, main_ = false;
    std::size_t linesBefore_ = 0;
};

/// Pumps the main queue until the capture holds n lines (or the timeout passes).
bool waitForLines(const log::Capture& capture, std::size_t n,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace sorvan::testing
