// SMTileOverlay against the embedded service on loopback: what the service received, what the
// tile looks like, and what the disk cache holds afterwards.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/defaults.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/server/embedded_service.hpp"
#include "support/foundation_support.hpp"
#include "support/service_harness.hpp"
#include "tiles/tile_cache.hpp"
#include "tiles/tile_outcome.hpp"

namespace sorvan {
namespace {
namespace fs = std::filesystem;

class Recorder : public SMTileDataDelegate {
  public:
    void dataFromTile(const net::Data& data) override {
        std::lock_guard lock(mutex_);
        received.emplace_back(data.begin(), data.end());
    }
    std::mutex mutex_;
    std::vector<std::string> received;
};

class TileOverlayTest : public ::testing::Test {
  protected:
    void SetUp() override {
        defaults_ = Defaults::open(home_.file("defaults.sqlite"));
        tiles::TileCache::shared().resetForTesting();
        tiles::TileCache::shared().setDefaultsForTesting(defaults_.get());
        origin_ = service_.origin();
        ServiceConfig config = ServiceConfig{}.pointedAt(origin_);
        config.partnerMapServer = origin_ + "/partner/map/msn-server/img.php";
        config.trafficServer = origin_ + "/traffic/map/msn-server/img.php";
        ServiceConfig::setCurrent(config);
        globals::resetForTesting();
        net::URLCache::shared().removeAllCachedResponses();
    }
    void TearDown() override {
        tiles::TileCache::shared().setDefaultsForTesting(nullptr);
        tiles::TileCache::shared().resetForTesting();
        ServiceConfig::setCurrent(ServiceConfig::fromEnvironment());
        globals::resetForTesting();
    }

    std::shared_ptr<SMTileOverlay> overlay(std::vector<std::int64_t> modes,
                                           std::int64_t language = 0) {
        return SMTileOverlay::create(std::move(modes), "KEY", std::nullopt, language);
    }
    std::shared_ptr<SMTileOverlay> custom(const std::string& urlTemplate, std::int64_t format,
                                          std::optional<std::vector<std::string>> referers = {}) {
        auto o = overlay({21});
        o->setCustomUrl(std::vector<std::string>{urlTemplate}, std::vector<std::int64_t>{format},
                        std::move(referers));
        return o;
    }
    static std::vector<std::uint8_t> load(SMTileOverlay& o, map::TilePath path) {
        std::vector<std::uint8_t> out;
        int calls = 0;
        o.loadTileAtPath(path, [&](std::vector<std::uint8_t> data, std::optional<std::string> e) {
            ++calls;
            EXPECT_FALSE(e);
            out = std::move(data);
        });
        EXPECT_EQ(calls, 1);
        return out;
    }
    static std::shared_ptr<gfx::Image> loadImage(SMTileOverlay& o, map::TilePath path) {
        auto data = load(o, path);
        auto image = gfx::Image::fromData(data);
        EXPECT_TRUE(image) << "no picture";
        if (image) {
            EXPECT_EQ(image->pixelWidth(), 256);
            EXPECT_EQ(image->pixelHeight(), 256);
        }
        return image;
    }
    std::string referer() const { return "sorvan://" + Bundle::main().identifier(); }
    std::string cacheFile(const std::string& address) const {
        return paths() + "/tileCache/" + SMTileOverlay::SHA256String(address) + ".png";
    }
    std::string paths() const { return home_.path() + "/caches"; }

