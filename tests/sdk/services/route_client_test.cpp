#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SorvanMapSDK/SMRouteGuide.hpp"
#include "SorvanMapSDK/SMRouteOptions.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "foundation/json_access.hpp"
#include "support/services_fixtures.hpp"

namespace sorvan {
namespace {

using testing::reasonOf;
using Lines = std::vector<std::string>;
using Polylines = std::vector<std::shared_ptr<map::Polyline>>;
using RouteOutcome = testing::Outcome<std::shared_ptr<SMRouteResult>>;
using PathOutcome = testing::Outcome<std::optional<Polylines>>;

constexpr const char* kGuide = "/tvroute/json/route/guide";
constexpr const char* kPath = "/tvroute/json/route/path";
constexpr map::Coordinate kFrom{13.7462, 100.5347};
constexpr map::Coordinate kTo{13.69, 100.7501};
const std::string kQuery =
    "flat=13.746200&flon=100.534700&tlat=13.690000&tlon=100.750100&"
    "locale=th&key=test-key";
const std::string kRouteLine = "route Error (13.746200,100.534700,13.690000,100.750100): ";

class RouteClientTest : public testing::ServicesTest {
  protected:
    // Held by pointer: the blocks refer to the outcome.
    std::unique_ptr<RouteOutcome> route(const SMRouteOptions* options = nullptr) {
        auto out = std::make_unique<RouteOutcome>(capture);
        routeClient().routeFrom(kFrom, kTo, options, out->block());
        out->probe.wait();
        settle();
        return out;
    }
    std::unique_ptr<PathOutcome> path(std::int64_t id) {
        auto out = std::make_unique<PathOutcome>(capture);
        routeClient().pathFrom(id, out->block());
        out->probe.wait();
        settle();
        return out;
    }
    static void dropEveryConnection(const std::string& path) {
        server::Fault fault;
        fault.count = -1;
        fault.dropConnection = true;
        service().injectFault(path, fault);
    }
};

TEST_F(RouteClientTest, SendsTheGuideAndPathQueries) {
    ASSERT_TRUE(route()->value);
    EXPECT_EQ(lastQuery(kGuide), kQuery);
    // The path request carries the route's id and nothing else.
    EXPECT_EQ(lastQuery(kPath).rfind("id=", 0), 0u);
    EXPECT_EQ(lastQuery(kPath).find('&'), std::string::npos);
    for (const auto& r : service().requests("/tvroute")) {
        EXPECT_EQ(r.headers.at("referer"), "sorvan://org.sorvan.tests");
    }
    struct Case {
        std::int64_t mode;
        bool tollway, ferry;
        const char* tail;
    };
    for (const Case& c :
         {Case{0, true, true, "&mode=t&type=25"}, Case{1, false, false, "&mode=c&type=1"},
          Case{2, true, false, "&mode=d&type=17"}, Case{7, false, true, "&mode=t&type=9"}}) {
        SMRouteOptions options;
        options.setMode(c.mode);
        options.setAllowedTollway(c.tollway);
        options.setAllowedFerry(c.ferry);
        route(&options);
        EXPECT_EQ(lastQuery(kGuide), kQuery + c.tail);
    }
}

TEST_F(RouteClientTest, JoinsGuideAndPathFromTheService) {
    auto out = route();
    ASSERT_TRUE(out->value);
    EXPECT_FALSE(out->error);
    EXPECT_TRUE(out->probe.ranOnSessionQueue());
    const auto& route = *out->value;
    EXPECT_GT(route.fDistance(), 0.0);
    EXPECT_GT(route.interval(), 0);
    ASSERT_GE(route.guide().size(), 2u);
    std::int64_t sum = 0;
    for (const auto& step : route.guide()) {
        EXPECT_FALSE(step->name().empty());
        EXPECT_GE(step->path()->pointCount(), 2u);
        sum += step->distance();
    }
    EXPECT_LT(sum, route.distance());  // the ways on and off the network are not steps
    auto first = route.guide().front()->path()->coordinates().front();
    EXPECT_NEAR(first.latitude, kFrom.latitude, 1e-6);
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(RouteClientTest, TurnTableRotatesFourToSix) {
    answer(kGuide, R"({"data":[{"id":5,"fdistance":"12.5","tdistance":3,"distance":1000.9,
        "interval":"60s","guide":[{"name":"a","turn":0},{"turn":1},{"turn":2},{"turn":3},
        {"turn":4},{"turn":5},{"turn":6},{"turn":9},{"turn":-1},{"turn":"4"},{"name":7}]}]})");
    auto out = route();
    ASSERT_TRUE(out->value);
    std::vector<std::int64_t> turns;
    for (const auto& g : out->value->guide()) {
        turns.push_back(g->turn());
    }
    // A step without "turn" reads it as 0, which the table keeps.
    EXPECT_EQ(turns, (std::vector<std::int64_t>{0, 1, 2, 3, 6, 4, 5, 6, 6, 6, 0}));
    EXPECT_EQ(out->value->guide()[1]->name(), "");
    EXPECT_EQ(out->value->guide()[10]->name(), "7");
    EXPECT_EQ(out->value->fDistance(), 12.5);
    EXPECT_EQ(out->value->distance(), 1000);
    EXPECT_EQ(out->value->interval(), 60);
    EXPECT_EQ(lastQuery(kPath), "id=5");
}

