// The embedded camera service: the feed's mix of cameras, their pictures (a JPEG still that
// follows the clock, an animated PNG) and the sponsors' banners.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "camera_pictures.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "support/service_harness.hpp"

namespace sorvan::test {
namespace {

using namespace std::chrono_literals;
using sorvan::testing::fetch;
using sorvan::testing::FetchResult;

class CameraService : public sorvan::testing::ServiceTest {};

std::shared_ptr<gfx::Image> picture(const FetchResult& r) {
    if (!r.data) {
        return nullptr;
    }
    return gfx::Image::fromData(*r.data);
}

TEST_F(CameraService, TheFeedHoldsStillsMovingPicturesAndStreamsOnBangkokRoads) {
    auto r = fetch(url("/camera.json"));
    ASSERT_EQ(r.status(), 200);
    auto feed = nlohmann::json::parse(r.body());
    const auto& items = feed.at("item");
    ASSERT_GE(items.size(), 25u);
    std::map<std::string, int> motion;
    std::set<std::string> ids;
    int live = 0, dateOnly = 0;
    for (const auto& item : items) {
        ids.insert(item.at("camid").get<std::string>());
        motion[item.contains("motion") ? item["motion"].get<std::string>() : "(none)"]++;
        live += item.at("hls_url").is_string() ? 1 : 0;
        dateOnly += item.at("lastupdate").get<std::string>().size() == 10 ? 1 : 0;
        EXPECT_NEAR(item.at("latitude").get<double>(), 13.75, 0.3);
        EXPECT_NEAR(item.at("longitude").get<double>(), 100.53, 0.3);
        EXPECT_TRUE(item.at("imgurl").get<std::string>().starts_with(origin() + "/cctv/still/"));
    }
    EXPECT_EQ(ids.size(), items.size());
    EXPECT_GT(motion["Y"], live) << "moving pictures without a stream";
    EXPECT_GT(live, 0);
    EXPECT_GT(motion["y"], 0);
    EXPECT_GT(motion["(none)"], 0);
    EXPECT_GT(dateOnly, 0);

    // Every picture and banner the feed names is there.
    for (const auto& item : items) {
        const char* member =
            item.value("motion", "") == "Y" && item["hls_url"].is_null() ? "vdourl" : "imgurl";
        auto address = *net::URL::fromString(item.at(member).get<std::string>());
        EXPECT_NE(picture(fetch(address)), nullptr) << address.absoluteString();
        EXPECT_NE(picture(fetch(url("/feed/images/" + item.at("overlay_file").get<std::string>()))),
                  nullptr);
    }
}

TEST_F(CameraService, StillsFollowTheClockAndMovingPicturesAnimate) {
    auto at = std::chrono::system_clock::time_point(1'700'000'000s);
    std::string a = server::cameraStillJPEG("CAM001", at);
    EXPECT_EQ(a, server::cameraStillJPEG("CAM001", at));
    EXPECT_NE(a, server::cameraStillJPEG("CAM001", at + 2s));
    auto still =
        gfx::Image::fromData(std::span(reinterpret_cast<const std::uint8_t*>(a.data()), a.size()));
    ASSERT_TRUE(still);
    EXPECT_EQ(still->pixelWidth(), 640);
    EXPECT_EQ(still->pixelHeight(), 360);

    std::string apng = server::cameraMotionAPNG("CAM002", at);
    EXPECT_NE(apng.find("acTL"), std::string::npos);
    std::size_t frames = 0;
    for (auto p = apng.find("fcTL"); p != std::string::npos; p = apng.find("fcTL", p + 4)) {
        ++frames;
    }
    EXPECT_EQ(frames, 8u);
    // Readers without animation see the first picture.
    EXPECT_NE(gfx::Image::fromData(
                  std::span(reinterpret_cast<const std::uint8_t*>(apng.data()), apng.size())),
              nullptr);

    EXPECT_EQ(fetch(url("/cctv/still/CAM999.jpg")).status(), 404);
    EXPECT_EQ(fetch(url("/cctv/motion/CAM001.jpg")).status(), 404);
    EXPECT_EQ(fetch(url("/feed/images/nothing.png")).status(), 404);
}

}  // namespace
}  // namespace sorvan::test