    test::TempDir home_;
    test::ScopedEnv env_{"SORVAN_HOME", home_.path()};
    std::unique_ptr<Defaults> defaults_;
    server::EmbeddedService service_{sorvan::testing::recordingService()};
    std::string origin_;
    log::Capture log_;
};

TEST_F(TileOverlayTest, InitializerSetsProcessWideValuesAndZoomRange) {
    auto traffic = SMTileOverlay::create({13, 16}, "A", net::URL::fromString("http://box/"), 2);
    EXPECT_EQ(globals::apikey(), "A");
    EXPECT_EQ(globals::boxDomain()->absoluteString(), "http://box/");
    EXPECT_EQ(traffic->minimumZ(), 7);
    EXPECT_EQ(traffic->maximumZ(), 16);
    EXPECT_EQ(traffic->cache(), 2);
    EXPECT_EQ(traffic->alpha(), 1.0);
    EXPECT_EQ(traffic->tileSize(), (gfx::Size{512, 512}));
    EXPECT_TRUE(traffic->canReplaceMapContent());
    EXPECT_EQ(traffic->modeString(9), "icons-en");

    auto thaichote = SMTileOverlay::create({14}, "B", std::nullopt, 0);
    EXPECT_EQ(globals::apikey(), "B");
    EXPECT_FALSE(globals::boxDomain());
    EXPECT_EQ(thaichote->maximumZ(), 18);
    auto plain = overlay({5});
    EXPECT_EQ(plain->minimumZ(), map::TileOverlay().minimumZ());
    EXPECT_EQ(plain->maximumZ(), map::TileOverlay().maximumZ());
    EXPECT_TRUE(fs::is_directory(paths() + "/tileCache"));
}

TEST_F(TileOverlayTest, ServerLayersAskTheirServersWithTheBundleReferer) {
    // Map server through the box domain, the partner server, the traffic server.
    globals::setLayerServer(std::nullopt);
    auto o =
        SMTileOverlay::create({5, 14, 16}, "KEY", net::URL::fromString(origin_ + "/partner"), 2);
    loadImage(*o, {3, 5, 3});
    auto received = service_.requests();
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[0].target,
              "/partner/map/msn-server/img.php?c=1&proj=epsg3857&mode=normal-en"
              "&res=8&imgid=39708641927&key=KEY&HD=1");
    EXPECT_EQ(received[1].target,
              "/partner/map/msn-server/img.php?c=1&proj=epsg3857&mode=thaichote"
              "&res=8&imgid=39708641927&key=KEY&HD=1");
    EXPECT_EQ(received[2].target,
              "/traffic/map/msn-server/img.php?c=1&proj=epsg3857"
              "&mode=trafficoverlay&res=8&imgid=39708641927&key=KEY&HD=1");
    for (const auto& r : received) {
        EXPECT_EQ(r.headers.at("referer"), referer());
    }

    // Without a box domain the layer server is asked; a server layer names its own mode.
    globals::setLayerServer(net::URL::fromString(origin_ + "/traffic/map/msn-server/img.php"));
    auto server = SMTileOverlay::create({20, 20}, "K2", std::nullopt, 0);
    server->setCustomUrl(std::vector<std::string>{"roads"}, std::nullopt, std::nullopt);
    service_.clearRequests();
    loadImage(*server, {0, 0, 0});
    received = service_.requests();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].target,
              "/traffic/map/msn-server/img.php?c=1&proj=epsg3857&mode=roads"
              "&res=0&imgid=0&key=K2&HD=1");
    EXPECT_EQ(received[1].query, "c=1&proj=epsg3857&mode=(null)&res=0&imgid=0&key=K2&HD=1");
}

TEST_F(TileOverlayTest, ServerLayersAskTheConfigurationInForceWhenTheTileIsLoaded) {
    // The process-wide settings come to life under one configuration...
    ServiceConfig::setCurrent(
        ServiceConfig{}.pointedAt("http://127.0.0.1:" + std::to_string(testing::closedPort())));
    globals::resetForTesting();
    globals::setApikey("KEY");
    // ... and the host sets another one afterwards.
    ServiceConfig live = ServiceConfig{}.pointedAt(origin_);
    ServiceConfig::setCurrent(live);
    service_.clearRequests();
    loadImage(*overlay({5, 16}), {0, 0, 8});
    auto received = service_.requests();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].path, "/map/msn-server/img.php");
    EXPECT_EQ(received[1].path, "/traffic/map/msn-server/img.php");
    EXPECT_TRUE(log_.lines().empty());

    // Without a traffic service the traffic layer spoils the tile, and asks nobody.
    live.trafficServer.clear();
    ServiceConfig::setCurrent(live);
    service_.clearRequests();
    EXPECT_TRUE(load(*overlay({16}), {0, 0, 8}).empty());
    EXPECT_TRUE(service_.requests().empty());
}

