// The clustering service, the event feed and the icon services of the embedded service, as a
// client sees them.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "event_feed.hpp"
#include "place_catalogue.hpp"
#include "place_clusters.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "support/service_harness.hpp"

namespace sorvan {
namespace {

using nlohmann::json;

// Tile (x, y) at zoom z holding a position.
std::pair<std::int64_t, std::int64_t> tileOf(double lat, double lon, int z) {
    double n = std::exp2(z);
    double phi = lat * M_PI / 180;
    return {static_cast<std::int64_t>((lon + 180) / 360 * n),
            static_cast<std::int64_t>((1 - std::log(std::tan(phi) + 1 / std::cos(phi)) / M_PI) / 2 *
                                      n)};
}

class LiveServices : public testing::ServiceTest {
  protected:
    void TearDown() override { service().setClock(nullptr); }

    static json clusters(int z, std::int64_t index, const std::string& lang,
                         const std::string& query) {
        auto r = testing::fetch(url("/ClusterService/json/cluster/epsg3857/" + std::to_string(z) +
                                    "/" + std::to_string(index) + "/" + lang + "?" + query));
        EXPECT_EQ(r.status(), 200) << r.body();
        return json::parse(r.body());
    }
    static json clustersOfTile(int z, std::int64_t x, std::int64_t y, const std::string& query) {
        return clusters(z, x + (std::int64_t{1} << z) * y, "en", query);
    }
    static json feedAt(std::int64_t unixSeconds) {
        service().setClock([unixSeconds] {
            return std::chrono::system_clock::time_point(std::chrono::seconds(unixSeconds));
        });
        auto r = testing::fetch(url("/feed/json"));
        EXPECT_EQ(r.status(), 200);
        return json::parse(r.body());
    }
    static std::shared_ptr<gfx::Image> picture(const std::string& path, int status = 200) {
        auto r = testing::fetch(url(path));
        EXPECT_EQ(r.status(), status) << path;
        return r.data ? gfx::Image::fromData(*r.data) : nullptr;
    }
};

TEST_F(LiveServices, ClustersRecoverTheTileFromZoomAndIndexInBothLanguages) {
    auto [x, y] = tileOf(13.7563, 100.5018, 14);
    std::vector<std::string> tags{"temple", "food"};
    auto expected = server::clustersForTile(server::PlaceCatalogue::builtin(), 14, x, y, tags);
    ASSERT_GE(expected.size(), 3u);

    json en = clusters(14, x + 16384 * y, "en", "tag[0]=temple&tag[1]=food&key=k");
    json th = clusters(14, x + 16384 * y, "th", "tag%5B0%5D=temple&tag%5B1%5D=food&key=k");
    ASSERT_EQ(en["data"].size(), expected.size());
    ASSERT_EQ(th["data"].size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const json& item = en["data"][i];
        EXPECT_EQ(item["id"], expected[i].id);
        EXPECT_EQ(item["name"], expected[i].nameEn);
        EXPECT_EQ(th["data"][i]["name"], expected[i].nameTh);
        EXPECT_EQ(item["icon"], expected[i].icon);
        EXPECT_DOUBLE_EQ(item["lat"].get<double>(), expected[i].latitude);
        EXPECT_DOUBLE_EQ(item["lon"].get<double>(), expected[i].longitude);
        EXPECT_TRUE(std::regex_match(item["icon"].get<std::string>(),
                                     std::regex("[a-z]+(_([2-9]|10|20|50|100))?\\.png")));
    }

    // No tags, unknown tags, a tile beyond the world and a zoom-0 index ask for nothing (or the
    // one world tile); a malformed path is refused.
    EXPECT_TRUE(clusters(14, x + 16384 * y, "en", "key=k")["data"].empty());
    EXPECT_TRUE(clusters(14, x + 16384 * y, "en", "tag[0]=nosuch&key=k")["data"].empty());
    EXPECT_TRUE(clusters(2, 16, "en", "tag[0]=temple&key=k")["data"].empty());
    EXPECT_FALSE(clusters(0, 0, "en", "tag[0]=temple&key=k")["data"].empty());
    EXPECT_EQ(testing::fetch(url("/ClusterService/json/cluster/epsg3857/14/x/en")).status(), 400);
    EXPECT_EQ(testing::fetch(url("/ClusterService/json/cluster/epsg3857/14/5")).status(), 400);
}

TEST_F(LiveServices, AClusterSeenFromNeighbouringTilesHasOneIdAndOnePlace) {
    // Walk a block of tiles over central Bangkok; every id must describe one cluster, and some
    // cluster near an edge must be seen from two tiles.
    auto [x0, y0] = tileOf(13.80, 100.45, 15);
    std::map<std::string, json> byId;
    std::size_t seenTwice = 0;
    for (std::int64_t dy = 0; dy < 6; ++dy) {
        for (std::int64_t dx = 0; dx < 8; ++dx) {
            json answer = clustersOfTile(15, x0 + dx, y0 + dy, "tag[0]=attraction&tag[1]=food");
            std::set<std::string> inTile;
            for (const json& item : answer["data"]) {
                std::string id = item["id"];
                EXPECT_TRUE(inTile.insert(id).second) << "twice in one tile: " << id;
                auto [it, fresh] = byId.emplace(id, item);
                if (!fresh) {
                    ++seenTwice;
                    EXPECT_EQ(it->second, item) << id;
                }
            }
        }
    }
    EXPECT_GT(byId.size(), 20u);
    EXPECT_GT(seenTwice, 0u);
}

TEST_F(LiveServices, TheFeedKeepsDropsAndAddsIncidentsAsItsClockMoves) {
    const std::int64_t t0 = 1'700'000'000;
    json first = feedAt(t0);
    ASSERT_TRUE(first.is_array());
    ASSERT_GE(first.size(), 8u);
    EXPECT_EQ(feedAt(t0 + 30), first);  // within one generation nothing changes

    const std::regex stamp("\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}");
    std::set<std::string> icons;
    for (const json& e : first) {
        for (const char* member : {"eid", "title", "title_en", "description", "description_en",
                                   "icon", "start", "stop", "contributor", "showlevel"}) {
            ASSERT_TRUE(e[member].is_string()) << member << " of " << e.dump();
        }
        EXPECT_TRUE(e["type"].is_number());
        EXPECT_TRUE(e["severity"].is_number());
        EXPECT_TRUE(std::regex_match(e["start"].get<std::string>(), stamp));
        EXPECT_TRUE(e["stop"] == "" || std::regex_match(e["stop"].get<std::string>(), stamp));
        EXPECT_LT(std::abs(e["latitude"].get<double>() - 13.7563), 0.3);
        EXPECT_LT(std::abs(e["longitude"].get<double>() - 100.5018), 0.3);
        icons.insert(e["icon"].get<std::string>());
    }

    std::size_t kept = 0, dropped = 0, added = 0;
    json before = first;
    for (int step = 1; step <= 6; ++step) {
        json after = feedAt(t0 + step * 180);
        std::set<std::string> old, now;
        for (const json& e : before) {
            old.insert(e["eid"]);
        }
        for (const json& e : after) {
            now.insert(e["eid"]);
            added += old.count(e["eid"]) ? 0 : 1;
            kept += old.count(e["eid"]);
            icons.insert(e["icon"].get<std::string>());
        }
        for (const std::string& id : old) {
            dropped += now.count(id) ? 0 : 1;
        }
        before = after;
    }
    EXPECT_GT(kept, 0u);
    EXPECT_GT(dropped, 0u);
    EXPECT_GT(added, 0u);
    EXPECT_EQ(icons.size(), server::eventIconNames().size());
    // Bangkok keeps UTC+7 all year.
    EXPECT_EQ(server::bangkokTimeText(
                  std::chrono::system_clock::time_point(std::chrono::seconds(1706663100))),
              "2024-01-31 08:05:00");
}

TEST_F(LiveServices, EveryIconTheCataloguesAndFeedNameIsServedAtItsScale) {
    std::set<std::string> mapIcons{"reddot", "poi_2", "poi_100"};
    for (const auto& place : server::PlaceCatalogue::builtin().places()) {
        std::string stem = place.icon.substr(0, place.icon.size() - 4);
        mapIcons.insert(stem);
        mapIcons.insert(server::clusterIconName(stem, 7));
        mapIcons.insert(server::clusterIconName(stem, 123));
    }
    for (const std::string& name : mapIcons) {
        for (int scale : {1, 2, 3}) {
            std::string dir = scale == 1 ? "icons" : "icons_" + std::to_string(scale) + "x";
            auto image = picture("/tvmap/images/" + dir + "/" + name + ".png");
            ASSERT_TRUE(image) << name;
            int points = name == "reddot" ? 24 : name.find('_') == std::string::npos ? 26 : 38;
            EXPECT_EQ(image->pixelWidth(), points * scale) << name;
            EXPECT_FALSE(image->isOpaque());
        }
    }
    std::vector<std::string> signs{"information", "camera", "video"};
    for (auto name : server::eventIconNames()) {
        signs.emplace_back(name);
    }
    for (const std::string& name : signs) {
        auto image = picture("/sites/all/modules/traffic/images/icon_" + name + "-l.png");
        ASSERT_TRUE(image) << name;
        EXPECT_EQ(image->pixelWidth(), 64);
        EXPECT_EQ(image->pixelHeight(), 64);
    }
    for (const char* path : {"/tvmap/images/icons/nosuch.png", "/tvmap/images/icons_4x/temple.png",
                             "/tvmap/images/icons/temple_11.png", "/tvmap/images/icons/temple",
                             "/sites/all/modules/traffic/images/icon_nosuch-l.png",
                             "/sites/all/modules/traffic/images/icon_camera.png"}) {
        EXPECT_FALSE(picture(path, 404)) << path;
    }
}

}  // namespace
}  // namespace sorvan
