#include "sorvan/platform/location/location_manager.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/location/replay_source.hpp"
#include "support/foundation_support.hpp"
#include "support/location_support.hpp"

namespace sorvan::location {
namespace {

using test::pumpUntil;
using test::RecordingLocationDelegate;

Location at(double latitude, double longitude) {
    Location l;
    l.coordinate = {latitude, longitude};
    l.horizontalAccuracy = 5;
    return l;
}

Heading heading(double degrees, double accuracy = 5) {
    Heading h;
    h.magneticHeading = degrees;
    h.trueHeading = degrees;
    h.headingAccuracy = accuracy;
    return h;
}

class LocationManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        LocationManager::resetAuthorizationForTesting();
        dispatch::RunLoop::main().reset();
    }
    void TearDown() override {
        LocationManager::resetAuthorizationForTesting();
        dispatch::RunLoop::main().reset();
    }

    /// A manager on source, authorised, updating both.
    std::shared_ptr<LocationManager> listening(std::shared_ptr<Source> source) {
        auto m = LocationManager::create(std::move(source));
        m->setDelegate(delegate_);
        m->requestWhenInUseAuthorization();
        m->startUpdatingLocation();
        m->startUpdatingHeading();
        return m;
    }

    std::shared_ptr<RecordingLocationDelegate> delegate_ =
        std::make_shared<RecordingLocationDelegate>();
};

TEST_F(LocationManagerTest, DeliversOnTheMainQueueInOrderBatchingWhatPiledUp) {
    auto source = ManualSource::create();
    auto manager = listening(source);
    std::thread pusher([&] {
        for (int i = 0; i < 5; ++i) {
            source->pushLocation(at(13.70 + i * 0.01, 100.5));
        }
        source->pushHeading(heading(42));
        source->pushFailure({ErrorCode::LocationUnknown, "no fix"});
        source->pushLocation(at(13.80, 100.5));
    });
    pusher.join();
    ASSERT_TRUE(pumpUntil([&] { return delegate_->locations.size() == 6; }));
    EXPECT_EQ(delegate_->offMainCalls, 0u);
    EXPECT_EQ(delegate_->statuses,
              std::vector<AuthorizationStatus>{AuthorizationStatus::AuthorizedWhenInUse});
    // Everything that piled up before the main queue ran came in one drain: the five
    // positions in one call, then the heading and the failure, then the last position.
    EXPECT_EQ(delegate_->batchSizes, (std::vector<std::size_t>{5, 1}));
    EXPECT_DOUBLE_EQ(delegate_->locations[4].coordinate.latitude, 13.74);
    ASSERT_EQ(delegate_->headings.size(), 1u);
    EXPECT_EQ(delegate_->errors,
              (std::vector<LocationError>{{ErrorCode::LocationUnknown, "no fix"}}));
    EXPECT_DOUBLE_EQ(manager->location()->coordinate.latitude, 13.80);

    // A second listener hears the last position and heading at once, and both hear what
    // comes next.
    auto late = std::make_shared<RecordingLocationDelegate>();
    auto second = LocationManager::create(source);
    second->setDelegate(late);
    second->startUpdatingLocation();
    second->startUpdatingHeading();
    source->pushLocation(at(13.90, 100.5));
    ASSERT_TRUE(
        pumpUntil([&] { return late->locations.size() == 2 && delegate_->locations.size() == 7; }));
    EXPECT_DOUBLE_EQ(late->locations[0].coordinate.latitude, 13.80);
    EXPECT_DOUBLE_EQ(late->headings.at(0).magneticHeading, 42);
    EXPECT_EQ(source->subscriberCount(), 2u);
    second.reset();
    EXPECT_EQ(source->subscriberCount(), 1u);
}

TEST_F(LocationManagerTest, KeepsDeliveringAfterTheMainQueueDroppedItsTask) {
    auto source = ManualSource::create();
    auto manager = listening(source);
    source->pushLocation(at(13.75, 100.5));
    dispatch::RunLoop::main().reset();  // as between tests: the posted delivery is gone
    source->pushLocation(at(13.76, 100.5));
    ASSERT_TRUE(pumpUntil([&] { return delegate_->locations.size() == 2; }));
    EXPECT_DOUBLE_EQ(delegate_->locations[1].coordinate.latitude, 13.76);
}