TEST_F(TileOverlayTest, TemplatesAskWhatTheyDescribe) {
    struct Case {
        std::string urlTemplate;
        std::int64_t format;
        std::string target;
    } cases[] = {
        {"/tiles/{z}/{x}/{y}.png", 0, "/tiles/2/3/1.png"},
        {"/tiles/{z}/{x}/{y}.png", 1, "/tiles/2/3/1.png"},
        {"/tms/{z}/{x}/{y}.png", 2, "/tms/2/3/2.png"},
        {"/wms?LAYERS=roads", 4,
         "/wms?LAYERS=roads&SERVICE=WMS&REQUEST=GetMap&VERSION=1.1.1&SRS=EPSG:4326"
         "&BBOX=90.000000,0.000000,180.000000,66.513260&EXCEPTIONS=BLANK&TILED=true"
         "&FORMAT=image/png&TRANSPARENT=true&WIDTH=256&HEIGHT=256"},
        {"/wms", 5,
         "/wms?SERVICE=WMS&REQUEST=GetMap&VERSION=1.1.1&SRS=EPSG:3857"
         "&BBOX=10018754.171395,-0.000000,20037508.342789,10018754.171395&EXCEPTIONS=BLANK"
         "&TILED=true&FORMAT=image/png&TRANSPARENT=true&WIDTH=256&HEIGHT=256"},
        // A data template without a data delegate is an ordinary {x}/{y}/{z} template.
        {"/tiles/{z}/{x}/{y}.png?v=3", 3, "/tiles/2/3/1.png?v=3"},
    };
    for (const auto& c : cases) {
        service_.clearRequests();
        net::URLCache::shared().removeAllCachedResponses();  // the same address comes twice
        auto o = custom(origin_ + c.urlTemplate, c.format);
        auto image = loadImage(*o, {3, 1, 2});
        auto received = service_.requests();
        ASSERT_EQ(received.size(), 1u) << c.urlTemplate;
        EXPECT_EQ(received[0].target, c.target);
        EXPECT_EQ(received[0].headers.at("referer"), referer());
        ASSERT_TRUE(image);
        EXPECT_GT(image->rgbaAt(128, 128)[3], 0) << c.urlTemplate << ": nothing drawn";
    }
    // TMS rows count from the south, and the service counts them back: the same place.
    auto tms = loadImage(*custom(origin_ + "/tms/{z}/{x}/{y}.png", 2), {3, 1, 2});
    auto xyz = loadImage(*custom(origin_ + "/tiles/{z}/{x}/{y}.png", 0), {3, 1, 2});
    auto otherRow = loadImage(*custom(origin_ + "/tiles/{z}/{x}/{y}.png", 0), {3, 2, 2});
    EXPECT_EQ(tms->pixels(), xyz->pixels());
    EXPECT_NE(tms->pixels(), otherRow->pixels());
}

TEST_F(TileOverlayTest, RefererComesFromTheLayerOnlyForCustomLayersThatHaveOne) {
    auto o = overlay({21, 21, 0});
    o->setCustomUrl(std::vector<std::string>{origin_ + "/tiles/{z}/{x}/{y}.png",
                                             origin_ + "/overlay/{z}/{x}/{y}.png", "ignored"},
                    std::vector<std::int64_t>{0, 0, 0},
                    std::vector<std::string>{"http://app.example/", "another"});
    loadImage(*o, {0, 0, 1});
    auto received = service_.requests();
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[0].headers.at("referer"), "http://app.example/");
    EXPECT_EQ(received[1].headers.at("referer"), "another");
    EXPECT_EQ(received[2].headers.at("referer"), referer());

    // An empty referer list: the bundle referer for custom layers too.
    service_.clearRequests();
    net::URLCache::shared().removeAllCachedResponses();
    loadImage(*custom(origin_ + "/tiles/{z}/{x}/{y}.png", 0, std::vector<std::string>{}),
              {0, 0, 1});
    ASSERT_EQ(service_.requests().size(), 1u);
    EXPECT_EQ(service_.requests()[0].headers.at("referer"), referer());
}

