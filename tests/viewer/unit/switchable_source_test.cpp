// The viewer's location relay: which source it listens to, when, and that a switch never lets a
// report of the old source land after it returns.
#include "switchable_source.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "sorvan/platform/location/replay_source.hpp"
#include "support/foundation_support.hpp"
#include "support/location_support.hpp"

namespace sorvan::viewer {
namespace {

using location::Location;
using location::ManualSource;
using location::ReplaySource;

Location at(double latitude) {
    Location l;
    l.coordinate = {latitude, 100.5};
    l.horizontalAccuracy = 5;
    return l;
}

// Subscribes to a source and records the latitudes it reports, from any thread.
class Listener {
  public:
    explicit Listener(location::Source& source) {
        location::Source::Sink sink;
        sink.location = [this](const Location& l) {
            std::lock_guard lock(mutex_);
            seen_.push_back(l.coordinate.latitude);
        };
        sink.finished = [this] { finished_ = true; };
        subscription_ = source.subscribe(std::move(sink));
    }
    std::vector<double> seen() const {
        std::lock_guard lock(mutex_);
        return seen_;
    }
    // Appends a marker between reports, in the order the sink saw them.
    void mark(double marker) {
        std::lock_guard lock(mutex_);
        seen_.push_back(marker);
    }
    bool finished() const { return finished_; }
    void stop() { subscription_.reset(); }