TEST_F(LocationManagerTest, FiltersHeadingsByTurnAndPositionsByDistance) {
    auto source = ManualSource::create();
    auto manager = listening(source);
    manager->setHeadingFilter(5);
    manager->setDistanceFilter(100);
    for (double d : {10.0, 12.0, 15.5, 19.0}) {
        source->pushHeading(heading(d));
    }
    source->pushHeading(heading(19.0, -1));  // became unreliable: always told
    source->pushHeading(heading(19.0, -1));  // no change
    source->pushHeading(heading(357.0, 5));  // reliable again, across north
    source->pushHeading(heading(1.0, 5));    // 4 degrees across north: held back
    source->pushHeading(heading(2.5, 5));    // 5.5 from 357
    // Latitude steps of about 55 m: only every second one moves 100 m from the last told.
    for (int i = 0; i < 5; ++i) {
        source->pushLocation(at(13.75 + i * 0.0005, 100.5));
    }
    Location invalid = at(0, 0);
    invalid.horizontalAccuracy = -1;
    source->pushLocation(invalid);
    ASSERT_TRUE(pumpUntil([&] { return delegate_->headings.size() >= 5; }));
    dispatch::RunLoop::main().drain();
    std::vector<double> degrees;
    for (const auto& h : delegate_->headings) {
        degrees.push_back(h.magneticHeading);
    }
    EXPECT_EQ(degrees, (std::vector<double>{10.0, 15.5, 19.0, 357.0, 2.5}));
    EXPECT_LT(delegate_->headings[2].headingAccuracy, 0);
    ASSERT_EQ(delegate_->locations.size(), 3u);
    EXPECT_DOUBLE_EQ(delegate_->locations[1].coordinate.latitude, 13.751);
    EXPECT_DOUBLE_EQ(delegate_->locations[2].coordinate.latitude, 13.752);
}

TEST_F(LocationManagerTest, LetsTheHostsHandlerDecideAuthorisation) {
    std::function<void(bool)> decide;
    int asked = 0;
    LocationManager::setAuthorizationHandler([&](std::function<void(bool)> d) {
        ++asked;
        decide = std::move(d);
    });
    auto source = ManualSource::create();
    source->pushLocation(at(13.75, 100.5));
    auto manager = listening(source);
    manager->requestWhenInUseAuthorization();  // one question at a time
    ASSERT_TRUE(pumpUntil([&] { return asked == 1; }));
    EXPECT_EQ(LocationManager::authorizationStatus(), AuthorizationStatus::NotDetermined);
    EXPECT_EQ(source->subscriberCount(), 0u);

    decide(false);
    decide(true);  // only the first answer counts
    ASSERT_TRUE(pumpUntil([&] { return !delegate_->errors.empty(); }));
    EXPECT_EQ(delegate_->statuses, std::vector<AuthorizationStatus>{AuthorizationStatus::Denied});
    EXPECT_EQ(delegate_->errors,
              (std::vector<LocationError>{
                  {ErrorCode::Denied, "the application may not use the location"}}));
    EXPECT_TRUE(delegate_->locations.empty());
    manager->startUpdatingHeading();
    ASSERT_TRUE(pumpUntil([&] { return delegate_->errors.size() == 2; }));

    // Asked again and granted later, from another thread: what the source knows flows.
    LocationManager::resetAuthorizationForTesting();
    std::function<void(bool)> later;
    LocationManager::setAuthorizationHandler([&](std::function<void(bool)> d) { later = d; });
    manager->requestWhenInUseAuthorization();
    ASSERT_TRUE(pumpUntil([&] { return static_cast<bool>(later); }));
    std::thread([&] { later(true); }).join();
    ASSERT_TRUE(pumpUntil([&] { return delegate_->locations.size() == 1; }));
    EXPECT_EQ(delegate_->statuses.back(), AuthorizationStatus::AuthorizedWhenInUse);
    EXPECT_EQ(delegate_->offMainCalls, 0u);
}

