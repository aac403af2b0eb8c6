// Cancelling service calls through their SMServiceTask, over real HTTP to the embedded service:
// once cancel() has returned, no block or delegate callback runs and nothing is logged, however
// far the answer has come.
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "SorvanMapSDK/SMSearchDelegate.hpp"
#include "SorvanMapSDK/SMServiceTask.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "support/services_fixtures.hpp"

namespace sorvan {
namespace {

constexpr const char* kSearch = "/mapsearch/json/search";
constexpr const char* kSuggest = "/mapsearch/json/suggest";
constexpr const char* kGuide = "/tvroute/json/route/guide";
constexpr const char* kPath = "/tvroute/json/route/path";
constexpr map::Coordinate kFrom{13.7462, 100.5347};
constexpr map::Coordinate kTo{13.69, 100.7501};

class CountingDelegate : public SMSearchDelegate {
  public:
    void searchData(const std::vector<std::shared_ptr<SMPinAnnotation>>&) override { ++calls; }
    void suggestData(const std::vector<std::string>&) override { ++calls; }
    std::atomic<int> calls{0};
};

class ServiceTaskTest : public testing::ServicesTest {
  protected:
    void SetUp() override {
        ServicesTest::SetUp();
        dispatch::RunLoop::main().reset();
        ServiceConfig::setCurrent(ServiceConfig().pointedAt(origin()));
        view = SorvanMapView::create({0, 0, 400, 300});
        view->setKey("task-key");
        view->setSearchDelegate(delegate);
        capture.clear();
    }
    void TearDown() override {
        view.reset();
        dispatch::RunLoop::main().reset();
        globals::resetForTesting();
        ServiceConfig::setCurrent(ServiceConfig::fromEnvironment());
        ServicesTest::TearDown();
    }

