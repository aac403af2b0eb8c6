#include <gtest/gtest.h>

#include <string>

#include "sorvan/platform/graphics/image.hpp"
#include "support/service_harness.hpp"
#include "tile_painter.hpp"

namespace sorvan::server {
namespace {

class MapServerRoute : public sorvan::testing::ServiceTest {};

std::shared_ptr<gfx::Image> decode(const sorvan::testing::FetchResult& r) {
    std::string body = r.body();
    return gfx::Image::fromData(
        std::span(reinterpret_cast<const std::uint8_t*>(body.data()), body.size()));
}

TEST_F(MapServerRoute, ServesThePartnerTrafficAndBoxPaths) {
    for (const char* path :
         {"/partner/map/msn-server/img.php?mode=thaichote&res=0&imgid=0&key=k&HD=1",
          "/traffic/map/msn-server/img.php?mode=trafficoverlay&res=2&imgid=923456789&key=k",
          "/box/map/msn-server/img.php?mode=gray-en&res=8&imgid=39708641927&key=k"}) {
        auto r = sorvan::testing::fetch(url(path));
        EXPECT_EQ(r.status(), 200) << path;
        EXPECT_NE(decode(r), nullptr) << path;
    }
}

// Tile 12/3191/1889 of Bangkok (n = 3191 + 1889 * 4096), as the kit asks for it; bad numbers
// and query faults are checked with the other tile paths.
TEST_F(MapServerRoute, AnswersTheTileNamedByResAndImageIdStampedOnlyWhenAsked) {
    const std::string tile =
        "/map/msn-server/img.php?c=1&proj=epsg3857&mode=normal&res=4096&imgid=7148049596242115"
        "&key=test&HD=1";
    auto plain = paintTile("normal", 12, 3191, 1889);
    auto stamped = paintTile("normal", 12, 3191, 1889, true);
    ASSERT_NE(plain->pixels(), stamped->pixels());

    auto pixelsOf = [&](const std::string& pathAndQuery) {
        auto image = decode(sorvan::testing::fetch(url(pathAndQuery)));
        return image ? image->pixels() : std::vector<std::uint32_t>{};
    };
    EXPECT_EQ(pixelsOf(tile), plain->pixels());
    EXPECT_EQ(pixelsOf(tile + "&stamp=1"), stamped->pixels());
    EXPECT_EQ(pixelsOf(tile + "&stamp=0"), plain->pixels());
    EXPECT_EQ(pixelsOf("/tiles/12/3191/1889.png?stamp=1"), stamped->pixels());
    EXPECT_EQ(pixelsOf("/tiles/12/3191/1889.png"), plain->pixels());

    // The whole service stamps, as `sorvan serve --stamp` asks; WMS boxes never.
    service().setStampTiles(true);
    EXPECT_EQ(pixelsOf(tile), stamped->pixels());
    EXPECT_EQ(pixelsOf("/tiles/12/3191/1889.png"), stamped->pixels());
    service().setStampTiles(false);
    EXPECT_EQ(pixelsOf(tile), plain->pixels());
}

}  // namespace
}  // namespace sorvan::server