TEST_F(LocationManagerTest, SaysNothingAfterItStopsOrGoes) {
    auto source = ManualSource::create();
    auto manager = listening(source);
    source->pushLocation(at(13.75, 100.5));
    manager->stopUpdatingLocation();
    manager->stopUpdatingHeading();
    source->pushLocation(at(13.76, 100.5));
    dispatch::RunLoop::main().drain();
    EXPECT_TRUE(delegate_->locations.empty());
    EXPECT_EQ(source->subscriberCount(), 0u);

    manager->startUpdatingLocation();  // the last known position comes back at once
    source->pushLocation(at(13.77, 100.5));
    manager.reset();
    dispatch::RunLoop::main().drain();
    EXPECT_TRUE(delegate_->locations.empty());

    // A delegate that stops updates in the middle of a batch hears no more of it.
    struct Stopper : RecordingLocationDelegate {
        void didUpdateHeading(LocationManager& m, const Heading& h) override {
            RecordingLocationDelegate::didUpdateHeading(m, h);
            m.stopUpdatingHeading();
            m.stopUpdatingLocation();
        }
    };
    auto stopper = std::make_shared<Stopper>();
    auto third = LocationManager::create(source);
    third->setDelegate(stopper);
    third->startUpdatingHeading();
    third->startUpdatingLocation();
    source->pushHeading(heading(10));
    source->pushLocation(at(13.78, 100.5));
    dispatch::RunLoop::main().drain();
    EXPECT_EQ(stopper->headings.size(), 1u);
    EXPECT_EQ(stopper->locations.size(), 1u);  // the last known, before the heading
    EXPECT_DOUBLE_EQ(stopper->locations[0].coordinate.latitude, 13.77);
}

TEST_F(LocationManagerTest, ReplaysTheDriveAtScaledSpeedAndWithoutPauses) {
    auto source = ReplaySource::create({test::locationFixture("drive.nmea"), 100, false});
    auto manager = listening(source);
    manager->setHeadingFilter(kHeadingFilterNone);
    ASSERT_TRUE(pumpUntil([&] { return delegate_->finished; }, std::chrono::seconds(30)));
    ASSERT_EQ(delegate_->locations.size(), 117u);
    EXPECT_EQ(delegate_->headings.size(), 240u);
    EXPECT_TRUE(delegate_->errors.empty());
    for (std::size_t i = 1; i < delegate_->locations.size(); ++i) {
        EXPECT_EQ(delegate_->locations[i].timestamp - delegate_->locations[i - 1].timestamp,
                  std::chrono::seconds(1));
    }
    EXPECT_EQ(delegate_->offMainCalls, 0u);

    // Without pauses, and with the main queue left alone while the replay runs ahead: it waits
    // for room instead of dropping anything.
    auto fast = std::make_shared<RecordingLocationDelegate>();
    auto all = LocationManager::create(
        ReplaySource::create({test::locationFixture("drive.nmea"), 0, false}));
    all->setDelegate(fast);
    all->startUpdatingLocation();
    ASSERT_TRUE(pumpUntil([&] { return fast->finished; }, std::chrono::seconds(30)));
    EXPECT_EQ(fast->locations.size(), 117u);
}

