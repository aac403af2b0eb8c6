// `sorvan locate` and `sorvan render --user` as a user runs them.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "sorvan/platform/graphics/image.hpp"
#include "support/foundation_support.hpp"
#include "support/location_support.hpp"
#include "tool_run.hpp"

namespace sorvan::test {
namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        out.push_back(line);
    }
    return out;
}

ToolRun sorvan(std::vector<std::string> args, const std::string& home) {
    ToolCall call;
    call.args = std::move(args);
    call.env = {{"SORVAN_HOME", home}, {"SORVAN_LOCATION", std::nullopt}};
    return runSorvan(call);
}

class LocateCommand : public ::testing::Test {
  protected:
    TempDir home_;
    const std::string drive_ = "replay:" + locationFixture("drive.nmea") + "?speed=max";
};

TEST_F(LocateCommand, PrintsTheDriveAsJSONLinesUntilTheCount) {
    ToolRun run = sorvan({"locate", "--source", drive_, "--count", "12", "--json"}, home_.path());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    std::vector<std::string> out = lines(run.out);
    ASSERT_EQ(out.size(), 12u);
    // Three epochs without a fix give their compass only (HDT and HDG alike), then the first
    // position, its headings, and so on.
    EXPECT_EQ(out[0], R"({"trueHeading":180.0,"magneticHeading":180.8,"headingAccuracy":5.0,)"
                      R"("timestamp":"2024-05-01T08:18:00Z"})");
    nlohmann::ordered_json first = nlohmann::ordered_json::parse(out[6]);
    std::vector<std::string> keys;
    for (const auto& [key, value] : first.items()) {
        keys.push_back(key);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"latitude", "longitude", "altitude", "accuracy",
                                              "speed", "course", "timestamp"}));
    EXPECT_NEAR(first["latitude"].get<double>(), 13 + 45.8940 / 60, 1e-9);
    EXPECT_EQ(first["altitude"], 4.3);
    EXPECT_EQ(first["accuracy"], 4.5);
    EXPECT_EQ(first["course"], 180.0);
    EXPECT_EQ(first["timestamp"], "2024-05-01T08:18:03Z");

    // Without --count it runs to the end of the track: 117 positions and 240 headings.
    run = sorvan({"locate", "--source", drive_}, home_.path());
    ASSERT_EQ(run.status, 0) << run.err;
    out = lines(run.out);
    ASSERT_EQ(out.size(), 357u);
    EXPECT_EQ(out[6],
              "location <+13.764900,+100.538300> +/- 4.50m (speed 11.99 mps / course "
              "180.00) @ 2024-05-01 08:18:03 +0000");
}

TEST_F(LocateCommand, FollowsGpsdAndSaysWhatWentWrong) {
    FakeGpsd gpsd;
    gpsd.setScript(
        {{FakeGpsd::version()}, {FakeGpsd::fix(13.7563, 100.5018, "2024-05-01T08:18:00.000Z")}},
        FakeGpsd::Then::Hold);
    std::string at = "gpsd://127.0.0.1:" + std::to_string(gpsd.port());
    ToolRun run = sorvan({"locate", "--source", at, "--count", "1"}, home_.path());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out,
              "location <+13.756300,+100.501800> +/- 8.00m (speed 3.00 mps / course "
              "90.00) @ 2024-05-01 08:18:00 +0000\n");

    int closed = freeLoopbackPort();
    std::string name = "gpsd at 127.0.0.1:" + std::to_string(closed);
    run = sorvan(
        {"locate", "--source", "gpsd://127.0.0.1:" + std::to_string(closed), "--timeout", "0.5"},
        home_.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "sorvan locate: warning: cannot reach " + name +
                           ": Connection refused\n"
                           "sorvan locate: nothing came from " +
                           name + "; the last failure: cannot reach " + name +
                           ": Connection refused\n");
    run = sorvan({"locate", "-q", "--source", "gpsd://127.0.0.1:" + std::to_string(closed),
                  "--timeout", "0.5"},
                 home_.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err.find("warning"), std::string::npos) << run.err;

    run = sorvan({"locate", "--source", "replay:" + home_.file("none.nmea")}, home_.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("nothing came from replay of " + home_.file("none.nmea") +
                           "; the last failure: cannot read " + home_.file("none.nmea") +
                           ": No such file or directory"),
              std::string::npos)
        << run.err;

    struct Usage {
        std::vector<std::string> args;
        std::string message;
    } usage[] = {
        {{"locate", "--source", "gpsd://host:99999"},
         "sorvan locate: --source: the gpsd port '99999' is not a number from 1 to 65535"},
        {{"locate", "--source", drive_, "--count", "0"}, "--count"},
        {{"locate", "--source", drive_, "--timeout", "-1"},
         "--timeout wants a positive number of seconds, got '-1'"},
    };
    for (const Usage& u : usage) {
        run = sorvan(u.args, home_.path());
        EXPECT_EQ(run.status, 2) << u.message;
        EXPECT_NE(run.err.find(u.message), std::string::npos) << run.err;
    }
}

TEST_F(LocateCommand, RenderTakesTheUserAndRefusesWhatDoesNotFit) {
    const std::vector<std::string> view = {"render", "--center", "13.7563,100.5018", "--zoom", "17",
                                           "--size", "160x120",  "--layers",         "white"};
    auto with = [&](std::vector<std::string> extra) {
        std::vector<std::string> args = view;
        args.insert(args.end(), extra.begin(), extra.end());
        return sorvan(args, home_.path());
    };
    std::string out = home_.file("user.png");
    struct Usage {
        std::vector<std::string> extra;
        std::string message;
    } usage[] = {
        {{"--user-arrow", "a.png", "-o", out}, "sorvan render: --user-arrow needs --user"},
        {{"--user-image", "a.png", "-o", out}, "sorvan render: --user-image needs --user"},
        {{"--user", "13.7,100.5@400", "-o", out},
         "--user wants LAT,LON or LAT,LON@HEADING (degrees from 0 to 360), got "
         "'13.7,100.5@400'"},
        {{"--user", "13.7,100.5@", "-o", out}, "--user wants LAT,LON"},
        {{"--user", "91,100.5", "-o", out}, "--user wants LAT,LON"},
        {{"--camera-heading", "east", "-o", out},
         "--camera-heading wants degrees from 0 to 360, got 'east'"},
    };
    for (const Usage& u : usage) {
        ToolRun run = with(u.extra);
        EXPECT_EQ(run.status, 2) << u.message;
        EXPECT_NE(run.err.find(u.message), std::string::npos) << run.err;
    }
    ToolRun run =
        with({"--user", "13.7563,100.5018", "--user-image", home_.file("none.png"), "-o", out});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(
        run.err.find("cannot read --user-image '" + home_.file("none.png") + "' as a picture"),
        std::string::npos)
        << run.err;
    EXPECT_FALSE(std::filesystem::exists(out));

    // A white map with nothing but the user on it is a picture, not a blank map.
    run = with({"--user", "13.7563,100.5018@30", "--scale", "2", "-o", out});
    ASSERT_EQ(run.status, 0) << run.err;
    auto image = gfx::Image::fromFile(out);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->pixelWidth(), 320);
}

}  // namespace
}  // namespace sorvan::test
