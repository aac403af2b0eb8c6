// `sorvan tags`, `sorvan events`, `sorvan cameras` and `sorvan camera` against the embedded
// service: what the view collected, in the documented JSON shape, and the kit's failure lines
// turned into exit status 1.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "sorvan/platform/graphics/image.hpp"
#include "tool_test.hpp"

namespace sorvan::test {
namespace {

class LiveCommands : public ToolTest {
  protected:
    // Local times in the listings are India's.
    ToolRun sorvan(std::vector<std::string> args, const std::string& base = "") {
        return ToolTest::sorvan(std::move(args), {{"TZ", "Asia/Kolkata"}}, base);
    }
    static std::vector<std::string> keysOf(const nlohmann::ordered_json& item) {
        std::vector<std::string> keys;
        for (const auto& [key, value] : item.items()) {
            keys.push_back(key);
        }
        return keys;
    }
};

TEST_F(LiveCommands, TagsListWhatTheViewCollectedFromTheTilesItDrew) {
    ToolRun r = sorvan({"tags", "attraction,food", "--center", "13.745,100.515", "--zoom", "13",
                        "--size", "360x260", "--scale", "2", "--lang", "en", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto tags = nlohmann::ordered_json::parse(r.out);
    ASSERT_TRUE(tags.is_array());
    ASSERT_FALSE(tags.empty());
    for (const auto& t : tags) {
        EXPECT_EQ(keysOf(t), (std::vector<std::string>{"poiid", "name", "type", "zoom", "latitude",
                                                       "longitude"}));
        EXPECT_EQ(t["zoom"], 13);
        // The tiles a 360 x 260 view at level 13 touches, and no farther.
        EXPECT_NEAR(t["latitude"].get<double>(), 13.745, 0.15);
        EXPECT_NEAR(t["longitude"].get<double>(), 100.515, 0.15);
    }
    // North to south, so a listing does not depend on the order the answers came in.
    for (std::size_t i = 1; i < tags.size(); ++i) {
        EXPECT_GE(tags[i - 1]["latitude"].get<double>(), tags[i]["latitude"].get<double>());
    }
    auto asked = service().requests("/ClusterService/json/cluster/epsg3857/13/");
    ASSERT_FALSE(asked.empty());
    for (const auto& request : asked) {
        EXPECT_TRUE(request.path.ends_with("/en")) << request.path;
        EXPECT_EQ(request.queryItem("tag[0]"), "attraction") << request.target;
        EXPECT_EQ(request.queryItem("tag[1]"), "food") << request.target;
        EXPECT_EQ(request.queryItem("key"), "cli-key") << request.target;
    }

    ToolRun table = sorvan(
        {"tags", "temple", "--center", "13.745,100.515", "--zoom", "15", "--size", "300x200"});
    ASSERT_EQ(table.status, 0) << table.err;
    EXPECT_TRUE(table.out.starts_with("POIID ")) << table.out;

    ToolRun failed = sorvan(
        {"tags", "food", "--center", "13.745,100.515", "--zoom", "13", "--size", "100x100", "-q"},
        closedOrigin());
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.out, "");
    EXPECT_TRUE(failed.err.starts_with("sorvan tags: ")) << failed.err;
    EXPECT_NE(failed.err.find("the first: showTags Error (13, "), std::string::npos) << failed.err;
}

TEST_F(LiveCommands, EventsListTheFeedAsTheViewHoldsItWithLocalTimes) {
    ToolRun r = sorvan({"events", "--lang", "en", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto events = nlohmann::ordered_json::parse(r.out);
    ASSERT_TRUE(events.is_array());
    ASSERT_FALSE(events.empty());
    const std::regex local(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)");
    for (const auto& e : events) {
        EXPECT_EQ(keysOf(e),
                  (std::vector<std::string>{"eventId", "eventTitle", "eventDescription", "iconName",
                                            "start", "stop", "contributor", "severity", "showlevel",
                                            "type", "latitude", "longitude"}));
        for (const char* when : {"start", "stop"}) {
            EXPECT_TRUE(e[when].is_null() || std::regex_match(e[when].get<std::string>(), local))
                << e.dump();
        }
        EXPECT_TRUE(e["eventId"].is_string());
    }
    ToolRun thai = sorvan({"events", "--json"});
    ASSERT_EQ(thai.status, 0) << thai.err;
    auto inThai = nlohmann::ordered_json::parse(thai.out);
    ASSERT_EQ(inThai.size(), events.size());
    EXPECT_NE(inThai[0]["eventTitle"], events[0]["eventTitle"]);
    EXPECT_EQ(inThai[0]["eventId"], events[0]["eventId"]);

    ToolRun failed = sorvan({"events"}, closedOrigin());
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.out, "");
    EXPECT_NE(failed.err.find("showEvents Error: "), std::string::npos) << failed.err;
    EXPECT_NE(failed.err.find("sorvan events: the event feed failed: showEvents Error: "),
              std::string::npos)
        << failed.err;
}

TEST_F(LiveCommands, CamerasListTheFeedAndCameraWritesWhatAViewShows) {
    ToolRun r = sorvan({"cameras", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto cameras = nlohmann::ordered_json::parse(r.out);
    ASSERT_GE(cameras.size(), 25u);
    for (const auto& c : cameras) {
        EXPECT_EQ(keysOf(c),
                  (std::vector<std::string>{"cameraId", "cameraTitle", "lastUpdate", "organization",
                                            "sponsorText", "sponsorImageURL", "url", "format",
                                            "latitude", "longitude"}));
    }
    EXPECT_EQ(cameras[0]["cameraId"], "CAM001");

    // A still (web picture) and a live camera (a decoded frame with its banner).
    for (const char* id : {"CAM001", "CAM003"}) {
        std::string png = home_.path() + "/" + id + ".png";
        ToolRun shot = sorvan({"camera", id, "--size", "320x180", "-o", png});
        ASSERT_EQ(shot.status, 0) << id << ": " << shot.err;
        auto image = gfx::Image::fromFile(png);
        ASSERT_TRUE(image) << id;
        EXPECT_EQ(image->pixelWidth(), 320);
        EXPECT_EQ(image->pixelHeight(), 180);
    }
    ToolRun unknown = sorvan({"camera", "CAM999", "-o", home_.path() + "/x.png"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.err.find("the camera feed has no camera 'CAM999'"), std::string::npos)
        << unknown.err;

    ToolRun failed = sorvan({"cameras"}, closedOrigin());
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.out, "");
    EXPECT_NE(failed.err.find("sorvan cameras: the camera feed failed: showCameras Error: "),
              std::string::npos)
        << failed.err;
}

}  // namespace
}  // namespace sorvan::test