TEST_F(RouteClientTest, FailedGuideCallsBackFirstThenLogsAndAsksNoPath) {
    dropEveryConnection(kGuide);
    auto dropped = route();
    EXPECT_FALSE(dropped->value);
    ASSERT_TRUE(dropped->error);
    EXPECT_EQ(dropped->probe.linesBefore(), 0u);
    EXPECT_EQ(capture.lines(), Lines{kRouteLine + dropped->error->localizedDescription});
    service().clearFaults();

    answer(kGuide, "Service Unavailable", 503);
    capture.clear();
    auto garbled = route();
    ASSERT_TRUE(garbled->error);
    EXPECT_EQ(garbled->error->localizedDescription,
              json::parse("Service Unavailable").errorDescription);
    EXPECT_EQ(garbled->probe.linesBefore(), 0u);
    EXPECT_EQ(capture.lines(), Lines{kRouteLine + garbled->error->localizedDescription});

    // A malformed answer gives neither route nor error.
    struct Case {
        const char* body;
        std::function<void()> walk;
    };
    for (const Case& c :
         {Case{R"({"data":[]})", [] { json::element(json::Value::array(), 0); }},
          Case{R"({"data":["x"]})", [] { json::member(json::Value("x"), "fdistance"); }},
          Case{R"([1,2])",
               [] {
                   json::member(json::Value::array({1, 2}), "data");
               }},
          Case{R"({"data":[{"id":8,"guide":[{"name":"a"},"b"]}]})",
               [] { json::member(json::Value("b"), "name"); }},
          // A null route, figure or step value is of the wrong kind, never a 0.
          Case{R"({"data":[null]})", [] { json::member(json::Value(), "fdistance"); }},
          Case{R"({"data":[{"id":8,"distance":null}]})", [] { json::integerValue(json::Value()); }},
          Case{R"({"data":[{"id":8,"tdistance":null}]})", [] { json::doubleValue(json::Value()); }},
          Case{R"({"data":[{"id":8,"guide":[{"name":"a","turn":null}]}]})",
               [] { json::integerValue(json::Value()); }}}) {
        SCOPED_TRACE(c.body);
        answer(kGuide, c.body);
        capture.clear();
        auto out = route();
        EXPECT_EQ(out->probe.calls(), 1);
        EXPECT_FALSE(out->value || out->error);
        EXPECT_EQ(out->probe.linesBefore(), 0u);
        EXPECT_EQ(capture.lines(), Lines{kRouteLine + reasonOf(c.walk)});
    }
    // Only the cases with a readable head got as far as asking for the geometry.
    EXPECT_EQ(service().requests(kPath).size(), 2u);
}

