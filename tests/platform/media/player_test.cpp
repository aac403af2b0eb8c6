// The player over real HTTP: live streams of the embedded service, its faults, and what is
// left running after a player goes.
#include "sorvan/platform/media/player.hpp"

#include <gtest/gtest.h>

#include <dirent.h>

#include <chrono>
#include <map>
#include <optional>
#include <thread>

#include "media/diagnostics.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/graphics/image_context.hpp"
#include "sorvan/platform/map/map_view.hpp"
#include "sorvan/platform/media/player_layer.hpp"
#include "sorvan/server/live_streams.hpp"
#include "support/render_compare.hpp"
#include "support/service_harness.hpp"

namespace sorvan::media {
namespace {

using namespace std::chrono_literals;

class PlayerTest : public testing::ServiceTest {
  protected:
    static std::string streamURL(const std::string& name) {
        return origin() + "/hls/" + name + "/index.m3u8";
    }
    // Records the first three segments of a live stream and serves them as a finished stream
    // at "/recorded/NAME/index.m3u8", whose address it returns. Nothing encodes while it is
    // played, and it always starts with the stream's first picture.
    static std::string record(const std::string& name, server::LiveStreamOptions options) {
        std::map<std::string, std::string> files;
        {
            server::LiveStreams live(options);
            EXPECT_EQ(live.playlist(name).status, 200);
            std::string playlist =
                "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:1\n"
                "#EXT-X-MEDIA-SEQUENCE:0\n";
            for (int n = 0; n < 3; ++n) {
                // A loaded machine encodes slowly: a segment not made yet is not found.
                auto deadline = std::chrono::steady_clock::now() + 30s;
                auto segment = live.segment(name, static_cast<std::uint64_t>(n));
                while (segment.status == 404 && std::chrono::steady_clock::now() < deadline) {
                    std::this_thread::sleep_for(50ms);
                    segment = live.segment(name, static_cast<std::uint64_t>(n));
                }
                EXPECT_EQ(segment.status, 200);
                files[std::to_string(n) + ".ts"] = segment.body;
                playlist += "#EXTINF:1.000,\n" + std::to_string(n) + ".ts\n";
            }
            files["index.m3u8"] = playlist + "#EXT-X-ENDLIST\n";
        }
        std::string prefix = "/recorded/" + name + "/";
        service().route(prefix, [files, prefix](const server::Request& request) {
            auto it = files.find(request.path.substr(prefix.size()));
            if (it == files.end())
                return server::Response::text(404, "no such file");
            server::Response r;
            r.contentType =
                it->first.ends_with(".ts") ? "video/mp2t" : "application/vnd.apple.mpegurl";
            r.body = it->second;
            return r;
        });
        return origin() + prefix + "index.m3u8";
    }
    void TearDown() override { dispatch::RunLoop::main().reset(); }
};

std::size_t threadCount() {
    std::size_t n = 0;
    if (DIR* dir = ::opendir("/proc/self/task")) {
        while (dirent* e = ::readdir(dir))
            if (e->d_name[0] != '.')
                ++n;
        ::closedir(dir);
    }
    return n;
}

// Lets idle pooled threads end and waits (at most 10 s) until the count reaches `target`, or,
// without a target, until it has stayed the same for a while.
std::size_t settledThreadCount(std::optional<std::size_t> target = std::nullopt) {
    auto deadline = std::chrono::steady_clock::now() + 10s;
    std::size_t n = threadCount();
    int steady = 0;
    while ((target ? n > *target : steady < 10) && std::chrono::steady_clock::now() < deadline) {
        detail::releasePooledThreads();
        std::this_thread::sleep_for(30ms);
        std::size_t now = threadCount();
        steady = now == n ? steady + 1 : 0;
        n = now;
    }
    return n;
}

TEST_F(PlayerTest, DecodesPicturesOfALiveStream) {
    auto player = Player::create(streamURL("decode"));
    player->play();
    ASSERT_TRUE(player->waitForFirstFrame(30s)) << player->error()->description;
    EXPECT_EQ(player->status(), PlayerStatus::ReadyToPlay);
    EXPECT_FALSE(player->error());
    auto frame = player->currentFrame();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->pixelWidth(), 640);
    EXPECT_EQ(frame->pixelHeight(), 360);
    EXPECT_TRUE(frame->isOpaque());
    // Sky at the top is blue, grass at the bottom corner green: the channels are in order.
    auto sky = frame->rgbaAt(320, 40), grass = frame->rgbaAt(2, 350);
    EXPECT_GT(sky[2], sky[0] + 40);
    EXPECT_GT(grass[1], grass[0] + 20);
    EXPECT_GT(grass[1], grass[2] + 20);
    // It keeps playing: more pictures come.
    auto first = player->decodedFrameCount();
    EXPECT_TRUE(dispatch::RunLoop::main().runUntil(
        [&] { return player->decodedFrameCount() >= first + 5; }, 30s));
    EXPECT_EQ(player->status(), PlayerStatus::ReadyToPlay);
    // The service encoded the stream on request and names it running.
    EXPECT_FALSE(service().requests("/hls/decode/").empty());
    // The newer demuxers refuse this kind of pipeline; loading them only to be refused cost
    // seconds on a loaded machine, long enough for the first segment to leave the window.
    EXPECT_FALSE(detail::pluginLoaded("adaptivedemux2"));
}

TEST_F(PlayerTest, BadAddressesFailWithAValueAndOneLogLine) {
    struct Case {
        std::string url;
        PlayerError::Code code;
        std::string description;  // empty: not checked
    };
    service().injectFault("/hls/garbled/index.m3u8", {.count = -1, .malformedBody = true});
    std::vector<Case> cases = {
        {origin() + "/hls/bad!name/index.m3u8", PlayerError::Code::NotFound, "Not Found"},
        {origin() + "/no/such/stream.m3u8", PlayerError::Code::NotFound, "Not Found"},
        {origin() + "/terms", PlayerError::Code::UnsupportedContent, "Not a stream (text/html)"},
        {streamURL("garbled"), PlayerError::Code::UnsupportedContent, ""},
        {"http://127.0.0.1:" + std::to_string(testing::closedPort()) + "/hls/x/index.m3u8",
         PlayerError::Code::Network, "Could not connect to the server or read from it"},
        {"not an address", PlayerError::Code::UnsupportedContent,
         "Not a stream address: not an address"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        log::Capture capture;
        auto player = Player::create(c.url);
        player->play();
        EXPECT_FALSE(player->waitForFirstFrame(30s));
        ASSERT_EQ(player->status(), PlayerStatus::Failed);
        auto error = player->error();
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code, c.code) << error->description;
        if (!c.description.empty()) {
            EXPECT_EQ(error->description, c.description);
        }
        EXPECT_EQ(player->currentFrame(), nullptr);
        // A failed player ignores requests to play.
        player->setRate(1);
        EXPECT_EQ(player->status(), PlayerStatus::Failed);
        ASSERT_EQ(capture.lines().size(), 1u);
        EXPECT_EQ(capture.lines()[0], "Player error (" + c.url + "): " + error->description);
    }
    EXPECT_EQ(Player::livePipelineCount(), 0u);
}

TEST_F(PlayerTest, StalledSegmentsFailTheStallWatchAndDropPromptly) {
    // The playlist answers; every segment hangs.
    for (char d = '0'; d <= '9'; ++d)
        service().injectFault(std::string("/hls/stalled/") + d, {.count = -1, .delaySeconds = 60});
    log::Capture capture;
    auto player = Player::create(streamURL("stalled"), {.stallTimeoutSeconds = 2});
    player->play();
    EXPECT_FALSE(player->waitForFirstFrame(30s));
    ASSERT_TRUE(player->error());
    EXPECT_EQ(player->error()->code, PlayerError::Code::Stalled);
    EXPECT_EQ(player->error()->description, "No picture arrived for 2 s");
    player.reset();  // must not wait for the hanging download
    EXPECT_EQ(Player::livePipelineCount(), 0u);
    service().clearFaults();
}

// Stopping a demuxer while its HTTP source is answering must not wait on each other: players
// are dropped at many moments of slow segment downloads.
TEST_F(PlayerTest, DroppingAPlayerMidDownloadReturns) {
    for (char d = '0'; d <= '9'; ++d)
        service().injectFault(std::string("/hls/slow/") + d, {.count = -1, .delaySeconds = 0.4});
    for (int round = 0; round < 8; ++round) {
        auto player = Player::create(streamURL("slow"));
        player->play();
        std::this_thread::sleep_for(std::chrono::milliseconds(50 * round));
        player.reset();
    }
    EXPECT_EQ(Player::livePipelineCount(), 0u);
    service().clearFaults();
}

// Threads are counted for the whole process, so nothing else may start or end threads
// meanwhile: the service's live encoders (which start and end streaming tasks with every
// segment) are stopped, and the player reads a recorded stream.
TEST_F(PlayerTest, DroppingTheLastReferenceStopsThePipelineAndItsThreads) {
    // A fresh registry: the suite's encoders stop.
    server::installLiveRoutes(service());
    const std::string url = record("threads", {});

    // A first player starts what lives once per process (the media control thread, GLib's
    // worker, the system clock's thread); the count after it is the baseline.
    {
        auto warm = Player::create(url);
        warm->play();
        ASSERT_TRUE(warm->waitForFirstFrame(30s));
    }
    std::size_t baseline = settledThreadCount();
    for (int round = 0; round < 3; ++round) {
        auto player = Player::create(url);
        auto layer = PlayerLayer::create(player);
        auto container = std::make_shared<ui::View>(gfx::Rect{0, 0, 160, 90});
        container->addSubview(layer);
        player.reset();  // the layer holds it now
        ASSERT_TRUE(layer->player()->waitForFirstFrame(30s));
        layer->player()->play();
        EXPECT_EQ(Player::livePipelineCount(), 1u);
        EXPECT_GT(threadCount(), baseline);
        container.reset();
        layer.reset();
        EXPECT_EQ(Player::livePipelineCount(), 0u);
    }
    EXPECT_LE(settledThreadCount(baseline), baseline);
}

// The picture is the stream's first (a player not yet playing stays on it), from a scene at a
// fixed moment: the clock in it reads 2024-05-01 17:30:00 in the suite's time zone
// (Asia/Kolkata, as ctest runs it).
TEST_F(PlayerTest, LayersPlaceThePictureByGravityInTheTreeAndInRender) {
    server::LiveStreamOptions options;
    options.sceneStart = std::chrono::system_clock::from_time_t(1714564800);
    auto player = Player::create(record("gravity", options));
    ASSERT_TRUE(player->waitForFirstFrame(30s));

    auto container = std::make_shared<ui::View>(gfx::Rect{0, 0, 480, 120});
    container->setBackgroundColor({0.2, 0.2, 0.2, 1});
    std::vector<std::shared_ptr<PlayerLayer>> layers;
    for (auto gravity :
         {VideoGravity::ResizeAspect, VideoGravity::ResizeAspectFill, VideoGravity::Resize}) {
        auto layer = PlayerLayer::create(player);
        layer->setVideoGravity(gravity);
        layer->setFrame({160.0 * static_cast<double>(layers.size()), 0, 160, 120});
        container->addSubview(layer);
        layers.push_back(layer);
    }
    // A 16:9 picture in a 4:3 layer: bars above and below, sides cut off, or stretched.
    EXPECT_EQ(layers[0]->videoRect(), (gfx::Rect{0, 15, 160, 90}));
    gfx::Rect fill = layers[1]->videoRect();
    EXPECT_NEAR(fill.origin.x, -26.667, 1e-3);
    EXPECT_EQ(fill.origin.y, 0);
    EXPECT_NEAR(fill.size.width, 213.333, 1e-3);
    EXPECT_EQ(fill.size.height, 120);
    EXPECT_EQ(layers[2]->videoRect(), (gfx::Rect{0, 0, 160, 120}));

    gfx::ImageContext context(container->frame().size, 2);
    container->drawHierarchy(context.cairo());
    // Decoded video differs by a few levels along hard edges from one process to the next.
    EXPECT_TRUE(test::matchesReference(*context.makeImage(), "player_layer_gravity", {24, 0.003}));

    // A layer among a map view's subviews is part of its frames.
    auto map = std::make_shared<map::MapView>(gfx::Rect{0, 0, 200, 150});
    map->setScreenScale(1);
    auto layer = PlayerLayer::create(player);
    layer->setVideoGravity(VideoGravity::Resize);
    layer->setFrame({20, 30, 160, 90});
    map->addSubview(layer);
    auto frame = map->render(10s);
    ASSERT_NE(frame, nullptr);
    auto picture = player->currentFrame();
    // Flat parts of the picture (the caption bar, the sky under it) land where the layer is.
    for (auto [x, y] :
         {std::pair{40, 32}, std::pair{40, 39}, std::pair{100, 39}, std::pair{170, 39}}) {
        auto shown = frame->rgbaAt(x, y);
        auto source = picture->rgbaAt((x - 20) * 4, (y - 30) * 4);
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(shown[c], source[c], 24) << x << "," << y;
    }
    // The picture never reaches outside the layer.
    EXPECT_EQ(frame->rgbaAt(10, 10), map->render(1s)->rgbaAt(10, 10));
}

}  // namespace
}  // namespace sorvan::media
