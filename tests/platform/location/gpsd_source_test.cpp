#include "sorvan/platform/location/gpsd_source.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

#include "location/track_readers.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "support/location_support.hpp"

namespace sorvan::location {
namespace {

using test::FakeGpsd;
using test::pumpUntil;
using test::RecordingLocationDelegate;

class GpsdSourceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        LocationManager::resetAuthorizationForTesting();
        dispatch::RunLoop::main().reset();
        threadsBefore_ = test::locationThreads();
    }
    void TearDown() override {
        manager_.reset();
        EXPECT_EQ(test::locationThreads(), threadsBefore_) << "a thread was left behind";
        dispatch::RunLoop::main().reset();
    }

    /// A manager on a gpsd at port that retries quickly and calls silence early.
    void listen(int port, double silence = 10) {
        GpsdSource::Options o;
        o.host = "127.0.0.1";
        o.port = std::to_string(port);
        o.retryFirst = std::chrono::milliseconds(50);
        o.retryMax = std::chrono::milliseconds(200);
        o.silenceLimit = std::chrono::duration<double>(silence);
        manager_ = LocationManager::create(GpsdSource::create(o));
        manager_->setDelegate(delegate_);
        manager_->setHeadingFilter(kHeadingFilterNone);
        manager_->startUpdatingLocation();
        manager_->startUpdatingHeading();
    }

    std::size_t threadsBefore_ = 0;
    std::shared_ptr<RecordingLocationDelegate> delegate_ =
        std::make_shared<RecordingLocationDelegate>();
    std::shared_ptr<LocationManager> manager_;
};

// The drive as the replay reads it, by time: what gpsd must agree with.
struct Drive {
    std::map<Timestamp, Location> positions;
    std::map<Timestamp, double> compass;  // each epoch's true heading (its HDT)
};

Drive readDrive() {
    std::ifstream in(test::locationFixture("drive.nmea"));
    NmeaReader reader(std::chrono::sys_days{});
    std::vector<TrackEvent> events;
    std::string line;
    while (std::getline(in, line)) {
        reader.feed(line, events);
    }
    reader.finish(events);
    Drive out;
    for (const auto& e : events) {
        if (auto* l = std::get_if<Location>(&e.report)) {
            out.positions[l->timestamp] = *l;
        } else if (auto* h = std::get_if<Heading>(&e.report)) {
            out.compass.emplace(h->timestamp, h->trueHeading);
        }
    }
    return out;
}