TEST_F(RouteClientTest, GeometryIsAllOrNothing) {
    answer(kGuide, R"({"status":"ok"})");
    auto empty = route();
    ASSERT_TRUE(empty->value);
    EXPECT_EQ(empty->value->distance(), 0);
    EXPECT_TRUE(empty->value->guide().empty());
    EXPECT_EQ(lastQuery(kPath), "id=0");

    answer(kGuide, R"({"data":[{"id":77,"distance":3,"guide":[{"name":"a"},{"name":"b"}]}]})");
    // Fewer point lists than steps: no step keeps any geometry.
    answer(kPath, R"({"data":[[{"lat":1,"lon":2},{"lat":3,"lon":4}]]})");
    auto shorter = route();
    ASSERT_TRUE(shorter->value);
    ASSERT_EQ(shorter->value->guide().size(), 2u);
    EXPECT_EQ(shorter->value->guide()[0]->path()->pointCount(), 0u);
    EXPECT_TRUE(capture.lines().empty());

    // A failing path request: the route still comes, without geometry, after the path's line.
    dropEveryConnection(kPath);
    auto failed = route();
    ASSERT_TRUE(failed->value);
    EXPECT_FALSE(failed->error);
    EXPECT_EQ(failed->value->distance(), 3);
    ASSERT_EQ(failed->value->guide().size(), 2u);
    EXPECT_EQ(failed->value->guide()[1]->path()->pointCount(), 0u);
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].rfind("path Error (77): ", 0), 0u);
}

TEST_F(RouteClientTest, PathLogsBeforeItCallsBackOnFailure) {
    dropEveryConnection(kPath);
    auto dropped = path(12);
    EXPECT_FALSE(dropped->value);
    ASSERT_TRUE(dropped->error);
    EXPECT_TRUE(dropped->probe.ranOnSessionQueue());
    EXPECT_EQ(dropped->probe.linesBefore(), 1u);
    EXPECT_EQ(capture.lines(), Lines{"path Error (12): " + dropped->error->localizedDescription});
    service().clearFaults();

    answer(kPath, "{\"data\":[[");
    capture.clear();
    auto garbled = path(-4);
    ASSERT_TRUE(garbled->error);
    EXPECT_EQ(garbled->error->code, net::Error::Code::CannotParseResponse);
    EXPECT_EQ(garbled->probe.linesBefore(), 1u);
    EXPECT_EQ(capture.lines(), Lines{"path Error (-4): " + garbled->error->localizedDescription});
}

TEST_F(RouteClientTest, PathDeliversThePolylinesBeforeAFault) {
    answer(kPath, R"({"data":[[{"lat":13.1,"lon":100.2},{"lon":100.3}],{"lat":1},[{"lat":2}]]})");
    auto out = path(9);
    EXPECT_FALSE(out->error);
    ASSERT_TRUE(out->value);
    ASSERT_EQ(out->value->size(), 1u);
    auto coords = out->value->front()->coordinates();
    ASSERT_EQ(coords.size(), 2u);
    EXPECT_NEAR(coords[0].latitude, 13.1, 1e-9);
    EXPECT_NEAR(coords[1].latitude, 0.0, 1e-9);  // a missing value reads as 0
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].rfind("path Error (9): a point list", 0), 0u);
    EXPECT_EQ(out->probe.linesBefore(), 1u);

    answer(kPath, R"({"data":[[{"lat":1,"lon":1}],[{"lat":1,"lon":1},7]]})");
    capture.clear();
    EXPECT_EQ(path(10)->value->size(), 1u);
    EXPECT_EQ(capture.lines(),
              Lines{"path Error (10): " + reasonOf([] { json::member(json::Value(7), "lat"); })});
    // A null coordinate ends the walk like any value of the wrong kind.
    answer(kPath, R"({"data":[[{"lat":1,"lon":1}],[{"lat":null,"lon":1}]]})");
    capture.clear();
    EXPECT_EQ(path(10)->value->size(), 1u);
    EXPECT_EQ(capture.lines(),
              Lines{"path Error (10): " + reasonOf([] { json::doubleValue(json::Value()); })});
    answer(kPath, R"({"id":10})");
    capture.clear();
    EXPECT_EQ(path(10)->value, Polylines{});
    EXPECT_TRUE(capture.lines().empty());
}

}  // namespace
}  // namespace sorvan
