// Traffic events: the merge of a feed into the events on the map, item reading, and the
// view's loading, refresh timer and failures over HTTP to the embedded feed.
#include <atomic>
#include <ctime>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/ServiceConfig.hpp"
#include "event_feed.hpp"
#include "events/event_merge.hpp"
#include "sdk/mapview/live_fixture.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "support/foundation_support.hpp"
#include "support/service_harness.hpp"

namespace sorvan::test {
namespace {

constexpr const char* kFeed = "/feed/json";
constexpr std::int64_t kEnglish = 2;

std::shared_ptr<SMEventAnnotation> eventWithId(const std::string& id) {
    auto e = std::make_shared<SMEventAnnotation>();
    e->setEventId(id);
    return e;
}

json::Value parse(const char* text) {
    return json::Value::parse(text);
}

TEST(EventMerge, EachEventOnTheMapTakesTheFirstFreeItemWithItsId) {
    DateFormatter dates;
    auto a = eventWithId("7"), b = eventWithId("7"), c = eventWithId("9");
    auto unnamed = std::make_shared<SMEventAnnotation>();
    json::Value feed = parse(R"([{"eid": 7, "title": "first"}, {"eid": "7", "title": "second"},
                                 {"eid": "7", "title": "third"}, {"eid": "8"}, {"eid": {}}])");
    auto merge = events::mergeFeed(feed, {a, b, c, unnamed}, true, 0, dates);
    EXPECT_EQ(merge.removed, (std::vector<std::shared_ptr<SMEventAnnotation>>{c, unnamed}));
    ASSERT_EQ(merge.added.size(), 3u);
    EXPECT_EQ(merge.added[0]->eventTitle(), "third");
    EXPECT_EQ(merge.added[1]->eventId(), "8");
    EXPECT_EQ(merge.added[2]->eventId(), std::nullopt);
    EXPECT_EQ(a->eventTitle(), std::nullopt) << "a kept event is not updated";

    // Events that were off: nothing on the map is matched or removed; everything is new.
    merge = events::mergeFeed(feed, {a, b}, false, 0, dates);
    EXPECT_TRUE(merge.removed.empty());
    EXPECT_EQ(merge.added.size(), 5u);
}

TEST(EventMerge, ItemsReadTitlesByLanguageAndDatesInTheDevicesTimeZone) {
    DateFormatter dates;
    json::Value item = parse(R"({"eid": "E1", "title": "อุบัติเหตุ", "title_en": "",
        "description": "รถชน", "description_en": "Collision", "icon": "accident",
        "start": "2024-01-31 08:05:00", "stop": "2024-01-31T08:05:00", "contributor": "police",
        "type": "4", "severity": "2", "showlevel": 12.9, "latitude": "13.75", "longitude": 100.5})");
    auto en = events::eventFromItem(item, kEnglish, dates);
    EXPECT_EQ(en->eventId(), "E1");
    EXPECT_EQ(en->eventTitle(), "อุบัติเหตุ") << "an empty English title falls back";
    EXPECT_EQ(en->eventDescription(), "Collision");
    EXPECT_EQ(en->iconName(), "accident");
    EXPECT_EQ(en->contributor(), "police");
    EXPECT_EQ(en->type(), 4);
    EXPECT_EQ(en->severity(), 2);
    EXPECT_EQ(en->showlevel(), 12);
    EXPECT_DOUBLE_EQ(en->coordinate().latitude, 13.75);
    EXPECT_DOUBLE_EQ(en->coordinate().longitude, 100.5);
    ASSERT_TRUE(en->start());
    EXPECT_EQ(std::chrono::system_clock::to_time_t(*en->start()), localTime(2024, 1, 31, 8, 5));
    EXPECT_EQ(en->stop(), std::nullopt);
    if (std::getenv("TZ") && std::string(std::getenv("TZ")) == "Asia/Kolkata") {
        EXPECT_EQ(std::chrono::system_clock::to_time_t(*en->start()), 1706668500);
    }

    // Thai (any language but 2) reads the Thai members; a missing English title stays unset.
    for (std::int64_t language : {0, 1, 3, -2}) {
        auto th = events::eventFromItem(item, language, dates);
        EXPECT_EQ(th->eventDescription(), "รถชน");
    }
    auto bare = events::eventFromItem(parse(R"({"title": "t"})"), kEnglish, dates);
    EXPECT_EQ(bare->eventTitle(), std::nullopt);
    EXPECT_EQ(bare->iconName(), std::nullopt);

