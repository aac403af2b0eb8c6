#include "road_network.hpp"

#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "place_catalogue.hpp"

namespace sorvan::server {
namespace {

constexpr LatLon kSiamParagon{13.7462, 100.5347};
constexpr LatLon kSuvarnabhumi{13.6900, 100.7501};
constexpr LatLon kChaweng{9.5316, 100.0615};
constexpr LatLon kSuratThani{9.1382, 99.3217};

bool anyStep(const PlannedRoute& r, const std::function<bool(const RouteStep&)>& f) {
    return std::any_of(r.steps.begin(), r.steps.end(), f);
}

TEST(RoadNetwork, BuiltinNetworkLoadsEveryLine) {
    const auto& network = RoadNetwork::builtin();
    EXPECT_EQ(network.nodeCount(), 118u);
    EXPECT_EQ(network.edgeCount(), 173u);
}

TEST(RoadNetwork, CityRouteFollowsNamedRoadsAlongACurvingPath) {
    auto route = RoadNetwork::builtin().plan({kSiamParagon, kSuvarnabhumi});
    ASSERT_TRUE(route);
    ASSERT_GE(route->steps.size(), 3u);
    EXPECT_GT(route->fromDistance, 0);
    EXPECT_LT(route->fromDistance, 2000);
    const auto& first = route->steps.front().points;
    const auto& last = route->steps.back().points;
    EXPECT_EQ(first.front().lat, kSiamParagon.lat);
    EXPECT_EQ(last.back().lon, kSuvarnabhumi.lon);
    double total = 0, farthest = 0;
    for (std::size_t i = 0; i < route->steps.size(); ++i) {
        const auto& s = route->steps[i];
        SCOPED_TRACE(s.nameEn);
        EXPECT_FALSE(s.nameTh.empty());
        EXPECT_GE(s.points.size(), 2u);
        EXPECT_TRUE(s.turn >= 0 && s.turn <= 6);
        EXPECT_GT(s.seconds, 0);
        total += s.meters;
        if (i > 0) {  // steps meet where the previous one ends
            EXPECT_EQ(route->steps[i - 1].points.back().lat, s.points.front().lat);
        }
        if (i > 0 && i + 1 < route->steps.size()) {
            EXPECT_NE(route->steps[i - 1].nameEn, s.nameEn);
        }
        for (const auto& p : s.points) {  // distance from the straight chord, roughly
            double t =
                std::clamp(((p.lon - kSiamParagon.lon) * (kSuvarnabhumi.lon - kSiamParagon.lon)) /
                               std::pow(kSuvarnabhumi.lon - kSiamParagon.lon, 2),
                           0.0, 1.0);
            LatLon onChord{kSiamParagon.lat + t * (kSuvarnabhumi.lat - kSiamParagon.lat),
                           kSiamParagon.lon + t * (kSuvarnabhumi.lon - kSiamParagon.lon)};
            farthest = std::max(farthest, distanceMeters(p.lat, p.lon, onChord.lat, onChord.lon));
        }
    }
    double straight =
        distanceMeters(kSiamParagon.lat, kSiamParagon.lon, kSuvarnabhumi.lat, kSuvarnabhumi.lon);
    EXPECT_GT(total, straight);
    EXPECT_LT(total, 2 * straight);
    EXPECT_GT(farthest, 500.0);
    // The same request plans the same route.
    auto again = RoadNetwork::builtin().plan({kSiamParagon, kSuvarnabhumi});
    ASSERT_EQ(again->steps.size(), route->steps.size());
    EXPECT_EQ(again->steps.back().points.size(), route->steps.back().points.size());
}

TEST(RoadNetwork, OptionsChooseTheWay) {
    const auto& network = RoadNetwork::builtin();
    auto isToll = [](const RouteStep& s) {
        return s.nameEn.find("Expressway") != std::string::npos ||
               s.nameEn.find("Motorway") != std::string::npos ||
               s.nameEn.find("Tollway") != std::string::npos;
    };
    auto fast = network.plan({kSiamParagon, {13.3611, 100.9847}, 't', 25});
    auto free = network.plan({kSiamParagon, {13.3611, 100.9847}, 't', 9});
    ASSERT_TRUE(fast && free);
    EXPECT_TRUE(anyStep(*fast, isToll));
    EXPECT_TRUE(anyStep(*fast, [](const RouteStep& s) { return s.turn == 5; }));
    EXPECT_FALSE(anyStep(*free, isToll));

    // An island is reached by ferry, or not at all.
    auto island = network.plan({kSuratThani, kChaweng, 't', 25});
    ASSERT_TRUE(island);
    EXPECT_TRUE(anyStep(*island, [](const RouteStep& s) { return s.turn == 6; }));
    EXPECT_FALSE(network.plan({kSuratThani, kChaweng, 't', 17}));
}

TEST(RoadNetwork, NearbyPointsGetAnLShapedLocalRoute) {
    auto route = RoadNetwork::builtin().plan({{13.7440, 100.5400}, {13.7470, 100.5420}});
    ASSERT_TRUE(route);
    ASSERT_EQ(route->steps.size(), 2u);
    EXPECT_EQ(route->fromDistance, 0);
    EXPECT_EQ(route->steps[0].points.back().lat, 13.7440);
    EXPECT_EQ(route->steps[0].points.back().lon, 100.5420);
    EXPECT_EQ(route->steps[1].turn, 0);  // east, then north: a left turn
    EXPECT_NE(route->steps[0].nameEn, "Local road");

    auto nowhere = RoadNetwork::builtin().plan({{10.0, 102.5}, {10.0, 102.5}});
    ASSERT_TRUE(nowhere);
    ASSERT_EQ(nowhere->steps.size(), 1u);
    EXPECT_EQ(nowhere->steps[0].nameEn, "Local road");
    EXPECT_EQ(nowhere->steps[0].meters, 0);
}

TEST(RoadNetwork, RouteIdsAreStablePositiveAndDistinct) {
    auto id = routeIdFor("13.746200", "100.534700", "13.690000", "100.750100", 't', 25);
    EXPECT_GT(id, 0);
    EXPECT_EQ(id, routeIdFor("13.746200", "100.534700", "13.690000", "100.750100", 't', 25));
    EXPECT_NE(id, routeIdFor("13.746200", "100.534700", "13.690000", "100.750100", 'd', 25));
    EXPECT_NE(id, routeIdFor("13.746200", "100.534700", "13.690000", "100.750100", 't', 9));
    EXPECT_NE(id, routeIdFor("13.690000", "100.750100", "13.746200", "100.534700", 't', 25));
}

}  // namespace
}  // namespace sorvan::server
