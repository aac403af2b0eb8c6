#include "road_network.hpp"

#include <algorithm>

#include <gtest/gtest.h>

#include "place_catalogue.hpp"

namespace sorvan::server {
namespace {

constexpr LatLon kSiamParagon{13.7462, 100.5347};
constexpr LatLon kSuvarnabhumi{13.6900, 100.7501};
constexpr LatLon kChonBuri{13.3611, 100.9847};
constexpr LatLon kSuratThani{9.1382, 99.3217};
constexpr LatLon kChaweng{9.5316, 100.0615};

double meters(LatLon a, LatLon b) {
    return distanceMeters(a.lat, a.lon, b.lat, b.lon);
}

bool anyTurn(const PlannedRoute& r, int turn) {
    return std::any_of(r.steps.begin(), r.steps.end(),
                       [&](const auto& s) { return s.turn == turn; });
}

TEST(RoadNetwork, CityRouteFollowsNamedRoadsAlongACurvingPath) {
    auto route = RoadNetwork::builtin().plan({kSiamParagon, kSuvarnabhumi});
    ASSERT_TRUE(route);
    ASSERT_GE(route->steps.size(), 3u);
    EXPECT_GT(route->fromDistance, 0);
    EXPECT_EQ(route->steps.front().points.front().lat, kSiamParagon.lat);
    EXPECT_EQ(route->steps.back().points.back().lon, kSuvarnabhumi.lon);
    double total = 0, off = 0;
    for (std::size_t i = 0; i < route->steps.size(); ++i) {
        const auto& s = route->steps[i];
        EXPECT_FALSE(s.nameTh.empty());
        EXPECT_GE(s.points.size(), 2u);
        total += s.meters;
        if (i > 0) {  // steps meet where the previous one ends, on another road
            EXPECT_EQ(route->steps[i - 1].points.back().lat, s.points.front().lat);
            EXPECT_NE(route->steps[i - 1].nameEn, s.nameEn);
        }
        for (const auto& p : s.points) {  // no point far off both ends means a ruler line
            off = std::max(off, meters(kSiamParagon, p) + meters(p, kSuvarnabhumi));
        }
    }
    double straight = meters(kSiamParagon, kSuvarnabhumi);
    EXPECT_TRUE(total > straight && total < 2 * straight) << total;
    EXPECT_GT(off, straight + 500);
}

TEST(RoadNetwork, OptionsChooseTheWay) {
    const auto& network = RoadNetwork::builtin();
    auto fast = network.plan({kSiamParagon, kChonBuri, 't', 25});
    auto free = network.plan({kSiamParagon, kChonBuri, 't', 9});
    ASSERT_TRUE(fast && free);
    EXPECT_TRUE(anyTurn(*fast, 5));  // onto an expressway
    for (const auto& s : free->steps) {
        EXPECT_EQ(s.nameEn.find("way"), std::string::npos) << s.nameEn;  // Expressway, Motorway
    }
    // An island is reached by ferry, or not at all.
    auto island = network.plan({kSuratThani, kChaweng, 't', 25});
    ASSERT_TRUE(island);
    EXPECT_TRUE(anyTurn(*island, 6));
    EXPECT_FALSE(network.plan({kSuratThani, kChaweng, 't', 17}));
}

TEST(RoadNetwork, NearbyPointsGetAnLShapedLocalRoute) {
    auto route = RoadNetwork::builtin().plan({{13.7440, 100.5400}, {13.7470, 100.5420}});
    ASSERT_TRUE(route);
    ASSERT_EQ(route->steps.size(), 2u);
    EXPECT_EQ(route->fromDistance, 0);
    EXPECT_EQ(route->steps[0].points.back().lon, 100.5420);
    EXPECT_EQ(route->steps[1].turn, 0);  // east, then north: a left turn
    EXPECT_NE(route->steps[0].nameEn, "Local road");

    auto nowhere = RoadNetwork::builtin().plan({{10.0, 102.5}, {10.0, 102.5}});
    ASSERT_TRUE(nowhere);
    ASSERT_EQ(nowhere->steps.size(), 1u);
    EXPECT_EQ(nowhere->steps[0].nameEn, "Local road");
}

TEST(RoadNetwork, RouteIdsAreStablePositiveAndDistinct) {
    auto id = routeIdFor("13.746200", "100.534700", "13.690000", "100.750100", 't', 25);
    EXPECT_GT(id, 0);
    EXPECT_EQ(id, routeIdFor("13.746200", "100.534700", "13.690000", "100.750100", 't', 25));
    EXPECT_NE(id, routeIdFor("13.746200", "100.534700", "13.690000", "100.750100", 'd', 25));
    EXPECT_NE(id, routeIdFor("13.690000", "100.750100", "13.746200", "100.534700", 't', 25));
}

}  // namespace
}  // namespace sorvan::server