    const std::pair<const char*, const char*> faults[] = {
        {R"({"title_en": null})", "title_en: expected a string, found null"},
        {R"({"description_en": 5})", "description_en: expected a string, found number"},
        {R"({"start": 20240131})", "start: expected a string, found number"},
        {R"({"showlevel": null})", "showlevel: expected a number or a string, found null"},
        {R"({"latitude": [1]})", "latitude: expected a number or a string, found array"},
        {R"("not an object")", "expected an object, found string"},
    };
    for (const auto& [body, reason] : faults) {
        try {
            events::eventFromItem(parse(body), kEnglish, dates);
            ADD_FAILURE() << body;
        } catch (const json::StructureError& e) {
            EXPECT_EQ(e.reason(), reason);
        }
    }
    // In Thai the English members are never read.
    EXPECT_NO_THROW(events::eventFromItem(parse(R"({"title_en": null})"), 0, dates));
}

class Events : public LiveTest {
  protected:
    void SetUp() override {
        LiveTest::SetUp();
        showAt(kBangkok, 12);
        clock_ = std::make_shared<dispatch::ManualClock>();
        dispatch::RunLoop::main().setClock(clock_);
        setFeedTime(kStart);
    }
    void setFeedTime(std::int64_t unixSeconds) {
        service_.setClock([unixSeconds] {
            return std::chrono::system_clock::time_point(std::chrono::seconds(unixSeconds));
        });
    }
    // Waits for the feed requests made so far to have reached the map.
    void settle() {
        pumpUntil([] { return mapview::liveRequestsInFlight() == 0; });
        dispatch::RunLoop::main().drain();
    }
    std::map<std::string, std::shared_ptr<SMEventAnnotation>> eventsById() const {
        std::map<std::string, std::shared_ptr<SMEventAnnotation>> out;
        for (const auto& e : annotationsOf<SMEventAnnotation>()) {
            out[e->eventId().value_or("?")] = e;
        }
        return out;
    }
    std::set<std::string> feedIds(std::int64_t unixSeconds) {
        std::set<std::string> ids;
        for (const auto& e : server::liveEvents(
                 std::chrono::system_clock::time_point(std::chrono::seconds(unixSeconds)))) {
            ids.insert(e.eid);
        }
        return ids;
    }
    void tick(double seconds = 180) {
        clock_->advance(dispatch::Duration(seconds));
        dispatch::RunLoop::main().drain();
        settle();
    }

    static constexpr std::int64_t kStart = 1'700'000'000;
    std::shared_ptr<dispatch::ManualClock> clock_;
};

TEST_F(Events, ARefreshKeepsTheObjectsOfEventsStillInTheFeed) {
    view_->showEvents();
    EXPECT_TRUE(view_->showsEvents());
    settle();
    auto first = eventsById();
    ASSERT_EQ(first.size(), feedIds(kStart).size());
    auto request = service_.requests(kFeed).at(0);
    EXPECT_EQ(request.query, "");
    EXPECT_EQ(request.headers.at("referer"), "sorvan://" + Bundle::main().identifier());

    std::size_t kept = 0, dropped = 0, added = 0;
    auto before = first;
    for (int step = 1; step <= 4; ++step) {
        setFeedTime(kStart + 180 * step);
        tick();
        auto now = eventsById();
        EXPECT_EQ(service_.requests(kFeed).size(), 1u + step);
        std::set<std::string> ids;
        for (const auto& [id, e] : now) {
            ids.insert(id);
        }
        EXPECT_EQ(ids, feedIds(kStart + 180 * step));
        for (const auto& [id, e] : before) {
            if (now.count(id)) {
                EXPECT_EQ(now[id], e) << "kept event " << id << " is the same object";
                ++kept;
            } else {
                ++dropped;
            }
        }
        for (const auto& [id, e] : now) {
            added += before.count(id) ? 0 : 1;
        }
        before = now;
    }
    EXPECT_GT(kept, 0u);
    EXPECT_GT(dropped, 0u);
    EXPECT_GT(added, 0u);
}

