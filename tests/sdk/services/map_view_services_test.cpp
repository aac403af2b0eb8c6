// The services through SorvanMapView: its key, language, centre, box domain and search
// delegate, against the embedded service.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMSearchDelegate.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "support/services_fixtures.hpp"

namespace sorvan {
namespace {

using testing::CallbackProbe;

constexpr const char* kSearch = "/mapsearch/json/search";
constexpr map::Coordinate kCentre{13.7563, 100.5018};

class RecordingDelegate : public SMSearchDelegate {
  public:
    void searchData(const std::vector<std::shared_ptr<SMPinAnnotation>>& pins) override {
        onMain = onMain && dispatch::RunLoop::main().isCurrent();
        searches.push_back(pins);
    }
    void suggestData(const std::vector<std::string>& words) override {
        onMain = onMain && dispatch::RunLoop::main().isCurrent();
        suggestions.push_back(words);
    }
    std::vector<std::vector<std::shared_ptr<SMPinAnnotation>>> searches;
    std::vector<std::vector<std::string>> suggestions;
    bool onMain = true;
};

class MapViewServices : public testing::ServicesTest {
  protected:
    void SetUp() override {
        ServicesTest::SetUp();
        ServiceConfig::setCurrent(ServiceConfig().pointedAt(origin()));
        view = SorvanMapView::create({0, 0, 400, 300});
        view->setKey("view-key");
        view->setCenterCoordinate(kCentre);
        view->setSearchDelegate(delegate);
        capture.clear();
    }
    void TearDown() override {
        view.reset();
        globals::resetForTesting();
        ServiceConfig::setCurrent(ServiceConfig::fromEnvironment());
        ServicesTest::TearDown();
    }
    // Pumps the main queue until done() holds.
    static bool pumpUntil(const std::function<bool()>& done) {
        return dispatch::RunLoop::main().runUntil(done, dispatch::Duration(10));
    }
    // For answers that must reach nobody: the request is seen by the service, then the main
    // queue is pumped a while longer so that a wrong delivery would have had time to land.
    void awaitUnheard(const std::string& path, std::size_t requests) {
        pumpUntil([&] { return service().requests(path).size() >= requests; });
        dispatch::RunLoop::main().runUntil([] { return false; }, dispatch::Duration(0.3));
        settle();
        dispatch::RunLoop::main().drain();
    }

    std::shared_ptr<SorvanMapView> view;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
};

TEST_F(MapViewServices, DelegateFormsSendOnlyPositionLocaleAndKeyToTheDelegateOfTheMoment) {
    auto later = std::make_shared<RecordingDelegate>();
    view->searchWithKeyword("wat", {13.7465, 100.493});
    view->searchWithKeyword("wat", {13.7465, 100.493}, "5km", 3, 7);
    view->suggestWithKeyword("wa");
    // The delegate is looked up when the answer arrives, not when the call was made.
    view->setSearchDelegate(later);
    ASSERT_TRUE(
        pumpUntil([&] { return later->searches.size() == 2 && later->suggestions.size() == 1; }));
    EXPECT_TRUE(delegate->searches.empty());
    EXPECT_TRUE(later->onMain);
    EXPECT_EQ(later->searches[0].size(), 20u);  // the service's own page size
    auto searches = service().requests(kSearch);
    ASSERT_EQ(searches.size(), 2u);
    EXPECT_EQ(searches[0].query, "keyword=wat&lat=13.746500&lon=100.493000&locale=th&key=view-key");
    EXPECT_EQ(searches[1].query, searches[0].query);
    EXPECT_EQ(searches[0].headers.at("referer"), "sorvan://" + Bundle::main().identifier());
    EXPECT_EQ(lastQuery("/mapsearch/json/suggest"), "keyword=wa&locale=th&key=view-key");

    // A delegate that is gone, or a view that is gone, makes the answer a no-op.
    later.reset();
    view->suggestWithKeyword("wa");
    awaitUnheard("/mapsearch/json/suggest", 2);
    view->setSearchDelegate(delegate);
    view->searchWithKeyword("wat", kCentre);
    view.reset();
    awaitUnheard(kSearch, 3);
    EXPECT_TRUE(delegate->searches.empty());
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(MapViewServices, CompletionFormsUseTheViewsCentreLanguageAndBoxDomain) {
    auto run = [&](const std::shared_ptr<SMSearchOptions>& options) {
        CallbackProbe probe(capture);
        view->searchKeyword("wat", options, [&](const auto&, const auto&) { probe.hit(); });
        probe.wait();
        EXPECT_TRUE(probe.ranOnSessionQueue());
        return lastQuery(kSearch);
    };
    auto centre = view->centerCoordinate();
    EXPECT_EQ(run(std::make_shared<SMSearchOptions>()),
              strformat("keyword=wat&locale=th&key=view-key&lat=%f&lon=%f&span=&offset=0&limit=10",
                        centre.latitude, centre.longitude));
    EXPECT_EQ(run(nullptr), "keyword=wat&locale=th&key=view-key");

    view->setLanguage(2);
    EXPECT_EQ(run(nullptr), "keyword=wat&locale=en&key=view-key");
    CallbackProbe routed(capture);
    view->routeFrom({13.7462, 100.5347}, {13.69, 100.7501}, nullptr,
                    [&](const auto&, const auto&) { routed.hit(); });
    routed.wait();
    EXPECT_EQ(
        lastQuery("/tvroute/json/route/guide"),
        "flat=13.746200&flon=100.534700&tlat=13.690000&tlon=100.750100&locale=en&key=view-key");
    view->setLanguage(7);
    EXPECT_EQ(run(nullptr), "keyword=wat&locale=th&key=view-key");

    // The box domain wins over the configured address; only its scheme, host and port count.
    ServiceConfig::setCurrent(
        ServiceConfig().pointedAt("http://127.0.0.1:" + std::to_string(testing::closedPort())));
    view->setBoxDomain(net::URL::fromString(origin() + "/box/maps/"));
    service().clearRequests();
    run(nullptr);
    auto requests = service().requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].path, kSearch);
}

}  // namespace
}  // namespace sorvan