    // Waits until the service has seen n requests to path.
    void awaitRequests(const std::string& path, std::size_t n) {
        for (int i = 0; i < 5000 && service().requests(path).size() < n; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        ASSERT_GE(service().requests(path).size(), n) << path;
    }
    // Everything the shared session had to deliver before now has been delivered: a later
    // request's completion runs after every earlier outcome (a cancelled transfer's included),
    // and then the main queue is emptied.
    void fence() {
        testing::fetch(url("/terms?fence"));
        settle();
        dispatch::RunLoop::main().drain();
    }
    // A result block of any kind that only counts its calls.
    auto counted() {
        return [this](const auto&, const auto&) { ++blocks; };
    }

    std::shared_ptr<SorvanMapView> view;
    std::shared_ptr<CountingDelegate> delegate = std::make_shared<CountingDelegate>();
    std::atomic<int> blocks{0};
};

TEST_F(ServiceTaskTest, ACallCancelledInFlightDeliversAndLogsNothing) {
    for (const char* path : {kSearch, kSuggest, kGuide}) {
        service().injectFault(path, {.count = -1, .delaySeconds = 5});
    }
    std::vector<std::shared_ptr<SMServiceTask>> tasks{
        view->searchKeyword("wat", nullptr, [&](const auto&, const auto&) { ++blocks; }),
        view->suggestKeyword("wa", nullptr, [&](const auto&, const auto&) { ++blocks; }),
        view->searchWithKeyword("wat", {13.7465, 100.493}),
        view->suggestWithKeyword("wa"),
        view->routeFrom(kFrom, kTo, nullptr, counted()),
    };
    awaitRequests(kSearch, 2);
    awaitRequests(kSuggest, 2);
    awaitRequests(kGuide, 1);
    for (const auto& task : tasks) {
        ASSERT_TRUE(task);
        EXPECT_FALSE(task->isCancelled());
        task->cancel();
        EXPECT_TRUE(task->isCancelled());
        task->cancel();  // again: nothing
    }
    service().clearFaults();
    fence();
    EXPECT_EQ(blocks, 0);
    EXPECT_EQ(delegate->calls, 0);
    EXPECT_TRUE(service().requests(kPath).empty()) << "a cancelled route asks for no path";
    EXPECT_TRUE(capture.lines().empty()) << "a cancellation is no failure";
}

TEST_F(ServiceTaskTest, AnAnswerWaitingOnTheSessionQueueIsDropped) {
    // The session's queue is held, so the answer arrives and waits behind the held task.
    dispatch::Semaphore held, release;
    net::URLSession::shared().delegateQueue().async([&] {
        held.signal();
        release.wait();
    });
    held.wait();
    auto search = view->searchKeyword("wat", nullptr, counted());
    auto path = view->pathFrom(7, counted());
    awaitRequests(kSearch, 1);
    awaitRequests(kPath, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the answers are in by now
    search->cancel();
    path->cancel();
    release.signal();
    fence();
    EXPECT_EQ(blocks, 0);
    EXPECT_TRUE(capture.lines().empty());

    // The same calls, not cancelled, are answered (dropping the task cancels nothing).
    view->searchKeyword("wat", nullptr, counted());
    view->pathFrom(7, counted());
    // The service answers the two in either order, and a search takes longer than the fence's
    // page, so the fence alone does not prove both answers are in.
    for (int i = 0; i < 5000 && blocks < 2; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    fence();
    EXPECT_EQ(blocks, 2);
}

TEST_F(ServiceTaskTest, AHopToTheMainQueueAlreadyPostedIsDropped) {
    auto& main = dispatch::RunLoop::main();
    main.drain();  // what the new view posted
    std::size_t before = main.pendingCount();
    auto search = view->searchWithKeyword("wat", {13.7465, 100.493});
    auto suggest = view->suggestWithKeyword("wa");
    // The main queue is not pumped: the answers wait there, already posted.
    for (int i = 0; i < 5000 && main.pendingCount() < before + 2; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_EQ(main.pendingCount(), before + 2);
    search->cancel();
    suggest->cancel();
    EXPECT_EQ(main.drain(), 2u);
    EXPECT_EQ(delegate->calls, 0);

    view->suggestWithKeyword("wa");
    ASSERT_TRUE(main.runUntil([&] { return delegate->calls == 1; }, dispatch::Duration(10)));
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(ServiceTaskTest, CancellingARouteEndsThePathRequestThatFollowsTheGuide) {
    service().injectFault(kPath, {.count = 1, .delaySeconds = 5});
    auto route = view->routeFrom(kFrom, kTo, nullptr, counted());
    awaitRequests(kPath, 1);
    route->cancel();
    service().clearFaults();
    fence();
    EXPECT_EQ(blocks, 0);
    EXPECT_TRUE(capture.lines().empty());
    // Had the path request gone on, the service would still be sleeping on it; it was ended,
    // so the next route is answered at once through the same service.
    testing::CallbackProbe probe(capture);
    view->routeFrom(kFrom, kTo, nullptr, [&](const auto& r, const auto&) {
        EXPECT_TRUE(r);
        probe.hit();
    });
    EXPECT_TRUE(probe.wait());
}

TEST_F(ServiceTaskTest, CancelWaitsForABlockRunningElsewhereAndNotForItsOwn) {
    // From another thread: cancel() returns only after a block already running has returned.
    dispatch::Semaphore started;
    std::atomic<bool> finished{false};
    auto search = view->searchKeyword("wat", nullptr, [&](const auto&, const auto&) {
        started.signal();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        finished = true;
    });
    ASSERT_TRUE(started.waitFor(dispatch::Duration(10)));
    search->cancel();
    EXPECT_TRUE(finished);

    // From inside its own block: cancel() returns at once.
    dispatch::Semaphore stored, done;
    std::shared_ptr<SMServiceTask> path;
    bool cancelledInside = false;
    path = view->pathFrom(3, [&](const auto&, const auto&) {
        stored.wait();
        path->cancel();
        cancelledInside = path->isCancelled();
        done.signal();
    });
    stored.signal();
    ASSERT_TRUE(done.waitFor(dispatch::Duration(10)));
    EXPECT_TRUE(cancelledInside);
    settle();
    EXPECT_TRUE(capture.lines().empty());
}

}  // namespace
}  // namespace sorvan