TEST_F(TileOverlayTest, DataLayersFeedTheDelegateWithoutRefererCacheOrRetry) {
    auto recorder = std::make_shared<Recorder>();
    auto o = overlay({18, 21});
    o->setCustomUrl(std::vector<std::string>{"", origin_ + "/data/{z}/{u}/{v}?w={w}&ux={ux}"},
                    std::vector<std::int64_t>{0, 3}, std::vector<std::string>{"", "r"});
    o->setDataDelegate(recorder);
    o->setCache(1);
    auto image = loadImage(*o, {3, 1, 2});
    ASSERT_TRUE(image);
    EXPECT_EQ(image->rgbaAt(10, 10), (std::array<std::uint8_t, 4>{255, 255, 255, 255}));
    auto received = service_.requests();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].target, "/data/2/3/1?w=18&ux=false");
    EXPECT_EQ(received[0].headers.count("referer"), 0u);
    ASSERT_EQ(recorder->received.size(), 1u);
    EXPECT_EQ(recorder->received[0], R"({"path":"/data/2/3/1","query":"w=18&ux=false"})");
    EXPECT_TRUE(tiles::TileCache::shared().tileList().empty());

    // A failing data answer is asked once and still handed over (only transport errors stop
    // it); a dead server hands nothing over and logs nothing.
    recorder->received.clear();
    service_.clearRequests();
    o->setCustomUrl(std::vector<std::string>{"", origin_ + "/data/x?status=500"},
                    std::vector<std::int64_t>{0, 3}, std::nullopt);
    load(*o, {0, 0, 1});
    EXPECT_EQ(service_.requests().size(), 1u);
    EXPECT_EQ(recorder->received.size(), 1u);
    o->setCustomUrl(std::vector<std::string>{"", strformat("http://127.0.0.1:%d/data/x",
                                                           testing::closedPort())},
                    std::vector<std::int64_t>{0, 3}, std::nullopt);
    load(*o, {0, 0, 1});
    EXPECT_EQ(recorder->received.size(), 1u);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(TileOverlayTest, FailedStatusIsAskedThreeTimesSilentlyAndTransportErrorsOnceLoudly) {
    auto failing = custom(origin_ + "/tiles/{z}/{x}/{y}.png?status=500", 0);
    auto image = loadImage(*failing, {0, 0, 1});
    EXPECT_EQ(service_.requests().size(), 3u);
    EXPECT_TRUE(log_.lines().empty());
    ASSERT_TRUE(image);  // the layer is left out of an otherwise empty picture
    EXPECT_EQ(image->rgbaAt(128, 128)[3], 0);

    service_.clearRequests();
    int port = testing::closedPort();
    auto dead = custom(strformat("http://127.0.0.1:%d/tiles/{z}/{x}/{y}.png", port), 0);
    load(*dead, {0, 0, 1});
    EXPECT_TRUE(service_.requests().empty());
    auto lines = log_.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("TILE ERROR: ", 0), 0u) << lines[0];
    EXPECT_GT(lines[0].size(), std::string("TILE ERROR: ").size());
    EXPECT_EQ(log_.entries()[0].level, log::Level::error);

    // The service's own fault injection: one 503, then the tile.
    log_.clear();
    service_.clearRequests();
    server::Fault fault;
    fault.status = 503;
    service_.injectFault("/overlay/", fault);
    auto recovering = custom(origin_ + "/overlay/{z}/{x}/{y}.png", 0);
    loadImage(*recovering, {0, 0, 1});
    EXPECT_EQ(service_.requests().size(), 2u);
}

TEST_F(TileOverlayTest, OutcomeReportsNameEachMissingLayerAndChangeNothing) {
    std::mutex mutex;
    std::vector<tiles::TileOutcome> outcomes;
    tiles::TileOutcomeSubscription subscription([&](const tiles::TileOutcome& outcome) {
        std::lock_guard lock(mutex);
        outcomes.push_back(outcome);
    });
    // A good layer, a failing one and "none" at the bottom: the picture keeps the good one,
    // the requests and the (empty) log are those of a load nobody watches.
    auto stack = overlay({19, 5, 21});
    stack->setCustomUrl(
        std::vector<std::string>{"", "", origin_ + "/tiles/{z}/{x}/{y}.png?status=404"},
        std::vector<std::int64_t>{0, 0, 0}, std::nullopt);
    auto image = loadImage(*stack, {1, 2, 3});
    EXPECT_EQ(service_.requests("/tiles/").size(), 3u);
    EXPECT_TRUE(log_.lines().empty());
    ASSERT_TRUE(image);
    EXPECT_EQ(image->rgbaAt(128, 128)[3], 255);
    {
        std::lock_guard lock(mutex);
        ASSERT_EQ(outcomes.size(), 1u);
        EXPECT_EQ(outcomes[0].path, (map::TilePath{1, 2, 3}));
        EXPECT_TRUE(outcomes[0].picture);
        ASSERT_EQ(outcomes[0].failures.size(), 1u);
        const tiles::LayerFailure& f = outcomes[0].failures[0];
        EXPECT_EQ(f.layer, 2u);
        EXPECT_EQ(f.mode, 21);
        EXPECT_EQ(f.cause, tiles::LayerFailure::Cause::Status);
        EXPECT_EQ(f.status, 404);
        outcomes.clear();
    }

    // A stack that ends in "none" has no picture on purpose: no failure to report.
    load(*overlay({5, 19}), {0, 0, 1});
    // A dead server: the transport's words, the same as its one log line.
    auto dead = custom(strformat("http://127.0.0.1:%d/{z}/{x}/{y}.png", testing::closedPort()), 0);
    load(*dead, {0, 0, 1});
    std::lock_guard lock(mutex);
    ASSERT_EQ(outcomes.size(), 2u);
    EXPECT_FALSE(outcomes[0].picture);
    EXPECT_TRUE(outcomes[0].failures.empty());
    ASSERT_EQ(outcomes[1].failures.size(), 1u);
    EXPECT_EQ(outcomes[1].failures[0].cause, tiles::LayerFailure::Cause::Transport);
    ASSERT_EQ(log_.lines().size(), 1u);
    EXPECT_EQ(log_.lines()[0], "TILE ERROR: " + outcomes[1].failures[0].describe());
}

