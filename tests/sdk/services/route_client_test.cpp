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

using testing::CallbackProbe;

constexpr const char* kGuide = "/tvroute/json/route/guide";
constexpr const char* kPath = "/tvroute/json/route/path";
constexpr map::Coordinate kFrom{13.7462, 100.5347};
constexpr map::Coordinate kTo{13.69, 100.7501};
const std::string kRouteLine = "route Error (13.746200,100.534700,13.690000,100.750100): ";

using Polylines = std::vector<std::shared_ptr<map::Polyline>>;

std::string reasonOf(const std::function<void()>& walk) {
    try {
        walk();
    } catch (const json::StructureError& e) {
        return e.reason();
    }
    ADD_FAILURE() << "the walk raised nothing";
    return "";
}

struct RouteOutcome {
    explicit RouteOutcome(const log::Capture& capture) : probe(capture) {}
    std::shared_ptr<SMRouteResult> route;
    std::optional<net::Error> error;
    CallbackProbe probe;
    SMRouteResultBlock block() {
        return [this](const std::shared_ptr<SMRouteResult>& r, const std::optional<net::Error>& e) {
            route = r;
            error = e;
            probe.hit();
        };
    }
};

struct PathOutcome {
    explicit PathOutcome(const log::Capture& capture) : probe(capture) {}
    std::optional<Polylines> lines;
    std::optional<net::Error> error;
    CallbackProbe probe;
    SMPathResult block() {
        return [this](const std::optional<Polylines>& l, const std::optional<net::Error>& e) {
            lines = l;
            error = e;
            probe.hit();
        };
    }
};

server::Fault dropEveryConnection() {
    server::Fault fault;
    fault.count = -1;
    fault.dropConnection = true;
    return fault;
}

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
};

TEST_F(RouteClientTest, SendsTheGuideAndPathQueries) {
    auto plain = route();
    ASSERT_TRUE(plain->route);
    EXPECT_EQ(
        lastQuery(kGuide),
        "flat=13.746200&flon=100.534700&tlat=13.690000&tlon=100.750100&locale=th&key=test-key");
    // The path request carries the route's id and nothing else.
    auto paths = service().requests(kPath);
    ASSERT_EQ(paths.size(), 1u);
    EXPECT_EQ(paths[0].query.rfind("id=", 0), 0u);
    EXPECT_EQ(paths[0].query.find('&'), std::string::npos);
    for (const auto& r : service().requests("/tvroute")) {
        EXPECT_EQ(r.method, "GET");
        EXPECT_EQ(r.headers.at("referer"), "sorvan://org.sorvan.tests");
    }

    struct Case {
        std::int64_t mode;
        bool tollway, ferry;
        const char* tail;
    };
    for (const Case& c :
         {Case{0, true, true, "&mode=t&type=25"}, Case{1, false, false, "&mode=c&type=1"},
          Case{2, true, false, "&mode=d&type=17"}, Case{7, false, true, "&mode=t&type=9"},
          Case{-1, true, true, "&mode=t&type=25"}}) {
        SMRouteOptions options;
        options.setMode(c.mode);
        options.setAllowedTollway(c.tollway);
        options.setAllowedFerry(c.ferry);
        ASSERT_TRUE(route(&options)->route);
        EXPECT_EQ(lastQuery(kGuide),
                  "flat=13.746200&flon=100.534700&tlat=13.690000&tlon=100.750100&"
                  "locale=th&key=test-key" +
                      std::string(c.tail));
    }
    SMRouteOptions defaults;
    EXPECT_EQ(defaults.mode(), 0);
    EXPECT_TRUE(defaults.allowedTollway());
    EXPECT_TRUE(defaults.allowedFerry());
}

TEST_F(RouteClientTest, JoinsGuideAndPathFromTheService) {
    auto out = route();
    ASSERT_TRUE(out->route);
    EXPECT_FALSE(out->error);
    EXPECT_TRUE(out->probe.ranOnSessionQueue());
    EXPECT_TRUE(capture.lines().empty());
    const auto& guide = out->route->guide();
    ASSERT_GE(guide.size(), 2u);
    auto answer =
        json::parse(testing::fetch(url(std::string(kGuide) + "?" + lastQuery(kGuide))).body());
    ASSERT_TRUE(answer.value);
    const auto& data = (*answer.value)["data"][0];
    EXPECT_EQ(out->route->fDistance(), data["fdistance"].get<double>());
    EXPECT_EQ(out->route->tDistance(), data["tdistance"].get<double>());
    EXPECT_EQ(out->route->distance(), data["distance"].get<std::int64_t>());
    EXPECT_EQ(out->route->interval(), data["interval"].get<std::int64_t>());
    std::int64_t sum = 0;
    for (std::size_t i = 0; i < guide.size(); ++i) {
        const auto& step = data["guide"][i];
        EXPECT_EQ(guide[i]->name(), step["name"].get<std::string>());
        EXPECT_EQ(guide[i]->turn(), SMRouteGuide::turnForServiceCode(step["turn"].get<int>()));
        EXPECT_GT(guide[i]->distance(), 0);
        EXPECT_GE(guide[i]->path()->pointCount(), 2u);
        sum += guide[i]->distance();
    }
    EXPECT_LE(sum, out->route->distance());
    // The drawing starts where the route was asked from.
    auto first = guide.front()->path()->coordinates().front();
    EXPECT_NEAR(first.latitude, kFrom.latitude, 1e-6);
    EXPECT_NEAR(first.longitude, kFrom.longitude, 1e-6);
}

