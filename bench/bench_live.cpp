// Main-queue costs of live annotations, each beside what it is compared with, in one run:
//   TagAnswer/registry_{hashed,literal}   one 50-item cluster answer read into tags and put on
//                  the map, during a pan across 100 tiles (the registry and the map fill up as
//                  the pan goes); "literal" keeps the delivered ids in a list searched item by
//                  item, as a plain array registry would
//   FeedMerge/{keyed,nested}   a feed of 5,000 events merged into 5,000 event annotations on
//                  the map (the feed lists them in reverse, 5 % replaced by new ones): the
//                  keyed merge against the literal search of the feed for every annotation
//   PanFrame/views:{0,2000}   a small pan of a 1280 x 720 view at scale 2 over the embedded
//                  service's map, drawn into the front end's surface, without annotations and
//                  with 2,000 visible tag, event and pin views carrying their icons
// Times are the main thread's CPU time. Run with --benchmark_repetitions=7 for the spread.
#include <benchmark/benchmark.h>
#include <cairo.h>

#include <cmath>
#include <random>

#include "SorvanMapSDK/SMEventAnnotation.hpp"
#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMTagAnnotation.hpp"
#include "SorvanMapSDK/SMTileOverlayRenderer.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "events/event_merge.hpp"
#include "foundation/json_access.hpp"
#include "mapview/globals.hpp"
#include "mapview/live_requests.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/server/embedded_service.hpp"
#include "tags/tag_answer.hpp"
#include "tags/tag_registry.hpp"

namespace {

using namespace sorvan;

constexpr map::Coordinate kBangkok{13.7563, 100.5018};

server::EmbeddedService& service() {
    static server::EmbeddedService* s = [] {
        auto* started = new server::EmbeddedService(0);
        ServiceConfig::setCurrent(ServiceConfig{}.pointedAt(started->origin()));
        return started;
    }();
    return *s;
}

// Tag answers -------------------------------------------------------------------------------

// 100 tiles of 50 items each; a fifth of each tile's items were already seen from its
// neighbour, as clusters near tile edges are.
std::vector<json::Value> panAnswers() {
    std::vector<json::Value> answers;
    for (int tile = 0; tile < 100; ++tile) {
        json::Value data = json::Value::array();
        for (int i = 0; i < 50; ++i) {
            int id = tile * 40 + i;
            data.push_back({{"id", "C" + std::to_string(id)},
                            {"name", "Cluster " + std::to_string(id)},
                            {"icon", "temple_5.png"},
                            {"lat", 13.70 + 0.001 * (id % 100)},
                            {"lon", 100.45 + 0.001 * (id / 100)}});
        }
        answers.push_back({{"data", std::move(data)}});
    }
    return answers;
}

// The registry as a list of {"id", "zoom"} objects searched from the front.
struct LiteralRegistry {
    std::vector<json::Value> entries;
    std::vector<std::shared_ptr<SMTagAnnotation>> read(const json::Value& root, std::int64_t z) {
        std::vector<std::shared_ptr<SMTagAnnotation>> out;
        for (const json::Value& item : json::arrayItems(json::member(root, "data"))) {
            json::Value key = {{"id", json::member(item, "id")}, {"zoom", z}};
            if (std::find(entries.begin(), entries.end(), key) != entries.end()) {
                continue;
            }
            entries.push_back(key);
            auto tag = std::make_shared<SMTagAnnotation>();
            tag->setPoiid(json::textualForm(json::member(item, "id")));
            tag->setName(json::textualForm(json::member(item, "name")));
            tag->setType(tags::iconType(json::member(item, "icon").get<std::string>()));
            tag->setZoom(z);
            tag->setCoordinate({json::doubleValue(json::member(item, "lat")),
                                json::doubleValue(json::member(item, "lon"))});
            out.push_back(tag);
        }
        return out;
    }
};

void BM_TagAnswer(benchmark::State& state, bool literal) {
    static const std::vector<json::Value> answers = panAnswers();
    std::shared_ptr<SorvanMapView> view;
    auto registry = std::make_shared<tags::TagRegistry>();
    LiteralRegistry list;
    std::size_t next = answers.size();
    for (auto _ : state) {
        if (next == answers.size()) {
            state.PauseTiming();
            view = SorvanMapView::create({0, 0, 1280, 720});
            registry = std::make_shared<tags::TagRegistry>();
            list = {};
            next = 0;
            state.ResumeTiming();
        }
        std::vector<std::shared_ptr<SMTagAnnotation>> fresh =
            literal ? list.read(answers[next], 14)
                    : tags::readTags(answers[next], 14, 1, nullptr, *registry);
        view->addAnnotations({fresh.begin(), fresh.end()});
        ++next;
    }
}
BENCHMARK_CAPTURE(BM_TagAnswer, registry_hashed, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_TagAnswer, registry_literal, true)->Unit(benchmark::kMicrosecond);

// Feed merge -------------------------------------------------------------------------------

struct FeedScene {
    std::shared_ptr<SorvanMapView> view = SorvanMapView::create({0, 0, 1280, 720});
    json::Value feed = json::Value::array();
    DateFormatter dates;