TEST_F(GpsdSourceTest, FollowsARealGpsdFedByGpsfakeAsTheReplayReadsTheSameLog) {
    test::GpsFake gpsfake(test::locationFixture("drive.nmea"));
    ASSERT_TRUE(gpsfake.started()) << "gpsfake (gpsd-clients) is needed: run scripts/setup";
    log::Capture capture;
    listen(gpsfake.port());
    bool enough = pumpUntil(
        [&] { return delegate_->locations.size() >= 30 && delegate_->headings.size() >= 20; },
        std::chrono::seconds(30));
    ASSERT_TRUE(enough) << "gpsfake said:\n" << gpsfake.output();
    EXPECT_EQ(delegate_->offMainCalls, 0u);

    // gpsd joins in while gpsfake loops over the log, and reports each epoch once for the
    // RMC and once for the GGA: every position is one of the log's, at its time.
    Drive drive = readDrive();
    auto recent = std::chrono::system_clock::now() - std::chrono::minutes(1);
    for (const Location& l : delegate_->locations) {
        SCOPED_TRACE(l.description());
        auto it = drive.positions.find(l.timestamp);
        if (it == drive.positions.end() && l.timestamp > recent) {
            // A GGA before gpsd learnt the date from an RMC: a fix report without a time,
            // stamped when it came. Its position is still one of the log's.
            EXPECT_TRUE(
                std::any_of(drive.positions.begin(), drive.positions.end(), [&](const auto& p) {
                    return std::abs(p.second.coordinate.latitude - l.coordinate.latitude) < 1e-7 &&
                           std::abs(p.second.coordinate.longitude - l.coordinate.longitude) < 1e-7;
                }));
            continue;
        }
        ASSERT_NE(it, drive.positions.end());
        EXPECT_NEAR(l.coordinate.latitude, it->second.coordinate.latitude, 1e-7);
        EXPECT_NEAR(l.coordinate.longitude, it->second.coordinate.longitude, 1e-7);
        EXPECT_NEAR(l.speed, it->second.speed, 0.02);
        EXPECT_DOUBLE_EQ(l.course, it->second.course);
        EXPECT_GT(l.horizontalAccuracy, 0);
    }
    // Its attitude reports carry the HDT headings, at the time of the epoch; with the RMC's
    // variation of 0.8 degrees west the magnetic heading is 0.8 more. (The course stands in
    // before the first, and where gpsfake starts the log over.)
    std::size_t compass = 0;
    for (const Heading& h : delegate_->headings) {
        if (h.headingAccuracy != kCompassAccuracy) {
            continue;
        }
        SCOPED_TRACE(h.description());
        auto it = drive.compass.find(h.timestamp);
        if (it == drive.compass.end() && h.timestamp > recent) {
            continue;  // an attitude report before any fix report: stamped when it came
        }
        ++compass;
        ASSERT_NE(it, drive.compass.end());
        EXPECT_NEAR(h.trueHeading, it->second, 1e-9);
        EXPECT_NEAR(h.magneticHeading, std::fmod(it->second + 0.8, 360), 1e-9);
    }
    EXPECT_GE(compass, 20u);
    // At most: gpsd was not listening yet when the source first tried.
    for (const auto& line : capture.lines()) {
        EXPECT_EQ(line,
                  "Location: gpsd at 127.0.0.1:" + std::to_string(gpsfake.port()) + " is back");
    }
}

TEST_F(GpsdSourceTest, ReportsAnOutageOnceRetriesAndComesBack) {
    int port = test::freeLoopbackPort();
    std::string name = "gpsd at 127.0.0.1:" + std::to_string(port);
    log::Capture capture;
    listen(port);
    ASSERT_TRUE(pumpUntil([&] { return !delegate_->errors.empty(); }));
    EXPECT_EQ(delegate_->errors,
              (std::vector<LocationError>{{ErrorCode::SourceUnavailable,
                                           "cannot reach " + name + ": Connection refused"}}));
    // Several retries later, still one report of the outage; the main queue never waited.
    auto started = std::chrono::steady_clock::now();
    pumpUntil([] { return false; }, std::chrono::milliseconds(600));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
    EXPECT_EQ(delegate_->errors.size(), 1u);

    {
        FakeGpsd gpsd(port);
        gpsd.setScript(
            {{FakeGpsd::version()}, {FakeGpsd::fix(13.7563, 100.5018, "2024-05-01T08:18:00.000Z")}},
            FakeGpsd::Then::Hold);
        ASSERT_TRUE(pumpUntil(
            [&] { return delegate_->locations.size() == 1 && !delegate_->headings.empty(); }));
        EXPECT_EQ(capture.lines(), std::vector<std::string>{"Location: " + name + " is back"});
        const Location& l = delegate_->locations[0];
        EXPECT_EQ(l.coordinate, (map::Coordinate{13.7563, 100.5018}));
        EXPECT_DOUBLE_EQ(l.altitude, 5.0);
        EXPECT_DOUBLE_EQ(l.horizontalAccuracy, 8.0);
        EXPECT_DOUBLE_EQ(l.speed, 3.0);
        EXPECT_DOUBLE_EQ(l.course, 90.0);
        // No compass: the course stands in.
        ASSERT_EQ(delegate_->headings.size(), 1u);
        EXPECT_DOUBLE_EQ(delegate_->headings[0].trueHeading, 90.0);
        EXPECT_DOUBLE_EQ(delegate_->headings[0].headingAccuracy, kCourseAccuracy);
    }
    // It went away mid-stream: reported, and the last position stands.
    ASSERT_TRUE(pumpUntil([&] { return delegate_->errors.size() == 2; }));
    EXPECT_EQ(delegate_->errors[1].code, ErrorCode::SourceUnavailable);
    EXPECT_EQ(delegate_->errors[1].description.rfind("lost " + name + ": ", 0), 0u)
        << delegate_->errors[1].description;
    EXPECT_EQ(manager_->location()->coordinate, (map::Coordinate{13.7563, 100.5018}));
    pumpUntil([] { return false; }, std::chrono::milliseconds(300));
    EXPECT_EQ(delegate_->errors.size(), 2u);
}