TEST_F(RouteClientTest, TurnTableRotatesFourToSix) {
    answer(kGuide, R"({"data":[{"id":5,"fdistance":"12.5","tdistance":3,"distance":1000.9,
        "interval":"60s","guide":[{"name":"a","turn":0},{"turn":1},{"turn":2},{"turn":3},
        {"turn":4},{"turn":5},{"turn":6},{"turn":9},{"turn":-1},{"turn":"4"},{"name":7}]}]})");
    auto out = route();
    ASSERT_TRUE(out->route);
    std::vector<std::int64_t> turns;
    for (const auto& g : out->route->guide()) {
        turns.push_back(g->turn());
    }
    // A step without "turn" reads it as 0, which the table keeps.
    EXPECT_EQ(turns, (std::vector<std::int64_t>{0, 1, 2, 3, 6, 4, 5, 6, 6, 6, 0}));
    EXPECT_EQ(out->route->guide()[0]->name(), "a");
    EXPECT_EQ(out->route->guide()[1]->name(), "");
    EXPECT_EQ(out->route->guide()[10]->name(), "7");
    EXPECT_EQ(out->route->fDistance(), 12.5);
    EXPECT_EQ(out->route->tDistance(), 3.0);
    EXPECT_EQ(out->route->distance(), 1000);
    EXPECT_EQ(out->route->interval(), 60);
    EXPECT_EQ(lastQuery(kPath), "id=5");
    for (std::int64_t code = -3; code <= 9; ++code) {
        std::int64_t expected = code == 4                ? 6
                                : code == 5              ? 4
                                : code == 6              ? 5
                                : (code < 0 || code > 6) ? 6
                                                         : code;
        EXPECT_EQ(SMRouteGuide::turnForServiceCode(code), expected) << code;
    }
    SMRouteGuide fresh;
    EXPECT_EQ(fresh.turn(), 6);
    EXPECT_EQ(fresh.name(), "");
    ASSERT_TRUE(fresh.path());
    EXPECT_EQ(fresh.path()->pointCount(), 0u);
}

TEST_F(RouteClientTest, FailedGuideCallsBackFirstThenLogsAndAsksNoPath) {
    // Transport error.
    service().injectFault(kGuide, dropEveryConnection());
    auto dropped = route();
    EXPECT_FALSE(dropped->route);
    ASSERT_TRUE(dropped->error);
    EXPECT_EQ(dropped->probe.linesBefore(), 0u);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{kRouteLine + dropped->error->localizedDescription});
    service().clearFaults();

    // No JSON.
    answer(kGuide, "Service Unavailable", 503);
    capture.clear();
    auto garbled = route();
    ASSERT_TRUE(garbled->error);
    EXPECT_EQ(garbled->error->code, net::Error::Code::CannotParseResponse);
    EXPECT_EQ(garbled->error->localizedDescription,
              json::parse("Service Unavailable").errorDescription);
    EXPECT_EQ(garbled->probe.linesBefore(), 0u);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{kRouteLine + garbled->error->localizedDescription});

    // A malformed answer gives neither route nor error.
    struct Case {
        const char* body;
        std::function<void()> walk;
    };
    for (const Case& c :
         {Case{R"({"data":[]})", [] { json::element(json::Value::array(), 0); }},
          Case{R"({"data":{"id":1}})", [] { json::element(json::Value::object(), 0); }},
          Case{R"({"data":["x"]})", [] { json::member(json::Value("x"), "fdistance"); }},
          Case{R"([1,2])", [] {
                   json::member(json::Value::array({1, 2}), "data");
               }}}) {
        SCOPED_TRACE(c.body);
        answer(kGuide, c.body);
        capture.clear();
        auto out = route();
        EXPECT_EQ(out->probe.calls(), 1);
        EXPECT_FALSE(out->route);
        EXPECT_FALSE(out->error);
        EXPECT_EQ(out->probe.linesBefore(), 0u);
        EXPECT_EQ(capture.lines(), std::vector<std::string>{kRouteLine + reasonOf(c.walk)});
    }
    EXPECT_TRUE(service().requests(kPath).empty());
}