    FeedScene() {
        json::Value first = json::Value::array();
        for (int i = 0; i < 5000; ++i) {
            first.push_back(item(std::to_string(1000000 + i)));
        }
        auto merge = events::mergeFeed(first, {}, false, 0, dates);
        for (const auto& e : merge.added) {
            view->addAnnotation(e);
        }
        // The next feed in reverse order, every twentieth event replaced by a new one.
        for (int i = 4999; i >= 0; --i) {
            feed.push_back(item(std::to_string(i % 20 == 0 ? 2000000 + i : 1000000 + i)));
        }
    }
    static json::Value item(const std::string& eid) {
        return {{"eid", eid},
                {"title", "อุบัติเหตุ"},
                {"title_en", "Accident"},
                {"icon", "accident"},
                {"start", "2024-01-31 08:05:00"},
                {"stop", ""},
                {"severity", 2},
                {"showlevel", "12"},
                {"latitude", 13.75},
                {"longitude", 100.5}};
    }
    std::vector<std::shared_ptr<SMEventAnnotation>> onMap() const {
        std::vector<std::shared_ptr<SMEventAnnotation>> out;
        for (const auto& a : view->annotations()) {
            if (auto e = std::dynamic_pointer_cast<SMEventAnnotation>(a)) {
                out.push_back(e);
            }
        }
        return out;
    }
    // The search the merge replaces: for every annotation, the feed from the top.
    events::FeedMerge nested(const std::vector<std::shared_ptr<SMEventAnnotation>>& events) const {
        json::Value::array_t items = feed.get<json::Value::array_t>();
        events::FeedMerge merge;
        for (const auto& e : events) {
            bool found = false;
            for (auto it = items.begin(); it != items.end(); ++it) {
                if (json::equalAsString(json::member(*it, "eid"), json::Value(*e->eventId()))) {
                    items.erase(it);
                    found = true;
                    break;
                }
            }
            if (!found) {
                merge.removed.push_back(e);
            }
        }
        for (const auto& item : items) {
            merge.added.push_back(events::eventFromItem(item, 0, dates));
        }
        return merge;
    }
};

void BM_FeedMerge(benchmark::State& state, bool nested) {
    static FeedScene scene;
    for (auto _ : state) {
        auto events = scene.onMap();
        events::FeedMerge merge = nested
                                      ? scene.nested(events)
                                      : events::mergeFeed(scene.feed, events, true, 0, scene.dates);
        benchmark::DoNotOptimize(merge);
        if (merge.removed.size() != 250 || merge.added.size() != 250) {
            state.SkipWithError("the merge kept the wrong events");
        }
    }
}
BENCHMARK_CAPTURE(BM_FeedMerge, keyed, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_FeedMerge, nested, true)->Unit(benchmark::kMillisecond);

// Pan frame ---------------------------------------------------------------------------------

struct PanScene {
    std::shared_ptr<SorvanMapView> view = SorvanMapView::create({0, 0, 1280, 720});

    explicit PanScene(int annotations) {
        service();
        view->setScreenScale(2);
        view->setKey("bench");
        view->setCache(2);
        map::MapPoint c = map::mapPointForCoordinate(kBangkok);
        double zoom = 128.0 * std::exp2(14) / map::kMapWorldSize;
        double w = 1280 / zoom, h = 720 / zoom;
        view->setVisibleMapRect({{c.x - w / 2, c.y - h / 2}, {w, h}});
        view->addSMOverlay(SMLayerModeNormal);
        view->showTags(std::vector<std::string>{});  // bound, with nothing to ask for
        std::int64_t setId = globals::tagOverlay()->setId();
        const char* types[] = {"temple", "hospital_5", "restaurant", "poi_20", "mall"};
        const char* signs[] = {"accident", "flood", "roadclosed", "construction", "event"};
        std::mt19937 rng(7);
        std::uniform_real_distribution<double> x(0, 1280), y(0, 720);
        for (int i = 0; i < annotations; ++i) {
            map::Coordinate at = view->convertPointToCoordinate({x(rng), y(rng)}, nullptr);
            if (i % 4 == 3) {
                auto e = std::make_shared<SMEventAnnotation>();
                e->setIconName(signs[i % 5]);
                e->setCoordinate(at);
                view->addAnnotation(e);
            } else if (i % 4 == 2) {
                auto p = std::make_shared<SMPinAnnotation>();
                p->setType(types[i % 5]);
                p->setCoordinate(at);
                view->addAnnotation(p);
            } else {
                auto t = std::make_shared<SMTagAnnotation>();
                t->setSetId(setId);
                t->setZoom(14);
                t->setType(types[i % 5]);
                t->setCoordinate(at);
                view->addAnnotation(t);
            }
        }
        // Every tile loaded and drawn, every view made and its icon in place.
        view->render(std::chrono::seconds(60));
        for (int round = 0; round < 20 && mapview::liveRequestsInFlight() > 0; ++round) {
            dispatch::RunLoop::main().runUntil([] { return mapview::liveRequestsInFlight() == 0; },
                                               dispatch::Duration(60));
            view->render(std::chrono::seconds(60));
        }
    }
};

void BM_PanFrame(benchmark::State& state) {
    static log::Sink quiet = log::setSink([](log::Level, std::string_view) {});
    PanScene scene(static_cast<int>(state.range(0)));
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 2560, 1440);
    cairo_t* cr = cairo_create(surface);
    cairo_scale(cr, 2, 2);
    int step = 0;
    for (auto _ : state) {
        scene.view->panBy(step++ % 2 ? -7 : 7, 0);
        scene.view->drawFrame(cr);
        cairo_surface_flush(surface);
    }
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    dispatch::RunLoop::main().drain();
}
BENCHMARK(BM_PanFrame)->ArgName("views")->Arg(0)->Arg(2000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