TEST_F(LocationManagerTest, ReplaysReportUnreadableTracksAndLogBadLines) {
    test::TempDir dir;
    auto write = [&](const std::string& name, const std::string& text) {
        std::ofstream(dir.file(name), std::ios::binary) << text;
        return dir.file(name);
    };
    std::string good = "$GPRMC,081836,A,1345.378,N,10030.108,E,0.0,0.0,010524,,*1F\n";
    std::string bad;
    for (int i = 0; i < 12; ++i) {
        bad += "$GPRMC,08183" + std::to_string(i % 10) + ",A,1345.378,N*00\n";
    }
    struct Case {
        std::string path;
        std::string failure;
        std::vector<std::string> lines;
        std::size_t locations;
    };
    std::string many = write("many.nmea", good + bad);
    std::vector<std::string> manyLines;
    for (int i = 0; i < 10; ++i) {
        manyLines.push_back("Location replay: line " + std::to_string(i + 2) + " of " + many +
                            " skipped: bad checksum");
    }
    manyLines.push_back("Location replay: 2 more lines or points of " + many + " skipped");
    std::vector<Case> cases = {
        {dir.file("absent.nmea"),
         "cannot read " + dir.file("absent.nmea") + ": No such file or directory",
         {"Location replay: cannot read " + dir.file("absent.nmea") +
          ": No such file or directory"},
         0},
        {write("notxml.gpx", "<gpx><trk>"),
         "GPX file " + dir.file("notxml.gpx") + " is not XML: no element found at line 1",
         {"Location replay: GPX file " + dir.file("notxml.gpx") +
          " is not XML: no element found at line 1"},
         0},
        {write("empty.gpx", "<gpx/>"),
         "GPX file " + dir.file("empty.gpx") + " has no track or route points",
         {"Location replay: GPX file " + dir.file("empty.gpx") + " has no track or route points"},
         0},
        {write("none.nmea", "$GPGSV,1,1,00*79\nhello\n"),
         "no position in NMEA file " + dir.file("none.nmea"),
         {"Location replay: line 2 of " + dir.file("none.nmea") + " skipped: not an NMEA sentence",
          "Location replay: no position in NMEA file " + dir.file("none.nmea")},
         0},
        {many, "", manyLines, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        log::Capture capture;
        auto recorder = std::make_shared<RecordingLocationDelegate>();
        auto m = LocationManager::create(ReplaySource::create({c.path, 0, false}));
        m->setDelegate(recorder);
        m->startUpdatingLocation();
        ASSERT_TRUE(pumpUntil([&] { return recorder->finished; }));
        EXPECT_EQ(capture.lines(), c.lines);
        EXPECT_EQ(recorder->locations.size(), c.locations);
        if (c.failure.empty()) {
            EXPECT_TRUE(recorder->errors.empty());
        } else {
            EXPECT_EQ(recorder->errors,
                      (std::vector<LocationError>{{ErrorCode::SourceUnreadable, c.failure}}));
        }
    }
}

TEST_F(LocationManagerTest, StopsReplaysPromptlyAndLeavesNoThreadBehind) {
    std::size_t before = test::locationThreads();
    test::TempDir dir;
    {
        // A long track, played without pauses to a main queue nobody runs: the replay fills
        // what the manager holds and waits.
        std::ofstream out(dir.file("long.nmea"));
        for (int i = 0; i < 20000; ++i) {
            char line[96];
            std::snprintf(line, sizeof line,
                          "$GPGGA,%02d%02d%02d,1345.000,N,10030.000,E,1,08,0.9,5.0,M,,M,,\n",
                          8 + i / 3600, i / 60 % 60, i % 60);
            out << line;
        }
    }
    auto source = ReplaySource::create({dir.file("long.nmea"), 0, false});
    auto manager = LocationManager::create(source);
    manager->startUpdatingLocation();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_GT(test::locationThreads(), before);
    manager.reset();
    EXPECT_EQ(source->subscriberCount(), 0u);
    EXPECT_EQ(test::locationThreads(), before);

    // At the recorded pace, two minutes long: stopped after its first position.
    auto slow = LocationManager::create(
        ReplaySource::create({test::locationFixture("drive.nmea"), 1, false}));
    slow->setDelegate(delegate_);
    slow->startUpdatingLocation();
    ASSERT_TRUE(pumpUntil([&] { return !delegate_->locations.empty(); }));
    slow.reset();
    EXPECT_EQ(test::locationThreads(), before);
}

TEST_F(LocationManagerTest, SharedSourceFollowsTheHostThenTheEnvironment) {
    auto mine = ManualSource::create("host's receiver");
    Source::setShared(mine);
    EXPECT_EQ(Source::shared(), mine);
    EXPECT_EQ(LocationManager::create()->source(), mine);
    {
        test::ScopedEnv env("SORVAN_LOCATION", "replay:/tmp/track.gpx?speed=4");
        Source::setShared(nullptr);
        EXPECT_EQ(Source::shared()->description(), "replay of /tmp/track.gpx");
        EXPECT_EQ(Source::shared(), Source::shared());
    }
    {
        test::ScopedEnv env("SORVAN_LOCATION", "bluetooth");
        Source::setShared(nullptr);
        auto manager = listening(Source::shared());
        ASSERT_TRUE(pumpUntil([&] { return delegate_->finished; }));
        EXPECT_EQ(delegate_->errors,
                  (std::vector<LocationError>{
                      {ErrorCode::SourceUnavailable,
                       "SORVAN_LOCATION 'bluetooth' names no location source: unknown location "
                       "source 'bluetooth' (want gpsd://HOST:PORT or replay:FILE[?speed=N])"}}));
    }
    test::ScopedEnv env("SORVAN_LOCATION", std::nullopt);
    Source::setShared(nullptr);
    EXPECT_EQ(Source::shared()->description(), "gpsd at localhost:2947");
}

}  // namespace
}  // namespace sorvan::location