  private:
    mutable std::mutex mutex_;
    std::vector<double> seen_;
    std::atomic<bool> finished_{false};
    std::unique_ptr<location::Source::Subscription> subscription_;
};

bool waitFor(const std::function<bool()>& pred) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

TEST(SwitchableSource, SwitchingWhileListeningJoinsTheOldSourceAndRelaysTheNew) {
    const std::size_t threadsBefore = test::locationThreads();
    // At twenty times the recorded pace the drive lasts six seconds: still running when it is
    // switched away.
    auto drive = ReplaySource::create({test::locationFixture("drive.nmea"), 20, false});
    auto relay = SwitchableSource::create(drive);
    EXPECT_EQ(drive->subscriberCount(), 0u) << "nobody listens yet";
    Listener listener(*relay);
    ASSERT_TRUE(waitFor([&] { return !listener.seen().empty(); }));
    EXPECT_EQ(drive->subscriberCount(), 1u);
    EXPECT_GT(test::locationThreads(), threadsBefore);
    EXPECT_EQ(relay->description(), drive->description());

    auto manual = ManualSource::create("host's receiver");
    manual->pushLocation(at(1));  // known before the switch: passed on at once
    relay->choose(manual);
    // The replay's thread is gone by the time choose() returns.
    EXPECT_EQ(test::locationThreads(), threadsBefore);
    EXPECT_EQ(drive->subscriberCount(), 0u);
    EXPECT_EQ(manual->subscriberCount(), 1u);
    EXPECT_EQ(relay->description(), "host's receiver");
    EXPECT_EQ(listener.seen().back(), 1);

    std::size_t before = listener.seen().size();
    manual->pushLocation(at(2));
    EXPECT_EQ(listener.seen().size(), before + 1);
    EXPECT_EQ(listener.seen().back(), 2);
    EXPECT_EQ(relay->lastLocation()->coordinate.latitude, 2);

    // Switching back starts the replay afresh.
    relay->choose(drive);
    EXPECT_EQ(manual->subscriberCount(), 0u);
    ASSERT_TRUE(waitFor([&] { return listener.seen().back() != 2; }));
    manual->pushLocation(at(3));
    EXPECT_NE(listener.seen().back(), 3);

    listener.stop();
    EXPECT_EQ(drive->subscriberCount(), 0u);
    EXPECT_EQ(test::locationThreads(), threadsBefore);
}

TEST(SwitchableSource, AReplayThatEndsLeavesItsLastPositionAndTheRelayGoesOn) {
    test::TempDir dir;
    {
        std::ofstream out(dir.file("short.nmea"));
        out << "$GPGGA,080000,1345.000,N,10030.000,E,1,08,0.9,5.0,M,,M,,\n"
               "$GPGGA,080001,1345.600,N,10030.000,E,1,08,0.9,5.0,M,,M,,\n"
               "$GPGGA,080002,1346.200,N,10030.000,E,1,08,0.9,5.0,M,,M,,\n";
    }
    auto replay = ReplaySource::create({dir.file("short.nmea"), 0, false});
    auto relay = SwitchableSource::create(replay);
    Listener listener(*relay);  // starts the replay
    // Listened to directly too, to learn when it has ended (a finished source says so at once).
    Listener direct(*replay);
    ASSERT_TRUE(waitFor([&] { return direct.finished(); }));
    ASSERT_EQ(listener.seen().size(), 3u);
    EXPECT_NEAR(listener.seen().back(), 13.77, 1e-9);
    // The end of one source is not the end of the relay.
    EXPECT_FALSE(listener.finished());
    EXPECT_NEAR(relay->lastLocation()->coordinate.latitude, 13.77, 1e-9);

    // A newcomer hears where the track ended, and no end either.
    Listener late(*relay);
    ASSERT_EQ(late.seen().size(), 1u);
    EXPECT_NEAR(late.seen()[0], 13.77, 1e-9);
    EXPECT_FALSE(late.finished());

    // The position stays when nobody listens to the replay any more, and another source still
    // gets through.
    relay->setListening(false);
    EXPECT_EQ(replay->subscriberCount(), 1u);  // only the direct listener
    EXPECT_NEAR(relay->lastLocation()->coordinate.latitude, 13.77, 1e-9);
    auto manual = ManualSource::create();
    relay->choose(manual);
    relay->setListening(true);
    manual->pushLocation(at(5));
    EXPECT_EQ(late.seen().back(), 5);
    EXPECT_EQ(listener.seen().back(), 5);
}

TEST(SwitchableSource, ListensToTheChosenSourceOnlyWhileWantedAndListenedTo) {
    auto a = ManualSource::create("a");
    auto b = ManualSource::create("b");
    auto relay = SwitchableSource::create(a);
    auto listener = std::make_unique<Listener>(*relay);
    EXPECT_EQ(a->subscriberCount(), 1u);

    relay->setListening(false);
    EXPECT_EQ(a->subscriberCount(), 0u);
    a->pushLocation(at(1));
    EXPECT_TRUE(listener->seen().empty());

    // Chosen while off: not listened to until wanted again, then its last position comes.
    relay->choose(b);
    EXPECT_EQ(b->subscriberCount(), 0u);
    b->pushLocation(at(2));
    EXPECT_TRUE(listener->seen().empty());
    relay->setListening(true);
    relay->setListening(true);  // a second "on" subscribes no second time
    EXPECT_EQ(b->subscriberCount(), 1u);
    EXPECT_EQ(a->subscriberCount(), 0u);
    b->pushLocation(at(3));
    EXPECT_EQ(listener->seen(), (std::vector<double>{2, 3}));

    // Nobody listening to the relay: nobody listens to its source, whatever is chosen or wanted.
    listener.reset();
    EXPECT_EQ(b->subscriberCount(), 0u);
    relay->choose(a);
    relay->setListening(false);
    relay->setListening(true);
    EXPECT_EQ(a->subscriberCount(), 0u);
    EXPECT_EQ(b->subscriberCount(), 0u);
    // The next listener starts the chosen one.
    Listener next(*relay);
    EXPECT_EQ(a->subscriberCount(), 1u);
    EXPECT_EQ(next.seen(), (std::vector<double>{3, 1}))
        << "the relay's last report, then the chosen source's";
}

TEST(SwitchableSource, SwitchingRacesNeitherReportsNorListeners) {
    // Two receivers report from threads of their own while relays are switched between them and
    // turned off and on: one relay listened to throughout, one by a thread that comes and goes
    // (so that its feed starts and stops while it is switched).
    auto a = ManualSource::create("a");
    auto b = ManualSource::create("b");
    auto relay = SwitchableSource::create(a);
    auto other = SwitchableSource::create(a);
    Listener listener(*relay);
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (auto [source, value] : {std::pair{a, 1.0}, std::pair{b, 2.0}}) {
        threads.emplace_back([&done, source = source, value = value] {
            while (!done) {
                source->pushLocation(at(value));
                std::this_thread::yield();
            }
        });
    }
    threads.emplace_back([&] {
        while (!done) {
            Listener passing(*other);
            std::this_thread::yield();
        }
    });

    // Markers around each switch: 20 as it begins (either source may be heard meanwhile, the
    // new one's last position among them), then 10 + the source chosen once choose() returned.
    constexpr double kSwitching = 20;
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    for (int i = 0; i < 300 || std::chrono::steady_clock::now() < until; ++i) {
        bool toB = i % 2 == 0;
        listener.mark(kSwitching);
        relay->choose(toB ? b : a);
        listener.mark(toB ? 12 : 11);
        other->choose(toB ? b : a);
        if (i % 7 == 0) {
            relay->setListening(false);
            other->setListening(false);
            relay->setListening(true);
            other->setListening(true);
        }
    }
    done = true;
    for (auto& t : threads) {
        t.join();
    }

    // After each switch only the chosen source is heard.
    double chosen = 1;
    std::size_t reports = 0;
    for (double v : listener.seen()) {
        if (v == kSwitching) {
            chosen = 0;
        } else if (v > 10) {
            chosen = v - 10;
        } else {
            ++reports;
            ASSERT_TRUE(chosen == 0 || v == chosen) << "a report of the source switched away from";
        }
    }
    EXPECT_GT(reports, 100u);
    EXPECT_EQ(relay->subscriberCount(), 1u);
    EXPECT_EQ(other->subscriberCount(), 0u);
    EXPECT_EQ(a->subscriberCount() + b->subscriberCount(), 1u) << "only the listened relay's";
}

}  // namespace
}  // namespace sorvan::viewer
