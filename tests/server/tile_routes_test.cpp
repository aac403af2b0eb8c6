// The template, WMS and data tile paths of the embedded service, as a client sees them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "sorvan/platform/graphics/image.hpp"
#include "support/service_harness.hpp"

namespace sorvan {
namespace {

class TileRoutes : public testing::ServiceTest {
  protected:
    static std::shared_ptr<gfx::Image> picture(const testing::FetchResult& r) {
        return r.data ? gfx::Image::fromData(*r.data) : nullptr;
    }
};

TEST_F(TileRoutes, WMSPaintsTheRequestedBoxAtTheRequestedSize) {
    auto r = testing::fetch(
        url("/wms?SERVICE=WMS&REQUEST=GetMap&VERSION=1.1.1&SRS=EPSG:3857"
            "&BBOX=11100000.0,1500000.0,11200000.0,1600000.0&FORMAT=image/png&WIDTH=300"
            "&HEIGHT=200&TRANSPARENT=true"));
    ASSERT_EQ(r.status(), 200);
    auto image = picture(r);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->pixelWidth(), 300);
    EXPECT_EQ(image->pixelHeight(), 200);

    // Degrees, lower-case parameter names, and a style named by LAYERS.
    r =
        testing::fetch(url("/wms?service=WMS&request=GetMap&srs=EPSG:4326&bbox=100,13,101,14"
                           "&width=256&height=256&layers=iconstransp"));
    ASSERT_EQ(r.status(), 200);
    ASSERT_TRUE(picture(r));
    EXPECT_FALSE(picture(r)->isOpaque());
}

TEST_F(TileRoutes, WMSRefusesWhatItCannotDraw) {
    const std::string good = "SERVICE=WMS&REQUEST=GetMap&SRS=EPSG:3857&WIDTH=256&HEIGHT=256";
    for (const std::string& query : std::vector<std::string>{
             good,  // no BBOX
             good + "&BBOX=1,2,3",
             good + "&BBOX=3,2,1,4",  // empty
             "SERVICE=WMS&REQUEST=GetCapabilities",
             "SERVICE=WMS&REQUEST=GetMap&SRS=EPSG:9999&WIDTH=256&HEIGHT=256&BBOX=1,2,3,4",
             "SERVICE=WMS&REQUEST=GetMap&SRS=EPSG:3857&WIDTH=0&HEIGHT=256&BBOX=1,2,3,4",
             good + "&BBOX=1,2,3,4&FORMAT=image/jpeg",
         }) {
        EXPECT_EQ(testing::fetch(url("/wms?" + query)).status(), 400) << query;
    }
}

TEST_F(TileRoutes, TMSCountsRowsFromTheSouth) {
    auto tms = testing::fetch(url("/tms/2/3/0.png"));
    auto xyz = testing::fetch(url("/tiles/2/3/3.png"));
    ASSERT_EQ(tms.status(), 200);
    EXPECT_EQ(tms.data, xyz.data);
    EXPECT_NE(testing::fetch(url("/tiles/2/3/0.png")).data, xyz.data);
    EXPECT_TRUE(picture(testing::fetch(url("/tiles/0/0/0"))));  // the extension is optional
    for (const char* bad : {"/tiles/1/2/0.png", "/tiles/1/0/2.png", "/tiles/a/0/0.png",
                            "/tiles/1/0.png", "/tms/-1/0/0.png", "/overlay/1/0/0/0.png"}) {
        EXPECT_EQ(testing::fetch(url(bad)).status(), 404) << bad;
    }
}

TEST_F(TileRoutes, DataTilesEchoTheirAddressAndFaultsFollowTheQuery) {
    auto r = testing::fetch(url("/data/2/3/1?w=18&ux=false"));
    ASSERT_EQ(r.status(), 200);
    EXPECT_EQ(r.body(), R"({"path":"/data/2/3/1","query":"w=18&ux=false"})");

    EXPECT_EQ(testing::fetch(url("/tiles/1/0/0.png?status=503")).status(), 503);
    auto garbage = testing::fetch(url("/overlay/1/0/0.png?garbage=1"));
    EXPECT_EQ(garbage.status(), 200);
    EXPECT_FALSE(picture(garbage));
    EXPECT_EQ(testing::fetch(url("/tiles/1/0/0.png?delay=0.05")).status(), 200);
}

TEST_F(TileRoutes, NumbersInAQueryCountOnlyWhenTheyAreTheWholeValue) {
    const std::string map = "/map/msn-server/img.php?mode=normal&res=0&imgid=0";
    // A fault asked with something that is not wholly a number is no fault at all.
    for (const std::string& path :
         {std::string("/tiles/1/0/0.png?status=503x"), std::string("/tiles/1/0/0.png?status=0x1F7"),
          map + "&status=503x", map + "&status=%20503", map + "&status=5e2"}) {
        EXPECT_EQ(testing::fetch(url(path)).status(), 200) << path;
    }
    EXPECT_EQ(testing::fetch(url(map + "&status=+503")).status(), 503);

    // Tile addresses and boxes whose numbers have another shape are refused.
    for (const char* res : {"0x0", "%200", "0abc", "nan"}) {
        std::string path =
            std::string("/map/msn-server/img.php?mode=normal&res=") + res + "&imgid=0";
        EXPECT_EQ(testing::fetch(url(path)).status(), 400) << path;
    }
    const std::string wms =
        "/wms?SERVICE=WMS&REQUEST=GetMap&SRS=EPSG:3857&WIDTH=256&HEIGHT=256&BBOX=";
    EXPECT_EQ(testing::fetch(url(wms + "1,2,3,4")).status(), 200);
    for (const char* box : {"0x1,2,3,4", "%201,2,3,4", "1,2,3,inf", "1,2,3,1e999"}) {
        EXPECT_EQ(testing::fetch(url(wms + box)).status(), 400) << box;
    }

    // A page size that is not wholly a number gives the default page.
    auto hits = [&](const std::string& limit) {
        auto r = testing::fetch(url("/mapsearch/json/search?keyword=a&limit=" + limit));
        return nlohmann::json::parse(r.body()).at("data").size();
    };
    EXPECT_EQ(hits("3"), 3u);
    EXPECT_EQ(hits("+3"), 3u);
    EXPECT_EQ(hits("3x"), hits(""));
    EXPECT_GT(hits(""), 3u);
}

}  // namespace
}  // namespace sorvan
