#include "sorvan/platform/location/replay_location_source.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "sorvan/platform/foundation/dispatch.hpp"

namespace sorvan::location {
namespace {

// Which sentences count is the track reader's business; here, what a fix takes from them.
TEST(ReplayLocationSource, MakesFixesOfTheNMEAPositionsOnly) {
    const char* log =
        "$GPRMC,081836,A,1345.378,N,10030.108,E,000.0,360.0,130998,011.3,E*7A\r\n"
        "$GPRMC,081836,A,1345.378,N,10030.108,E,000.0,360.0,130998,011.3,E*00\n"  // checksum
        "$GPGGA,123519,3351.000,S,15112.000,E,1,08,0.9,545.4,M,46.9,M,,\n"
        "garbage\n";
    auto fixes = ReplayLocationSource::parseNMEA(log);
    ASSERT_EQ(fixes.size(), 2u);
    EXPECT_NEAR(fixes[0].coordinate.latitude, 13 + 45.378 / 60, 1e-9);
    EXPECT_NEAR(fixes[0].coordinate.longitude, 100 + 30.108 / 60, 1e-9);
    EXPECT_EQ(fixes[0].course, 0.0);  // 360 is north
    EXPECT_NEAR(fixes[1].coordinate.latitude, -(33 + 51.0 / 60), 1e-9);
    EXPECT_DOUBLE_EQ(fixes[1].horizontalAccuracy, 4.5);
}

TEST(ReplayLocationSource, ReadsGPXTrackPointsAndRejectsUnreadableFiles) {
    auto fixes = ReplayLocationSource::parseGPX(
        "<gpx><trk><trkseg><trkpt lon=\"100.5\" lat=\"13.75\"/>"
        "<trkpt lat='13.76' lon='100.51'><ele>2</ele></trkpt>"
        "<trkpt lat=\"95\" lon=\"100\"/><trkpt lat=\"abc\" lon=\"1\"/></trkseg></trk>"
        "<wpt lat=\"1\" lon=\"2\"/></gpx>");
    // Way points are no track.
    ASSERT_EQ(fixes.size(), 2u);
    EXPECT_EQ(fixes[0].coordinate, (map::Coordinate{13.75, 100.5}));
    EXPECT_EQ(fixes[1].coordinate, (map::Coordinate{13.76, 100.51}));
    EXPECT_TRUE(
        ReplayLocationSource::parseGPX("<gpx><trk><trkseg><trkpt lat='1' lon='2'>").empty());

    std::string error;
    EXPECT_EQ(
        ReplayLocationSource::fromFile("/nonexistent/track.gpx", std::chrono::seconds(1), &error),
        nullptr);
    EXPECT_EQ(error, "cannot read /nonexistent/track.gpx");
    auto path = std::filesystem::temp_directory_path() / "sorvan_replay_empty.nmea";
    std::ofstream(path) << "nothing here\n";
    EXPECT_EQ(ReplayLocationSource::fromFile(path.string(), std::chrono::seconds(1), &error),
              nullptr);
    EXPECT_EQ(error, "no valid fix in NMEA file " + path.string());
    std::filesystem::remove(path);
}

TEST(ReplayLocationSource, DeliversFixesInTurnOnTheMainQueueUntilStopped) {
    auto clock = std::make_shared<dispatch::ManualClock>();
    auto& loop = dispatch::RunLoop::main();
    loop.setClock(clock);
    std::vector<map::LocationFix> fixes(3);
    for (int i = 0; i < 3; ++i)
        fixes[i].coordinate = {10.0 + i, 100};
    ReplayLocationSource source(fixes, std::chrono::seconds(1));
    std::vector<double> seen;
    source.start({[&](const map::LocationFix& f) { seen.push_back(f.coordinate.latitude); },
                  nullptr, nullptr});
    EXPECT_TRUE(seen.empty());
    loop.drain();
    EXPECT_EQ(seen, (std::vector<double>{10}));
    clock->advance(std::chrono::seconds(1));
    loop.drain();
    EXPECT_EQ(seen, (std::vector<double>{10, 11}));
    source.stop();
    clock->advance(std::chrono::seconds(5));
    loop.drain();
    EXPECT_EQ(seen.size(), 2u);
    loop.setClock(nullptr);
}

}  // namespace
}  // namespace sorvan::location