TEST_F(TileOverlayTest, CompositionOfWhiteNoneAndTrafficWithoutServer) {
    auto white = loadImage(*overlay({18}), {0, 0, 1});
    ASSERT_TRUE(white);
    EXPECT_TRUE(white->isOpaque());
    EXPECT_EQ(white->rgbaAt(0, 0), (std::array<std::uint8_t, 4>{255, 255, 255, 255}));
    EXPECT_EQ(white->rgbaAt(255, 255), (std::array<std::uint8_t, 4>{255, 255, 255, 255}));

    auto base = custom(origin_ + "/tiles/{z}/{x}/{y}.png", 0);
    EXPECT_TRUE(load(*overlay({19}), {0, 0, 1}).empty());

    auto lastNone = overlay({21, 19});
    lastNone->setCustomUrl(base->urlLayer(), base->tileFormat(), std::nullopt);
    EXPECT_TRUE(load(*lastNone, {0, 0, 1}).empty());
    auto firstNone = overlay({19, 21});
    firstNone->setCustomUrl(std::vector<std::string>{"", base->urlLayer()->at(0)},
                            std::vector<std::int64_t>{0, 0}, std::nullopt);
    EXPECT_EQ(loadImage(*firstNone, {0, 0, 1})->pixels(), loadImage(*base, {0, 0, 1})->pixels());

    // White goes under what is already drawn: overlay pictures over white.
    auto icons = custom(origin_ + "/overlay/{z}/{x}/{y}.png", 0);
    auto iconsOverWhite = overlay({21, 18});
    iconsOverWhite->setCustomUrl(icons->urlLayer(), icons->tileFormat(), std::nullopt);
    auto bare = loadImage(*icons, {1, 1, 2});
    auto underlaid = loadImage(*iconsOverWhite, {1, 1, 2});
    EXPECT_TRUE(underlaid->isOpaque());
    EXPECT_FALSE(bare->isOpaque());

    // Traffic with no traffic server: nothing at all, and nothing asked.
    service_.clearRequests();
    globals::setTrafficServer(std::nullopt);
    EXPECT_TRUE(load(*overlay({18, 16}), {0, 0, 8}).empty());
    EXPECT_TRUE(service_.requests().empty());
}

TEST_F(TileOverlayTest, OfflineGrayReadsTheDocumentsFolderOnly) {
    std::string file = home_.path() + "/documents/grayproxy/1/grayproxy/000/000/000/000/003.jpg";
    fs::create_directories(fs::path(file).parent_path());
    auto red = gfx::Image::fromPixels(256, 256, std::vector<std::uint32_t>(256 * 256, 0xFFFF0000));
    ASSERT_TRUE(red->writePNG(file));  // the decoder sniffs the bytes, whatever the name says
    auto o = overlay({17});
    EXPECT_EQ(loadImage(*o, {1, 1, 1})->rgbaAt(5, 5),
              (std::array<std::uint8_t, 4>{255, 0, 0, 255}));
    EXPECT_TRUE(load(*o, {0, 1, 1}).empty());  // no file, nothing drawn
    EXPECT_TRUE(service_.requests().empty());
}