TEST_F(GpsdSourceTest, SkipsLinesThatAreNoReportsAndReportsSilenceOnce) {
    FakeGpsd gpsd;
    std::string name = "gpsd at 127.0.0.1:" + std::to_string(gpsd.port());
    std::string junk;
    for (int i = 0; i < 9; ++i) {
        junk += "{\"class\":\"NOISE\"}\r\n";
    }
    gpsd.setScript(
        {{FakeGpsd::version()},
         {FakeGpsd::fix(13.75, 100.50, "2024-05-01T08:18:00.000Z")},
         {"garbage \x01\xff here\r\n"},
         {junk},
         {"{\"class\":\"TPV\",\"mode\":3,\"lat\":\"abc\",\"lon\":100.0}\r\n"},
         {"{\"class\":\"TPV\",\"mode\":1,\"lat\":13.0,\"lon\":100.0}\r\n"},
         {"{\"class\":\"TPV\",\"mo"},
         {"de\":3,\"time\":\"2024-05-01T08:18:01.000Z\",\"lat\":13.76,\"lon\":100.51}\r\n"},
         {"{\"class\":\"ATT\",\"device\":\"x\",\"heading\":45.0}\r\n"},
         {std::string(6000, 'x') + "\r\n"}},
        FakeGpsd::Then::Hold);
    log::Capture capture;
    listen(gpsd.port(), 0.4);
    ASSERT_TRUE(pumpUntil([&] { return !delegate_->errors.empty(); }));
    ASSERT_EQ(delegate_->locations.size(), 2u);
    EXPECT_EQ(delegate_->locations[0].coordinate, (map::Coordinate{13.75, 100.50}));
    EXPECT_EQ(delegate_->locations[1].coordinate, (map::Coordinate{13.76, 100.51}));
    // The attitude report: a compass, with the fix's time.
    ASSERT_FALSE(delegate_->headings.empty());
    EXPECT_DOUBLE_EQ(delegate_->headings.back().trueHeading, 45.0);
    EXPECT_DOUBLE_EQ(delegate_->headings.back().headingAccuracy, kCompassAccuracy);
    EXPECT_EQ(delegate_->headings.back().timestamp, delegate_->locations[1].timestamp);
    EXPECT_EQ(
        capture.lines(),
        (std::vector<std::string>{
            "Location: " + name + " sent a line that is no report (1 so far): garbage ?? here",
            "Location: " + name +
                " sent a line that is no report (10 so far): {\"class\":\"NOISE\"}"}));
    EXPECT_EQ(delegate_->errors,
              (std::vector<LocationError>{
                  {ErrorCode::LocationUnknown, name + " has sent nothing for 0.4 s"}}));
    pumpUntil([] { return false; }, std::chrono::milliseconds(900));
    EXPECT_EQ(delegate_->errors.size(), 1u);
    // One session, after the connection check that lets a stop interrupt a slow connect.
    EXPECT_EQ(gpsd.connections(), 2u);
}

}  // namespace
}  // namespace sorvan::location