TEST_F(RouteClientTest, AGuideWithoutDataIsAnEmptyRouteWithPathZero) {
    answer(kGuide, R"({"status":"ok"})");
    auto out = route();
    ASSERT_TRUE(out->route);
    EXPECT_FALSE(out->error);
    EXPECT_EQ(out->route->distance(), 0);
    EXPECT_EQ(out->route->fDistance(), 0.0);
    EXPECT_TRUE(out->route->guide().empty());
    EXPECT_EQ(lastQuery(kPath), "id=0");
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(RouteClientTest, GeometryIsAllOrNothing) {
    answer(kGuide,
           R"({"data":[{"id":77,"distance":3,"guide":[{"name":"a"},{"name":"b"},{"name":"c"}]}]})");
    // Fewer point lists than steps: no step keeps any geometry.
    answer(kPath, R"({"data":[[{"lat":1,"lon":2},{"lat":3,"lon":4}],[{"lat":5,"lon":6}]]})");
    auto shorter = route();
    ASSERT_TRUE(shorter->route);
    ASSERT_EQ(shorter->route->guide().size(), 3u);
    for (const auto& g : shorter->route->guide()) {
        EXPECT_EQ(g->path()->pointCount(), 0u);
    }
    EXPECT_TRUE(capture.lines().empty());

    // A failing path request: the route still comes, without geometry, after the path's line.
    service().injectFault(kPath, dropEveryConnection());
    auto failed = route();
    ASSERT_TRUE(failed->route);
    EXPECT_FALSE(failed->error);
    EXPECT_EQ(failed->route->distance(), 3);
    ASSERT_EQ(failed->route->guide().size(), 3u);
    EXPECT_EQ(failed->route->guide()[2]->name(), "c");
    EXPECT_EQ(failed->route->guide()[2]->path()->pointCount(), 0u);
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].rfind("path Error (77): ", 0), 0u);
    EXPECT_EQ(failed->probe.linesBefore(), 1u);
}

TEST_F(RouteClientTest, StepsOfTheWrongKindEndInNeitherRouteNorError) {
    answer(kGuide, R"({"data":[{"id":8,"guide":[{"name":"a"},"b"]}]})");
    auto out = route();
    EXPECT_EQ(out->probe.calls(), 1);
    EXPECT_FALSE(out->route);
    EXPECT_FALSE(out->error);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{kRouteLine + reasonOf([] {
                                                            json::member(json::Value("b"), "name");
                                                        })});
}

TEST_F(RouteClientTest, PathLogsBeforeItCallsBackOnFailure) {
    service().injectFault(kPath, dropEveryConnection());
    auto dropped = path(12);
    EXPECT_FALSE(dropped->lines);
    ASSERT_TRUE(dropped->error);
    EXPECT_TRUE(dropped->probe.ranOnSessionQueue());
    EXPECT_EQ(dropped->probe.linesBefore(), 1u);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"path Error (12): " + dropped->error->localizedDescription});
    service().clearFaults();

    answer(kPath, "{\"data\":[[");
    capture.clear();
    auto garbled = path(-4);
    ASSERT_TRUE(garbled->error);
    EXPECT_EQ(garbled->error->code, net::Error::Code::CannotParseResponse);
    EXPECT_EQ(garbled->probe.linesBefore(), 1u);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"path Error (-4): " + garbled->error->localizedDescription});
    EXPECT_EQ(lastQuery(kPath), "id=-4");
}

TEST_F(RouteClientTest, PathDeliversThePolylinesBeforeAFault) {
    answer(
        kPath,
        R"({"data":[[{"lat":13.1,"lon":100.2},{"lon":100.3},{"lat":"13.4"}],{"lat":1},[{"lat":2,"lon":3}]]})");
    auto out = path(9);
    EXPECT_FALSE(out->error);
    ASSERT_TRUE(out->lines);
    ASSERT_EQ(out->lines->size(), 1u);
    auto coords = out->lines->front()->coordinates();
    ASSERT_EQ(coords.size(), 3u);
    EXPECT_NEAR(coords[0].latitude, 13.1, 1e-9);
    EXPECT_NEAR(coords[1].latitude, 0.0, 1e-9);  // a missing value reads as 0
    EXPECT_NEAR(coords[1].longitude, 100.3, 1e-9);
    EXPECT_NEAR(coords[2].longitude, 0.0, 1e-9);
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].rfind("path Error (9): ", 0), 0u);
    EXPECT_GT(capture.lines()[0].size(), std::string("path Error (9): ").size());
    EXPECT_EQ(out->probe.linesBefore(), 1u);

    // A point that is no object, and an answer without data.
    answer(kPath, R"({"data":[[{"lat":1,"lon":1}],[{"lat":1,"lon":1},7]]})");
    capture.clear();
    auto point = path(10);
    ASSERT_TRUE(point->lines);
    EXPECT_EQ(point->lines->size(), 1u);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{"path Error (10): " + reasonOf([] {
                                                            json::member(json::Value(7), "lat");
                                                        })});
    answer(kPath, R"({"id":10})");
    capture.clear();
    auto none = path(10);
    ASSERT_TRUE(none->lines);
    EXPECT_TRUE(none->lines->empty());
    EXPECT_TRUE(capture.lines().empty());
}

}  // namespace
}  // namespace sorvan
