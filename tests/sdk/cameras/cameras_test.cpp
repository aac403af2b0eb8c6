// Traffic cameras: the feed's item rules, loading and unloading over HTTP to the embedded
// camera feed, failures, and the camera views (web picture, live video with its banner).
#include <cmath>
#include <ctime>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SMCameraAnnotation.hpp"
#include "cameras/camera_feed.hpp"
#include "sdk/mapview/live_fixture.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/graphics/image_context.hpp"
#include "sorvan/platform/media/audio_session.hpp"
#include "sorvan/platform/media/player_layer.hpp"
#include "sorvan/platform/ui/layout_constraint.hpp"
#include "sorvan/platform/ui/web_view.hpp"
#include "sorvan/server/live_streams.hpp"
#include "support/foundation_support.hpp"
#include "support/render_compare.hpp"

namespace sorvan::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kFeed = "/camera.json";
constexpr const char* kImages = "https://cctv.example";

std::shared_ptr<SMCameraAnnotation> fromItem(const char* item) {
    return cameras::cameraFromItem(json::Value::parse(item), kImages);
}

TEST(CameraFeed, MotionAndHlsDecideTheSourceAndTheFormat) {
    struct Case {
        const char* item;
        const char* url;  // nullptr: none
        std::int64_t format;
    };
    const Case cases[] = {
        {R"({"motion": "N", "imgurl": "http://a/i.jpg", "vdourl": "http://a/v"})", "http://a/i.jpg",
         0},
        {R"({"motion": "y", "imgurl": "http://a/i.jpg", "hls_url": "http://a/h.m3u8"})",
         "http://a/i.jpg", 0},
        {R"({"imgurl": "http://a/i.jpg", "hls_url": "http://a/h.m3u8"})", "http://a/i.jpg", 0},
        {R"({"motion": 1, "imgurl": "http://a/i.jpg"})", "http://a/i.jpg", 0},
        {R"({"motion": "Y", "hls_url": null, "vdourl": "http://a/v.png"})", "http://a/v.png", 1},
        {R"({"motion": "Y", "hls_url": "http://a/h.m3u8", "vdourl": "http://a/v"})",
         "http://a/h.m3u8", 2},
        // No "hls_url" at all: a stream without an address.
        {R"({"motion": "Y", "vdourl": "http://a/v.png"})", nullptr, 2},
        // An address that is no URL gives none; the camera stays.
        {R"({"motion": "N", "imgurl": "http://a/ภาพ.jpg"})", nullptr, 0},
    };
    for (const auto& c : cases) {
        auto camera = fromItem(c.item);
        EXPECT_EQ(camera->format(), c.format) << c.item;
        if (c.url) {
            ASSERT_TRUE(camera->url()) << c.item;
            EXPECT_EQ(camera->url()->absoluteString(), c.url);
        } else {
            EXPECT_EQ(camera->url(), std::nullopt) << c.item;
        }
    }
}

TEST(CameraFeed, ItemsReadTextsDatesBannersAndPositions) {
    auto camera = fromItem(R"({"camid": "C7", "title": "แยกอโศก", "organization": "กทม.",
        "sponsertext": "by us", "overlay_file": "ad.png", "lastupdate": "2024-01-31 08:05:00",
        "latitude": "13.75", "longitude": 100.5})");
    EXPECT_EQ(camera->cameraId(), "C7");
    EXPECT_EQ(camera->cameraTitle(), "แยกอโศก");
    EXPECT_EQ(camera->organization(), "กทม.");
    EXPECT_EQ(camera->sponsorText(), "by us");
    ASSERT_TRUE(camera->sponsorImageURL());
    EXPECT_EQ(camera->sponsorImageURL()->absoluteString(),
              "https://cctv.example/feed/images/ad.png");
    EXPECT_DOUBLE_EQ(camera->coordinate().latitude, 13.75);
    EXPECT_DOUBLE_EQ(camera->coordinate().longitude, 100.5);
    ASSERT_TRUE(camera->lastUpdate());
    EXPECT_EQ(std::chrono::system_clock::to_time_t(*camera->lastUpdate()),
              localTime(2024, 1, 31, 8, 5));
    EXPECT_EQ(camera->icon(), nullptr);
    EXPECT_EQ(camera->title(), std::nullopt);

    // A date alone, or another pattern, gives no time; numeric ids read as their text; a
    // missing banner name is formatted as absent.
    auto bare = fromItem(R"({"camid": 12, "lastupdate": "2024-01-31"})");
    EXPECT_EQ(bare->lastUpdate(), std::nullopt);
    EXPECT_EQ(bare->cameraId(), "12");
    EXPECT_EQ(bare->sponsorImageURL()->absoluteString(), "https://cctv.example/feed/images/(null)");
    EXPECT_EQ(fromItem(R"({"lastupdate": "2024-01-31T08:05:00"})")->lastUpdate(), std::nullopt);
}

TEST(CameraFeed, AFeedOfTheWrongShapeRaisesWithItsReason) {
    const std::pair<const char*, const char*> faults[] = {
        {R"([{"camid": "1"}])", "expected an object, found array"},
        {R"({"item": {"camid": "1"}})", "expected an array, found object"},
        {R"({"item": null})", "expected an array, found null"},
        {R"({"item": [{"camid": "1"}, 7]})", "expected an object, found number"},
        {R"({"item": [{"title": ["x"]}]})", "title: expected a string, found array"},
        {R"({"item": [{"camid": {}}]})", "camid: expected a string, found object"},
        {R"({"item": [{"lastupdate": 20240131}]})", "lastupdate: expected a string, found number"},
        {R"({"item": [{"motion": "N", "imgurl": 5}]})", "imgurl: expected a string, found number"},
        {R"({"item": [{"latitude": null}]})",
         "latitude: expected a number or a string, found null"},
    };
    for (const auto& [body, reason] : faults) {
        try {
            cameras::camerasFromFeed(json::Value::parse(body), kImages);
            ADD_FAILURE() << body;
        } catch (const json::StructureError& e) {
            EXPECT_EQ(e.reason(), reason) << body;
        }
    }
    EXPECT_TRUE(cameras::camerasFromFeed(json::Value::parse(R"({"data": []})"), kImages).empty());
}

class Cameras : public LiveTest {
  protected:
    void settle() {
        pumpUntil([] { return mapview::liveRequestsInFlight() == 0; });
        dispatch::RunLoop::main().drain();
    }
    void answer(std::string body) {
        service_.route(kFeed,
                       [body](const server::Request&) { return server::Response::json(body); });
    }
    std::shared_ptr<SMCameraAnnotation> camera(std::int64_t format, const std::string& url,
                                               const std::string& banner) {
        auto c = std::make_shared<SMCameraAnnotation>();
        c->setFormat(format);
        c->setUrl(net::URL::fromString(service_.origin() + url));
        c->setSponsorImageURL(net::URL::fromString(service_.origin() + "/feed/images/" + banner));
        return c;
    }
    static std::vector<double> heights(const ui::View& v) {
        std::vector<double> out;
        for (const auto& c : v.constraints()) {
            if (c->firstAttribute() == ui::LayoutAttribute::Height && !c->secondItem()) {
                out.push_back(c->constant());
            }
        }
        return out;
    }
};

TEST_F(Cameras, AFeedLoadsEveryCameraAndTwoLoadsShowEachTwice) {
    auto pin = std::make_shared<map::PointAnnotation>(kBangkok);
    view_->addAnnotation(pin);
    view_->showCameras();
    EXPECT_TRUE(view_->showsCameras());
    settle();
    auto first = annotationsOf<SMCameraAnnotation>();
    ASSERT_GE(first.size(), 25u);
    auto request = service_.requests(kFeed).at(0);
    EXPECT_EQ(request.query, "");
    EXPECT_EQ(request.headers.at("referer"), "sorvan://" + Bundle::main().identifier());
    std::map<std::int64_t, int> formats;
    std::size_t undated = 0;
    for (const auto& c : first) {
        ++formats[c->format()];
        undated += c->lastUpdate() ? 0 : 1;
        ASSERT_TRUE(c->url()) << *c->cameraId();
        EXPECT_TRUE(c->sponsorImageURL()->absoluteString().starts_with(service_.origin() +
                                                                       "/feed/images/"));
        EXPECT_LT(std::abs(c->coordinate().latitude - kBangkok.latitude), 0.3);
    }
    EXPECT_EQ(formats.size(), 3u);
    EXPECT_GT(undated, 0u) << "the feed has date-only texts";
    EXPECT_LT(undated, first.size());

    view_->loadCamera();
    settle();
    EXPECT_EQ(annotationsOf<SMCameraAnnotation>().size(), 2 * first.size());
    view_->unloadCamera();
    EXPECT_EQ(annotationsOf<SMCameraAnnotation>().size(), 2 * first.size())
        << "unloading happens later, on the main queue";
    settle();
    EXPECT_TRUE(annotationsOf<SMCameraAnnotation>().empty());
    EXPECT_EQ(view_->annotations(), std::vector<std::shared_ptr<map::Annotation>>{pin});
}

TEST_F(Cameras, CamerasSwitchedOffBeforeTheFeedLandsAddNothing) {
    server::Fault slow;
    slow.delaySeconds = 0.3;
    service_.injectFault(kFeed, slow);
    view_->showCameras();
    view_->removeCameras();
    EXPECT_FALSE(view_->showsCameras());
    settle();
    EXPECT_EQ(service_.requests(kFeed).size(), 1u);
    EXPECT_TRUE(annotationsOf<SMCameraAnnotation>().empty());
}

TEST_F(Cameras, FeedFailuresLogOneLineAndAddNothing) {
    auto failWith = [&](const std::function<void()>& inject) {
        capture_.clear();
        inject();
        view_->setShowsCameras(true);
        settle();
        service_.clearFaults();
        EXPECT_TRUE(annotationsOf<SMCameraAnnotation>().empty());
        auto lines = capture_.lines();
        EXPECT_EQ(lines.size(), 1u);
        return lines.empty() ? std::string() : lines[0];
    };
    auto body = [&](const char* text) { return [&, text] { answer(text); }; };
    EXPECT_EQ(failWith(body(R"({"item": {"camid": "1"}})")),
              "showCameras Error: expected an array, found object");
    EXPECT_TRUE(failWith(body("<html>busy</html>"))
                    .starts_with("showCameras Error: The data couldn't be read because it isn't "
                                 "in the correct format."));
    EXPECT_EQ(failWith([&] {
                  server::Fault f;
                  f.count = -1;
                  f.dropConnection = true;
                  service_.injectFault(kFeed, f);
              }),
              "showCameras Error: The network connection was lost.");
    // A feed without "item" is an empty load: no line, nothing added.
    capture_.clear();
    answer(R"({"status": "ok"})");
    view_->loadCamera();
    settle();
    EXPECT_TRUE(capture_.lines().empty());
    EXPECT_TRUE(annotationsOf<SMCameraAnnotation>().empty());
}

TEST_F(Cameras, CamerasGetTheirTrafficSignsAndNeverStaySelected) {
    auto still = camera(0, "/cctv/still/CAM001.jpg", "x");
    auto motion = camera(1, "/cctv/motion/CAM002.png", "x");
    auto live = camera(2, "/hls/cam/index.m3u8", "x");
    for (const auto& c : {still, motion, live}) {
        c->setCoordinate(kBangkok);
    }
    view_->addAnnotations({still, motion, live});
    for (const auto& c : {still, motion, live}) {
        ASSERT_TRUE(view_->viewForAnnotation(*view_, c));
    }
    settle();
    std::multiset<std::string> paths;
    for (const auto& r : service_.requests("/sites/all/modules/traffic/images/")) {
        paths.insert(r.path);
    }
    EXPECT_EQ(std::set<std::string>(paths.begin(), paths.end()),
              (std::set<std::string>{"/sites/all/modules/traffic/images/icon_camera-l.png",
                                     "/sites/all/modules/traffic/images/icon_video-l.png"}));
}

TEST_F(Cameras, AStillOrMotionCameraIsOneWebViewFillingTheContainer) {
    for (std::int64_t format : {0, 1, 7}) {
        auto c = camera(format, "/cctv/still/CAM001.jpg", "x");
        auto container = view_->getVDOViewFromCameraData(c);
        EXPECT_EQ(container->frame(), gfx::Rect{});
        EXPECT_EQ(container->superview(), nullptr);
        ASSERT_EQ(container->subviews().size(), 1u);
        auto web = std::dynamic_pointer_cast<ui::WebView>(container->subviews()[0]);
        ASSERT_TRUE(web);
        EXPECT_FALSE(web->scrollEnabled());
        EXPECT_FALSE(web->translatesAutoresizingMaskIntoConstraints());
        EXPECT_EQ(web->baseURL(), "");
        EXPECT_EQ(web->htmlString(), "<img src=\"" + service_.origin() +
                                         "/cctv/still/CAM001.jpg\" width=\"100%\" "
                                         "alt=\"ไม่สามารถแสดงภาพจราจรได้\" />");
        std::size_t active = 0;
        for (const auto& k : container->constraints()) {
            active += k->isActive() && k->relation() == ui::LayoutRelation::Equal ? 1 : 0;
        }
        EXPECT_EQ(active, 4u);
        container->setFrame({0, 0, 320, 180});
        container->layoutIfNeeded();
        EXPECT_EQ(web->frame(), (gfx::Rect{0, 0, 320, 180}));
    }
    EXPECT_EQ(media::Player::livePipelineCount(), 0u);
}

TEST_F(Cameras, ALiveCameraPlaysAndGetsItsBannerThenARefitASecondLater) {
    auto clock = std::make_shared<dispatch::ManualClock>();
    dispatch::RunLoop::main().setClock(clock);
    {
        auto container = view_->getVDOViewFromCameraData(
            camera(2, "/hls/cam-test/index.m3u8", "sponsor-water.png"));
        auto layers = subviewsOf<media::PlayerLayer>(*container);
        ASSERT_EQ(layers.size(), 1u);
        auto layer = layers[0];
        EXPECT_EQ(layer->videoGravity(), media::VideoGravity::ResizeAspectFill);
        EXPECT_TRUE(layer->needsDisplayOnBoundsChange());
        EXPECT_EQ(layer->frame(), gfx::Rect{});
        EXPECT_NE(layer->player()->rate(), 0.f) << "plays at once";
        EXPECT_EQ(media::AudioSession::shared().category(), media::AudioSessionCategory::Playback);
        EXPECT_EQ(media::AudioSession::shared().categoryOptions(),
                  unsigned(media::kAudioSessionMixWithOthers));
        EXPECT_TRUE(subviewsOf<ui::ImageView>(*container).empty());

        settle();
        auto banners = subviewsOf<ui::ImageView>(*container);
        ASSERT_EQ(banners.size(), 1u);
        auto banner = banners[0];
        ASSERT_TRUE(banner->image());
        EXPECT_EQ(banner->contentMode(), ui::ContentMode::ScaleAspectFit);
        EXPECT_FALSE(container->translatesAutoresizingMaskIntoConstraints());
        EXPECT_FALSE(banner->translatesAutoresizingMaskIntoConstraints());
        // Not laid out yet when the banner came: the image view still has its picture's size.
        EXPECT_EQ(heights(*banner), std::vector<double>{90.0});

        container->setFrame({0, 0, 400, 300});
        container->layoutIfNeeded();
        EXPECT_EQ(banner->frame().size.width, 400);
        EXPECT_EQ(layer->frame(), gfx::Rect{}) << "the layer waits for its refit";
        clock->advance(0.9s);
        dispatch::RunLoop::main().drain();
        EXPECT_EQ(heights(*banner).size(), 1u);
        clock->advance(0.1s);
        dispatch::RunLoop::main().drain();
        EXPECT_EQ(layer->frame(), (gfx::Rect{0, 0, 400, 300}));
        // 600 x 90 at 400 wide.
        EXPECT_EQ(heights(*banner), (std::vector<double>{90.0, 60.0}));
        container->layoutIfNeeded();
        EXPECT_EQ(banner->frame().size.width, 400);
        EXPECT_EQ(banner->frame().maxY(), 300) << "pinned to the bottom";

        ASSERT_TRUE(layer->player()->waitForFirstFrame(30s));
        EXPECT_GT(layer->player()->currentFrame()->pixelWidth(), 0);
    }
    // Dropping the view stops its stream.
    EXPECT_TRUE(pumpUntil([] { return media::Player::livePipelineCount() == 0; }));
}

TEST_F(Cameras, BadBannersAndBadStreamsLeaveAnEmptyPictureAndNoPipeline) {
    auto clock = std::make_shared<dispatch::ManualClock>();
    dispatch::RunLoop::main().setClock(clock);
    service_.route("/bad/", [](const server::Request& r) {
        if (r.path == "/bad/stall.m3u8") {
            return server::Response::text(
                200,
                "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:0\n#EXTINF:1.0,\n"
                "/bad/never.ts\n");
        }
        if (r.path == "/bad/never.ts") {
            server::Response late = server::Response::text(200, "");
            late.delaySeconds = 60;
            return late;
        }
        return server::Response::text(200, "no playlist here\n");
    });
    struct Case {
        std::string stream, banner;
    };
    const Case cases[] = {
        {"/hls/", "no-such-banner.png"},          // 404 stream, 404 banner (a text body)
        {"/bad/text.m3u8", "sponsor-water.png"},  // a body that is no playlist
        {"/bad/stall.m3u8", "../camera.json"},    // segments that never come; JSON banner
    };
    for (const auto& c : cases) {
        auto shown = camera(2, c.stream, c.banner);
        if (c.stream == "/bad/stall.m3u8") {
            shown->setSponsorImageURL(std::nullopt);
        }
        auto container = view_->getVDOViewFromCameraData(shown);
        container->setFrame({0, 0, 320, 240});
        settle();
        auto layer = subviewsOf<media::PlayerLayer>(*container).at(0);
        auto banners = subviewsOf<ui::ImageView>(*container);
        ASSERT_EQ(banners.size(), 1u) << c.stream;
        container->layoutIfNeeded();
        clock->advance(1s);
        dispatch::RunLoop::main().drain();
        for (double h : heights(*banners[0])) {
            EXPECT_FALSE(std::isnan(h));
        }
        if (c.banner != "sponsor-water.png") {
            EXPECT_EQ(banners[0]->image(), nullptr) << c.banner;
            EXPECT_EQ(heights(*banners[0]), (std::vector<double>{0, 0}));
        }
        if (c.stream != "/bad/stall.m3u8") {
            EXPECT_FALSE(layer->player()->waitForFirstFrame(20s)) << c.stream;
            ASSERT_TRUE(layer->player()->error()) << c.stream;
        }
        // Drawn anyway: its background and whatever banner came, nothing else.
        gfx::ImageContext drawing({320, 240});
        container->drawHierarchy(drawing.cairo());
    }
    EXPECT_TRUE(pumpUntil([] { return media::Player::livePipelineCount() == 0; }));
}

// What the camera view shows, drawn: a still at a fixed clock, and a live stream's first
// picture under the sponsor's banner.
TEST_F(Cameras, DrawsAStillAndALiveFrame) {
    ASSERT_TRUE(ui::WebView::engineAvailable());
    service_.setClock([] { return std::chrono::system_clock::time_point(1'700'000'000s); });
    server::LiveStreamOptions options;
    options.sceneStart = std::chrono::system_clock::time_point(1'700'000'000s);
    server::installLiveRoutes(service_, options);

    auto still = view_->getVDOViewFromCameraData(camera(0, "/cctv/still/CAM004.jpg", "x"));
    still->setFrame({0, 0, 336, 205});
    auto web = subviewsOf<ui::WebView>(*still).at(0);
    ASSERT_TRUE(web->waitUntilLoaded(30s));
    gfx::ImageContext stillDrawing(still->frame().size);
    still->drawHierarchy(stillDrawing.cairo());
    EXPECT_TRUE(matchesReference(*stillDrawing.makeImage(), "camera_still", {24, 0.01}));

    auto live = view_->getVDOViewFromCameraData(
        camera(2, "/hls/cam-CAM003/index.m3u8", "sponsor-rainbow.png"));
    live->setFrame({0, 0, 320, 240});
    auto layer = subviewsOf<media::PlayerLayer>(*live).at(0);
    ASSERT_TRUE(layer->player()->waitForFirstFrame(30s));
    layer->player()->pause();
    settle();
    live->layoutIfNeeded();
    pumpFor(1.2);
    live->layoutIfNeeded();
    EXPECT_EQ(layer->frame(), (gfx::Rect{0, 0, 320, 240}));
    gfx::ImageContext liveDrawing(live->frame().size);
    live->drawHierarchy(liveDrawing.cairo());
    // Which picture of the stream comes first varies by a few tenths of a second: cars move.
    EXPECT_TRUE(matchesReference(*liveDrawing.makeImage(), "camera_live", {40, 0.08}));
}

}  // namespace
}  // namespace sorvan::test
