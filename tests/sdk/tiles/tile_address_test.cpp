// The address forms, one test per form, each with its boundary values.
#include <gtest/gtest.h>

#include <string>

#include "tiles/tile_address.hpp"

namespace sorvan::tiles {
namespace {

map::TilePath tile(std::int64_t x, std::int64_t y, std::int64_t z) {
    return {x, y, z, 2.0};
}

TEST(TileAddress, ResolutionIsAThirtyTwoBitShiftThatWraps) {
    EXPECT_EQ(resolution(0), 0);  // the shift count wraps to 31
    EXPECT_EQ(resolution(1), 2);
    EXPECT_EQ(resolution(3), 8);
    EXPECT_EQ(resolution(30), 1073741824);
    EXPECT_EQ(resolution(31), -2147483648LL);  // sign-extended
    EXPECT_EQ(resolution(32), 0);
    EXPECT_EQ(resolution(33), 2);
}

TEST(TileAddress, MapServerAddressCarriesResAndDoubleImageId) {
    EXPECT_EQ(mapServerAddress("http://h/map/msn-server/img.php", "normal-en", tile(3, 5, 3), "K"),
              "http://h/map/msn-server/img.php?c=1&proj=epsg3857&mode=normal-en&res=8"
              "&imgid=39708641927&key=K&HD=1");
    EXPECT_EQ(mapServerAddress("b", "base", tile(0, 0, 0), ""),
              "b?c=1&proj=epsg3857&mode=base&res=0&imgid=0&key=&HD=1");
    // Above 2^53 the id is the rounded double product, not the exact integer one.
    std::int64_t last = (std::int64_t{1} << 20) - 1;
    EXPECT_EQ(mapServerAddress("b", "m", tile(last, last, 20), "k"),
              "b?c=1&proj=epsg3857&mode=m&res=1048576&imgid=1015351477253264769024&key=k&HD=1");
    // Nothing is escaped.
    EXPECT_EQ(mapServerAddress("b", "a b", tile(1, 0, 1), "k&x"),
              "b?c=1&proj=epsg3857&mode=a b&res=2&imgid=923456789&key=k&x&HD=1");
}

TEST(TileAddress, ModeStringsFollowTheLanguage) {
    const char* thai[] = {"base",
                          "gistda_spot5",
                          "gray",
                          "hydro",
                          "mapquest_osm",
                          "normal",
                          "normalr",
                          "osm_opencycle",
                          "osm",
                          "icons",
                          "politicalwhite",
                          "politicalwhitenolabel",
                          "bluemarble_terrain",
                          "thaichote",
                          "thaichote",
                          "iconstransp",
                          "trafficoverlay"};
    for (int m = 0; m <= 16; ++m) {
        EXPECT_EQ(modeString(m, 0), thai[m]) << m;
        EXPECT_EQ(modeString(m, 1), thai[m]) << m;
        EXPECT_EQ(modeString(m, 3), thai[m]) << m;
    }
    for (int m : {2, 5, 6, 9, 10, 15}) {
        EXPECT_EQ(modeString(m, 2), std::string(thai[m]) + "-en") << m;
    }
    for (int m : {0, 1, 3, 4, 7, 8, 11, 12, 13, 14, 16}) {
        EXPECT_EQ(modeString(m, 2), thai[m]) << m;
    }
    for (int m : {17, 18, 19, 20, 21, 22, -1}) {
        EXPECT_EQ(modeString(m, 0), "") << m;
        EXPECT_EQ(modeString(m, 2), "") << m;
    }
}

TEST(TileAddress, OfflineGrayPathGroupsAFifteenDigitKey) {
    EXPECT_EQ(offlineGrayPath(tile(5, 3, 2)), "grayproxy/2/grayproxy/000/000/000/000/017.jpg");
    EXPECT_EQ(offlineGrayPath(tile(0, 0, 0)), "grayproxy/0/grayproxy/000/000/000/000/000.jpg");
    EXPECT_EQ(offlineGrayPath(tile(123456, 654321, 20)),
              "grayproxy/20/grayproxy/000/686/105/420/352.jpg");
}

TEST(TileAddress, WMSBoxesInDegreesAndMetres) {
    EXPECT_EQ(wmsAddress("http://w/wms", 5, tile(1, 0, 1)),
              "http://w/wms?SERVICE=WMS&REQUEST=GetMap&VERSION=1.1.1&SRS=EPSG:3857"
              "&BBOX=0.000000,-0.000000,20037508.342789,20037508.342789"
              "&EXCEPTIONS=BLANK&TILED=true&FORMAT=image/png&TRANSPARENT=true&WIDTH=256"
              "&HEIGHT=256");
    EXPECT_EQ(wmsAddress("http://w/wms", 4, tile(6, 3, 3)),
              "http://w/wms?SERVICE=WMS&REQUEST=GetMap&VERSION=1.1.1&SRS=EPSG:4326"
              "&BBOX=90.000000,0.000000,135.000000,40.979898"
              "&EXCEPTIONS=BLANK&TILED=true&FORMAT=image/png&TRANSPARENT=true&WIDTH=256"
              "&HEIGHT=256");
    // A template with its own query and FORMAT keeps it; the other defaults still follow.
    EXPECT_EQ(wmsAddress("http://w/wms?LAYERS=a&FORMAT=image/jpeg", 4, tile(0, 0, 0)),
              "http://w/wms?LAYERS=a&FORMAT=image/jpeg&SERVICE=WMS&REQUEST=GetMap"
              "&VERSION=1.1.1&SRS=EPSG:4326&BBOX=-180.000000,-85.051129,180.000000,85.051129"
              "&EXCEPTIONS=BLANK&TILED=true&TRANSPARENT=true&WIDTH=256&HEIGHT=256");
    // The key test is case-sensitive and looks at the whole template.
    std::string lower =
        wmsAddress("http://w/wms?width=512&TRANSPARENT=false&HEIGHT=1", 5, tile(0, 0, 1));
    EXPECT_NE(lower.find("&WIDTH=256"), std::string::npos);
    EXPECT_EQ(lower.find("&TRANSPARENT=true"), std::string::npos);
    EXPECT_EQ(lower.find("&HEIGHT=256"), std::string::npos);
}

TEST(TileAddress, TemplatesFillTheirPlaceholders) {
    EXPECT_EQ(xyzAddress("t/{z}/{x}/{y}/{x}.png", 0, tile(3, 1, 2)), "t/2/3/1/3.png");
    EXPECT_EQ(xyzAddress("t/{z}/{x}/{y}", 1, tile(3, 1, 2)), "t/2/3/1");
    EXPECT_EQ(xyzAddress("t/{z}/{x}/{y}", 2, tile(3, 1, 2)), "t/2/3/2");  // 4 - 1 - 1
    EXPECT_EQ(xyzAddress("t/{z}/{x}/{y}", 2, tile(0, 0, 0)), "t/0/0/0");
    EXPECT_EQ(xyzAddress("t/{z}/{x}/{y}", 7, tile(3, 1, 2)), "t/2/3/1");
    EXPECT_EQ(xyzAddress("t/{u}/{ux}", 0, tile(3, 1, 2)), "t/{u}/{ux}");
    EXPECT_EQ(dataAddress("d/{u}/{v}/{z}/{w}?ux={ux}&x={x}", tile(3, 1, 2)),
              "d/3/1/2/18?ux=false&x={x}");
    EXPECT_EQ(dataAddress("{w}", tile(0, 0, 22)), "-2");
}

TEST(TileAddress, CacheNamesHaveTwelveSpacesInTheMiddle) {
    EXPECT_EQ(cacheName(""),
              "E3B0C44298FC1C149AFBF4C8996FB9            2427AE41E4649B934CA495991B7852B855");
    std::string name = cacheName("http://a/b");
    EXPECT_EQ(name, "1972C518DA8E66A8782803107E4661            595E4AF1727C3C6087BEAA9755EA3FC684");
    EXPECT_EQ(name.size(), 76u);
    // Hashed as a C string: nothing after a zero byte counts.
    EXPECT_EQ(cacheName(std::string("http://a/b\0tail", 15)), name);
}

}  // namespace
}  // namespace sorvan::tiles
