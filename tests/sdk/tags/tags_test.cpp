// Tags through the map view, over HTTP to the embedded clustering service: binding, the
// requests of drawn tiles, de-duplication, re-binding when layers change, stale tags and the
// failures of the service.
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SMTagOptions.hpp"
#include "place_catalogue.hpp"
#include "place_clusters.hpp"
#include "sdk/mapview/live_fixture.hpp"
#include "sorvan/platform/foundation/bundle.hpp"

namespace sorvan::test {
namespace {

constexpr const char* kCluster = "/ClusterService/json/cluster/epsg3857/";
constexpr std::int64_t kNormal = SMLayerModeNormal;
constexpr std::int64_t kIcons = SMLayerModeIcons;

class Tags : public LiveTest {
  protected:
    void SetUp() override {
        LiveTest::SetUp();
        showAt(kBangkok, 14);
        view_->addSMOverlay(SMLayerModeNormal);
    }
    std::shared_ptr<SMTileOverlay> overlayAt(std::size_t i) { return tiles().at(i); }

    // The tile a recorded cluster request asked for: (z, x, y).
    static std::tuple<int, std::int64_t, std::int64_t> tileOf(const server::Request& r) {
        std::string rest = r.path.substr(std::string(kCluster).size());
        int z = std::stoi(rest.substr(0, rest.find('/')));
        std::int64_t index = std::stoll(rest.substr(rest.find('/') + 1));
        std::int64_t side = std::int64_t{1} << z;
        return {z, index % side, index / side};
    }
    // The poiids of the tag annotations on the map, each with how often it is there.
    std::map<std::string, int> tagCounts() const {
        std::map<std::string, int> counts;
        for (const auto& t : annotationsOf<SMTagAnnotation>()) {
            ++counts[t->poiid().value_or("?")];
        }
        return counts;
    }
};

TEST_F(Tags, BindingAsksForEveryDrawnTileAndDeliversEachClusterOnce) {
    view_->showTags({"temple", "food"});
    auto bound = globals::tagOverlay();
    ASSERT_NE(bound, nullptr);
    EXPECT_EQ(bound, rendererOf(overlayAt(0)));
    ASSERT_EQ(modes(), (std::vector<std::vector<std::int64_t>>{{kNormal}, {19}}));
    EXPECT_EQ(overlayAt(1)->minimumZ(), 1);
    EXPECT_EQ(overlayAt(1)->maximumZ(), 22);
    EXPECT_EQ(bound->visibleRange(), (SMRange{1, 22}));
    EXPECT_EQ(bound->apikey(), "view-key");
    EXPECT_EQ(bound->language(), "th");

    renderSettled();
    auto requests = service_.requests(kCluster);
    ASSERT_GE(requests.size(), 4u);  // a 512-point view at zoom 14 shows at least 2 x 2 tiles
    std::set<std::string> expected;
    std::set<std::tuple<int, std::int64_t, std::int64_t>> tilesAsked;
    for (const auto& r : requests) {
        auto [z, x, y] = tileOf(r);
        EXPECT_EQ(z, 14);
        EXPECT_TRUE(r.path.ends_with("/th")) << r.path;
        EXPECT_EQ(r.query, "tag%5B0%5D=temple&tag%5B1%5D=food&key=view-key");
        EXPECT_EQ(r.headers.at("referer"), "sorvan://" + Bundle::main().identifier());
        tilesAsked.insert({z, x, y});
        for (const auto& item : server::clustersForTile(server::PlaceCatalogue::builtin(), z, x, y,
                                                        {"temple", "food"})) {
            expected.insert(item.id);
        }
    }
    EXPECT_EQ(tilesAsked.size(), requests.size());
    // Every cluster once, although those near tile edges came in two answers.
    auto counts = tagCounts();
    ASSERT_FALSE(counts.empty());
    EXPECT_EQ(counts.size(), expected.size());

    for (const auto& [id, n] : counts) {
        EXPECT_EQ(n, 1) << id;
        EXPECT_TRUE(expected.count(id)) << id;
    }
    std::size_t drawn = 0;
    for (const auto& t : annotationsOf<SMTagAnnotation>()) {
        EXPECT_EQ(t->zoom(), 14);
        EXPECT_EQ(t->setId(), bound->setId());
        auto tagView = view_->viewForAnnotation(t);
        drawn += tagView && tagView->image() && tagView->alpha() == 0.5 ? 1 : 0;
    }
    EXPECT_GT(drawn, 3u) << "tags on screen are drawn with their icons";
    EXPECT_TRUE(capture_.lines().empty());

    // A reload forgets what was delivered: every visible tile asks again and its clusters
    // come a second time.
    std::size_t before = annotationsOf<SMTagAnnotation>().size();
    service_.clearRequests();
    bound->reloadData();
    renderSettled();
    EXPECT_EQ(service_.requests(kCluster).size(), requests.size());
    EXPECT_EQ(annotationsOf<SMTagAnnotation>().size(), 2 * before);
}

TEST_F(Tags, OptionsSetTheRangeAndIconAndLanguageChangesRebind) {
    auto options = SMTagOptions::create();
    EXPECT_EQ(options->visibleRange(), (SMRange{1, 22}));
    auto icon = SMIcon::withImage(Bundle::kit().image("marker"));
    options->setIcon(icon);
    options->setVisibleRange({15, 3});
    view_->showTags(std::vector<std::string>{"hotel"}, options);
    EXPECT_EQ(overlayAt(1)->minimumZ(), 15);
    EXPECT_EQ(overlayAt(1)->maximumZ(), 18);
    EXPECT_EQ(globals::tagOverlay()->tagIcon(), icon);
    renderSettled();
    EXPECT_TRUE(service_.requests(kCluster).empty()) << "zoom 14 is below the range";

    // Default options put the layer's top at 23, the renderer's at 22 + 1.
    view_->showTags(std::vector<std::string>{"hotel"}, SMTagOptions::create());
    EXPECT_EQ(modes(), (std::vector<std::vector<std::int64_t>>{{kNormal}, {19}}));
    EXPECT_EQ(overlayAt(1)->maximumZ(), 23);

    // A language change rebuilds the layers and binds the tags to the new bottom layer's
    // renderer, in English, with the tag layer's range.
    view_->setLanguage(2);
    ASSERT_EQ(modes(), (std::vector<std::vector<std::int64_t>>{{kNormal}, {19}}));
    EXPECT_EQ(globals::tagOverlay(), rendererOf(overlayAt(0)));
    EXPECT_EQ(globals::tagOverlay()->language(), "en");
    EXPECT_EQ(overlayAt(1)->maximumZ(), 23);
    renderSettled();
    auto requests = service_.requests(kCluster);
    ASSERT_FALSE(requests.empty());
    EXPECT_TRUE(requests.back().path.ends_with("/en"));
    EXPECT_EQ(requests.back().query, "tag%5B0%5D=hotel&key=view-key");
}

TEST_F(Tags, NewLayersTakeTheTagsAndTheTagLayerKeepsItsRange) {
    auto options = SMTagOptions::create();
    options->setVisibleRange({10, 8});
    view_->showTags(std::vector<std::string>{"temple"}, options);
    renderSettled();
    ASSERT_FALSE(annotationsOf<SMTagAnnotation>().empty());

    view_->addSMOverlay(SMLayerModeIcons);  // lands below the tag layer, then re-binds
    ASSERT_EQ(modes(), (std::vector<std::vector<std::int64_t>>{{kNormal}, {kIcons}, {19}}));
    auto bound = globals::tagOverlay();
    EXPECT_EQ(bound, rendererOf(overlayAt(1)));
    EXPECT_EQ(bound->tag(), std::vector<std::string>{"temple"});
    EXPECT_EQ(bound->visibleRange(), (SMRange{10, 8}));
    EXPECT_EQ(overlayAt(2)->minimumZ(), 10);
    EXPECT_EQ(overlayAt(2)->maximumZ(), 18);
    EXPECT_TRUE(annotationsOf<SMTagAnnotation>().empty()) << "re-binding removes the old tags";
    renderSettled();
    EXPECT_FALSE(annotationsOf<SMTagAnnotation>().empty());

    // A tag layer of the host's own (mode 19) does not re-bind; with the tag layer gone,
    // re-binding uses 1..22, which becomes the range (1, 21).
    auto hostLayer = layer(SMLayerModeNone);
    view_->addSMLayer(hostLayer);
    EXPECT_EQ(globals::tagOverlay(), bound);
    view_->map::MapView::removeOverlays(view_->overlays());
    view_->addSMOverlay(SMLayerModeNormal);
    EXPECT_EQ(globals::tagOverlay()->visibleRange(), (SMRange{1, 21}));
    EXPECT_EQ(modes(), (std::vector<std::vector<std::int64_t>>{{kNormal}, {19}}));
    EXPECT_EQ(overlayAt(1)->maximumZ(), 22);
}

TEST_F(Tags, StaleAndRemovedTagsGoWhenTheirViewsAreAskedFor) {
    view_->showTags({"temple"});
    auto bound = globals::tagOverlay();
    renderSettled();
    auto current = annotationsOf<SMTagAnnotation>();
    ASSERT_FALSE(current.empty());

    auto stale = std::make_shared<SMTagAnnotation>();
    stale->setSetId(bound->setId() - 1);
    stale->setCoordinate(kBangkok);
    view_->addAnnotation(stale);
    renderSettled();
    EXPECT_EQ(annotationsOf<SMTagAnnotation>().size(), current.size());

    // Answers still on their way when tags are removed arrive at a map with no binding: they
    // are dropped as their views are made.
    server::Fault slow;
    slow.count = -1;
    slow.delaySeconds = 0.3;
    service_.injectFault(kCluster, slow);
    bound->reloadData();
    view_->render(dispatch::Duration(5));
    ASSERT_GT(mapview::liveRequestsInFlight(), 0u);
    view_->removeAllTags();
    EXPECT_TRUE(annotationsOf<SMTagAnnotation>().empty());
    EXPECT_EQ(globals::tagOverlay(), nullptr);
    EXPECT_EQ(modes(), (std::vector<std::vector<std::int64_t>>{{kNormal}}));
    EXPECT_EQ(bound->tag(), std::vector<std::string>{"temple"}) << "the renderer keeps its list";
    renderSettled();
    EXPECT_TRUE(annotationsOf<SMTagAnnotation>().empty());

    // With no tags shown it still removes a tag layer; with no tile overlay nothing binds.
    view_->addSMLayer(layer(SMLayerModeNone));
    view_->removeAllTags();
    EXPECT_EQ(modes(), (std::vector<std::vector<std::int64_t>>{{kNormal}}));
    view_->map::MapView::removeOverlays(view_->overlays());
    view_->showTags({"temple"});
    EXPECT_EQ(globals::tagOverlay(), nullptr);
    EXPECT_TRUE(view_->overlays().empty());
}

TEST_F(Tags, TheRegionChangeShowsOnlyTheCurrentZoomsTags) {
    view_->showTags({"temple"});
    auto bound = globals::tagOverlay();
    std::vector<std::shared_ptr<SMTagAnnotation>> tags;
    for (std::int64_t zoom : {13, 14, 15}) {
        auto t = std::make_shared<SMTagAnnotation>();
        t->setSetId(bound->setId());
        t->setZoom(zoom);
        t->setCoordinate(kBangkok);
        t->setCustomIcon(SMIcon::withImage(Bundle::kit().image("marker")));
        tags.push_back(t);
    }
    view_->addAnnotations(std::vector<std::shared_ptr<map::Annotation>>(tags.begin(), tags.end()));
    view_->render(dispatch::Duration(5));
    showAt(kBangkok, 14.2);
    EXPECT_TRUE(view_->viewForAnnotation(tags[0])->isHidden());
    EXPECT_FALSE(view_->viewForAnnotation(tags[1])->isHidden());
    EXPECT_TRUE(view_->viewForAnnotation(tags[2])->isHidden());
    showAt(kBangkok, 14.6);
    EXPECT_TRUE(view_->viewForAnnotation(tags[1])->isHidden());
    EXPECT_FALSE(view_->viewForAnnotation(tags[2])->isHidden());

    // Bound with an empty list, the walk is skipped: views stay as they are.
    view_->showTags(std::vector<std::string>{});
    auto keep = std::make_shared<SMTagAnnotation>();
    keep->setSetId(globals::tagOverlay()->setId());
    keep->setZoom(3);
    keep->setCoordinate(kBangkok);
    keep->setCustomIcon(SMIcon::withImage(Bundle::kit().image("marker")));
    view_->addAnnotation(keep);
    view_->render(dispatch::Duration(5));
    showAt(kBangkok, 14);
    EXPECT_FALSE(view_->viewForAnnotation(keep)->isHidden());
}

TEST_F(Tags, ServiceFailuresAreLoggedAndTheTagsOnTheMapStay) {
    view_->showTags({"temple"});
    auto bound = globals::tagOverlay();
    renderSettled();
    const std::size_t onMap = annotationsOf<SMTagAnnotation>().size();
    ASSERT_GT(onMap, 0u);
    const std::size_t tilesAsked = service_.requests(kCluster).size();

    // Each failing answer gives one line naming its tile; nothing of it reaches the map.
    // A dropped connection is retried once on a fresh one, so only the tiles are counted.
    auto failWith = [&](const std::function<void()>& inject) -> std::vector<std::string> {
        capture_.clear();
        service_.clearRequests();
        inject();
        bound->reloadData();
        renderSettled();
        std::set<std::string> paths;
        for (const auto& r : service_.requests(kCluster)) {
            paths.insert(r.path);
        }
        EXPECT_EQ(paths.size(), tilesAsked);
        EXPECT_EQ(annotationsOf<SMTagAnnotation>().size(), onMap);
        service_.clearFaults();
        std::vector<std::string> lines = capture_.lines();
        EXPECT_EQ(lines.size(), tilesAsked);
        for (const auto& r : service_.requests(kCluster)) {
            auto [z, x, y] = tileOf(r);
            std::string head =
                "showTags Error (14, " + std::to_string(x + (1 << 14) * y) + ", temple): ";
            bool found = false;
            for (const auto& line : lines) {
                found = found || line.starts_with(head);
            }
            EXPECT_TRUE(found) << head;
        }
        return lines;
    };
    auto route = [&](std::string body) {
        return [this, body] {
            service_.route(kCluster,
                           [body](const server::Request&) { return server::Response::json(body); });
        };
    };
    auto endsWith = [](const std::vector<std::string>& lines, const std::string& tail) {
        for (const auto& line : lines) {
            EXPECT_TRUE(line.ends_with(tail)) << line;
        }
    };
    endsWith(
        failWith([&] {
            server::Fault f;
            f.count = -1;
            f.status = 500;
            service_.injectFault(kCluster, f);
        }),
        "): The data couldn't be read because it isn't in the correct format. "
        "(parse error at line 1, column 1: syntax error while parsing value - invalid literal; "
        "last read: 'i')");
    endsWith(failWith([&] {
                 server::Fault f;
                 f.count = -1;
                 f.dropConnection = true;
                 service_.injectFault(kCluster, f);
             }),
             "): The network connection was lost.");
    endsWith(failWith(route(R"({"data": "none"})")), "): expected an array, found string");
    endsWith(failWith(route(R"({"data": [{"id": "x", "lat": null}]})")),
             "): lat: expected a number or a string, found null");
    endsWith(failWith(route(R"([1, 2])")), "): expected an object, found array");
}

TEST_F(Tags, AVeryLargeAnswerArrivesWhole) {
    nlohmann::json items = nlohmann::json::array();
    for (int i = 0; i < 20000; ++i) {
        items.push_back({{"id", i},
                         {"name", "p" + std::to_string(i)},
                         {"icon", "temple.png"},
                         {"lat", 13.75 + i * 1e-6},
                         {"lon", 100.5}});
    }
    std::string body = nlohmann::json{{"data", items}}.dump();
    service_.route(kCluster,
                   [body](const server::Request&) { return server::Response::json(body); });
    // A tag icon of the host's own: the test is about the answer, not 20,000 icon fetches.
    auto options = SMTagOptions::create();
    options->setIcon(SMIcon::withImage(Bundle::kit().image("marker")));
    view_->showTags(std::vector<std::string>{"temple"}, options);
    renderSettled(60);
    EXPECT_EQ(annotationsOf<SMTagAnnotation>().size(), 20000u) << "the same ids from every tile";
    EXPECT_TRUE(capture_.lines().empty());
}

}  // namespace
}  // namespace sorvan::test