TEST_F(Events, AKeptEventKeepsItsFieldsAndTheLanguageDecidesTitles) {
    auto renamed = std::make_shared<std::atomic<bool>>(false);
    service_.route(kFeed, [renamed](const server::Request&) {
        std::string title = *renamed ? "Collision" : "Crash";
        return server::Response::json(
            nlohmann::json::array({{{"eid", "1"}, {"title", "ชน"}, {"title_en", title}},
                                   {{"eid", "2"}, {"title", "น้ำท่วม"}}})
                .dump());
    });
    view_->setLanguage(2);
    view_->setShowsEvents(true);
    settle();
    auto first = eventsById();
    ASSERT_EQ(first.size(), 2u);
    EXPECT_EQ(first["1"]->eventTitle(), "Crash");
    EXPECT_EQ(first["2"]->eventTitle(), std::nullopt);

    *renamed = true;
    tick();
    EXPECT_EQ(eventsById()["1"], first["1"]);
    EXPECT_EQ(eventsById()["1"]->eventTitle(), "Crash");

    // A language change while events are shown reloads them from scratch, in Thai now.
    view_->setLanguage(0);
    settle();
    EXPECT_EQ(eventsById()["1"]->eventTitle(), "ชน");
    EXPECT_NE(eventsById()["1"], first["1"]);
}

TEST_F(Events, RemoveEventsLeavesTheTimerAndSwitchingOffStopsIt) {
    view_->showEvents();
    settle();
    ASSERT_FALSE(eventsById().empty());

    view_->removeEvents();
    EXPECT_FALSE(view_->showsEvents());
    settle();
    EXPECT_TRUE(eventsById().empty());
    tick();
    EXPECT_TRUE(view_->showsEvents()) << "the timer's load turns events on again";
    EXPECT_FALSE(eventsById().empty());

    view_->setShowsEvents(false);
    EXPECT_FALSE(view_->showsEvents());
    EXPECT_FALSE(globals::eventTimer()->isValid());
    settle();
    EXPECT_TRUE(eventsById().empty());
    std::size_t requests = service_.requests(kFeed).size();
    tick(600);
    EXPECT_EQ(service_.requests(kFeed).size(), requests);
    EXPECT_TRUE(eventsById().empty());

    // The timer is one for the process: another view starting it stops this one's.
    view_->showEvents();
    auto mine = globals::eventTimer();
    auto other = SorvanMapView::create({0, 0, 100, 100});
    other->showEvents();
    EXPECT_FALSE(mine->isValid());
    EXPECT_TRUE(globals::eventTimer()->isValid());
    settle();
}

TEST_F(Events, ALoadThatLandsAfterSwitchingOffLeavesNoEvents) {
    server::Fault slow;
    slow.delaySeconds = 0.3;
    service_.injectFault(kFeed, slow);
    view_->setShowsEvents(true);
    view_->setShowsEvents(false);
    settle();
    EXPECT_EQ(service_.requests(kFeed).size(), 1u);
    EXPECT_TRUE(eventsById().empty());
    EXPECT_FALSE(view_->showsEvents());
}

TEST_F(Events, FeedFailuresAreLoggedAndTheEventsOnTheMapStay) {
    view_->showEvents();
    settle();
    const auto shown = eventsById();
    ASSERT_FALSE(shown.empty());

    auto failWith = [&](const std::function<void()>& inject) {
        capture_.clear();
        inject();
        tick();
        service_.clearFaults();
        EXPECT_EQ(eventsById(), shown);
        auto lines = capture_.lines();
        EXPECT_EQ(lines.size(), 1u);
        return lines.empty() ? std::string() : lines[0];
    };
    auto answer = [&](std::string body) {
        return [this, body] {
            service_.route(kFeed,
                           [body](const server::Request&) { return server::Response::json(body); });
        };
    };
    EXPECT_EQ(failWith(answer(R"({"data": []})")),
              "showEvents Error: expected an array, found object");
    EXPECT_TRUE(failWith(answer("<html>busy</html>"))
                    .starts_with("showEvents Error: The data couldn't be read because it isn't "
                                 "in the correct format."));
    EXPECT_EQ(failWith([&] {
                  server::Fault f;
                  f.count = -1;
                  f.dropConnection = true;
                  service_.injectFault(kFeed, f);
              }),
              "showEvents Error: The network connection was lost.");
    ServiceConfig broken = ServiceConfig::current();
    broken.eventFeed =
        "http://127.0.0.1:" + std::to_string(sorvan::testing::closedPort()) + "/feed/json";
    EXPECT_EQ(failWith([&] { ServiceConfig::setCurrent(broken); }),
              "showEvents Error: Could not connect to the server.");
}

}  // namespace
}  // namespace sorvan::test