TEST_F(TileOverlayTest, TemplatesThatFormNoURLGiveNoPicture) {
    // Placeholders of another format stay, braces and all, and braces form no URL.
    for (const char* bad : {"http://bad host/{z}/{x}/{y}.png", "", "http://h/{z}/<{x}>",
                            "http://h/{z}/{x}/{y}.png?ux={ux}"}) {
        auto o = overlay({18, 21});
        o->setCustomUrl(std::vector<std::string>{"", bad}, std::vector<std::int64_t>{0, 0},
                        std::nullopt);
        EXPECT_TRUE(load(*o, {0, 0, 1}).empty()) << bad;
    }
    auto noTemplate = overlay({21});  // no list at all
    EXPECT_TRUE(load(*noTemplate, {0, 0, 1}).empty());
    EXPECT_TRUE(service_.requests().empty());
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(TileOverlayTest, DiskCacheFilesNamesAndCorruptFiles) {
    std::string address = origin_ + "/tiles/1/0/1.png";
    auto o = custom(origin_ + "/tiles/{z}/{x}/{y}.png", 0);
    o->setCache(2);
    loadImage(*o, {0, 1, 1});
    EXPECT_FALSE(fs::exists(cacheFile(address)));
    EXPECT_TRUE(tiles::TileCache::shared().tileList().empty());

    o->setCache(1);
    net::URLCache::shared().removeAllCachedResponses();
    auto first = loadImage(*o, {0, 1, 1});
    ASSERT_TRUE(fs::exists(cacheFile(address)));
    auto stored = gfx::Image::fromFile(cacheFile(address));
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->pixels(), first->pixels());
    std::vector<std::string> expected{SMTileOverlay::SHA256String(address)};
    EXPECT_EQ(tiles::TileCache::shared().tileList(), expected);
    EXPECT_EQ(defaults_->stringArrayForKey("tileList"), expected);

    // A warm load asks nobody.
    service_.clearRequests();
    net::URLCache::shared().removeAllCachedResponses();
    EXPECT_EQ(loadImage(*o, {0, 1, 1})->pixels(), first->pixels());
    EXPECT_TRUE(service_.requests().empty());

    // A cache file that no longer decodes is fetched again and replaced.
    std::ofstream(cacheFile(address), std::ios::trunc) << "\x89PNG broken";
    EXPECT_EQ(loadImage(*o, {0, 1, 1})->pixels(), first->pixels());
    EXPECT_EQ(service_.requests().size(), 1u);
    EXPECT_TRUE(gfx::Image::fromFile(cacheFile(address)));
    EXPECT_EQ(tiles::TileCache::shared().tileList().size(), 2u);  // listed twice, as always

    // An undecodable answer: no file, but the name is listed all the same.
    std::string garbage = origin_ + "/tiles/1/1/1.png?garbage=1";
    auto g = custom(origin_ + "/tiles/{z}/{x}/{y}.png?garbage=1", 0);
    g->setCache(1);
    loadImage(*g, {1, 1, 1});
    EXPECT_FALSE(fs::exists(cacheFile(garbage)));
    EXPECT_EQ(tiles::TileCache::shared().tileList().back(), SMTileOverlay::SHA256String(garbage));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(TileOverlayTest, AnswersThatDrawNothingAreAskedForAgainOnceTheServerHeals) {
    // The disk cache is off: what is kept across loads is the URL cache's alone.
    auto solid = [](int w, int h) {
        auto image = gfx::Image::fromPixels(w, h, std::vector<std::uint32_t>(w * h, 0xffcc2020));
        auto png = image->pngData();
        return std::string(png.begin(), png.end());
    };
    std::mutex mutex;
    std::string answer;  // what /flaky answers next; guarded by mutex
    bool html = false;
    service_.route("/flaky/", [&](const server::Request&) {
        std::lock_guard lock(mutex);
        return html ? server::Response::html(answer) : server::Response::png(answer);
    });
    auto o = custom(origin_ + "/flaky/{z}/{x}/{y}.png", 0);
    o->setCache(2);
    auto becomes = [&](std::string next, bool isHTML) {
        std::lock_guard lock(mutex);
        answer = std::move(next);
        html = isHTML;
    };
    const std::vector<std::pair<std::string, bool>> broken = {
        {"<html><body>maintenance</body></html>", true},  // an error page sent as 200
        {solid(2049, 4), false},                          // wider than any tile can be
        {solid(256, 256).substr(0, 300), false},          // cut short
    };
    for (const auto& [body, isHTML] : broken) {
        service_.clearRequests();
        becomes(body, isHTML);
        auto gap = loadImage(*o, {1, 0, 1});
        ASSERT_TRUE(gap);
        EXPECT_EQ(gap->rgbaAt(128, 128)[3], 0) << "a picture from a broken answer";
        becomes(solid(256, 256), false);
        auto healed = loadImage(*o, {1, 0, 1});
        ASSERT_TRUE(healed);
        EXPECT_EQ(healed->rgbaAt(128, 128), (std::array<std::uint8_t, 4>{0xcc, 0x20, 0x20, 0xff}));
        EXPECT_EQ(service_.requests("/flaky/").size(), 2u) << "asked the server again";
        // ... and a good answer stays where the loader finds it without the network.
        loadImage(*o, {1, 0, 1});
        EXPECT_EQ(service_.requests("/flaky/").size(), 2u);
        net::URLCache::shared().removeAllCachedResponses();
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(TileOverlayTest, TheListEvictsItsOldestNameAtTenThousandAndOne) {
    std::vector<std::string> names;
    for (int i = 0; i < 10001; ++i) {
        names.push_back(strformat("%076d", i));
    }
    defaults_->setStringArray(names, "tileList");
    auto o = custom(origin_ + "/tiles/{z}/{x}/{y}.png", 0);  // loads the list
    o->setCache(1);
    std::string oldest = paths() + "/tileCache/" + names[0] + ".png";
    std::string second = paths() + "/tileCache/" + names[1] + ".png";
    std::ofstream(oldest) << "x";
    std::ofstream(second) << "x";

    loadImage(*o, {0, 0, 1});
    auto list = tiles::TileCache::shared().tileList();
    ASSERT_EQ(list.size(), 10001u);
    EXPECT_EQ(list.front(), names[1]);
    EXPECT_EQ(list.back(), SMTileOverlay::SHA256String(origin_ + "/tiles/1/0/0.png"));
    EXPECT_FALSE(fs::exists(oldest));
    EXPECT_TRUE(fs::exists(second));
    EXPECT_EQ(defaults_->stringArrayForKey("tileList"), list);

    // The stored list is removed: the whole list goes back at once.
    tiles::TileCache::shared().removeStoredList();
    EXPECT_FALSE(defaults_->stringArrayForKey("tileList"));
    net::URLCache::shared().removeAllCachedResponses();
    loadImage(*o, {1, 0, 1});
    EXPECT_EQ(defaults_->stringArrayForKey("tileList"), tiles::TileCache::shared().tileList());
}

TEST_F(TileOverlayTest, ConcurrentLoadsLoseNoNameAndLeaveOneFilePerName) {
    auto o = custom(origin_ + "/tiles/{z}/{x}/{y}.png", 0);
    o->setCache(1);
    constexpr int kThreads = 6, kTiles = 8;
    // Odd threads load tiles of their own; even threads race each other for the same tiles.
    auto column = [](int thread, int i) { return thread % 2 == 0 ? i : thread * kTiles + i; };
    auto nameOf = [&](int x) {
        return SMTileOverlay::SHA256String(origin_ + strformat("/tiles/6/%d/0.png", x));
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kTiles; ++i) {
                load(*o, {column(t, i), 0, 6});
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    auto list = tiles::TileCache::shared().tileList();
    std::set<std::string> listed(list.begin(), list.end()), expected;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kTiles; ++i) {
            expected.insert(nameOf(column(t, i)));
            if (t % 2 == 1) {
                EXPECT_EQ(std::count(list.begin(), list.end(), nameOf(column(t, i))), 1);
            }
        }
    }
    EXPECT_EQ(listed, expected);
    EXPECT_LE(list.size(), static_cast<std::size_t>(kThreads * kTiles));
    EXPECT_EQ(defaults_->stringArrayForKey("tileList"), list);
    std::set<std::string> files;
    for (const auto& entry : fs::directory_iterator(paths() + "/tileCache")) {
        files.insert(entry.path().stem().string());
    }
    EXPECT_EQ(files, expected);  // no temporary left behind, no name without its file
}

}  // namespace
}  // namespace sorvan
