// The embedded service's live camera streams: the rolling playlist and its segments, starting,
// idling and capping encoders, names and faults, and the painted scene.
#include "sorvan/server/live_streams.hpp"

#include <gtest/gtest.h>

#include <cairo.h>

#include <chrono>
#include <regex>
#include <thread>

#include "road_scene.hpp"
#include "support/service_harness.hpp"

namespace sorvan::server {
namespace {

using namespace std::chrono_literals;

struct Listed {
    std::uint64_t mediaSequence = 0;
    int targetDuration = 0;
    std::vector<std::string> segments;
};

Listed parse(const std::string& playlist) {
    Listed l;
    std::smatch m;
    if (std::regex_search(playlist, m, std::regex("#EXT-X-MEDIA-SEQUENCE:(\\d+)")))
        l.mediaSequence = std::stoull(m[1]);
    if (std::regex_search(playlist, m, std::regex("#EXT-X-TARGETDURATION:(\\d+)")))
        l.targetDuration = std::stoi(m[1]);
    std::regex line("#EXTINF:[0-9.]+,\\n([^\\n]+)\\n");
    for (auto it = std::sregex_iterator(playlist.begin(), playlist.end(), line);
         it != std::sregex_iterator(); ++it)
        l.segments.push_back((*it)[1]);
    return l;
}

std::string header(const Response& r, const std::string& name) {
    for (const auto& [k, v] : r.headers)
        if (k == name)
            return v;
    return "";
}

bool waitFor(const std::function<bool()>& condition, std::chrono::seconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(50ms);
    }
    return true;
}

class LiveStreamsTest : public testing::ServiceTest {};

TEST_F(LiveStreamsTest, ServesARollingPlaylistOfTransportStreamSegments) {
    auto playlist = testing::fetch(url("/hls/cam-a/index.m3u8"));
    ASSERT_EQ(playlist.status(), 200);
    EXPECT_EQ(playlist.response->headers["content-type"], "application/vnd.apple.mpegurl");
    std::string text = playlist.body();
    EXPECT_EQ(text.rfind("#EXTM3U\n#EXT-X-VERSION:3\n", 0), 0u) << text;
    Listed first = parse(text);
    EXPECT_EQ(first.targetDuration, 1);
    EXPECT_EQ(first.mediaSequence, 0u);
    ASSERT_EQ(first.segments, (std::vector<std::string>{"0.ts", "1.ts", "2.ts"}));

    auto segment = testing::fetch(url("/hls/cam-a/0.ts"));
    ASSERT_EQ(segment.status(), 200);
    EXPECT_EQ(segment.response->headers["content-type"], "video/mp2t");
    std::string ts = segment.body();
    ASSERT_FALSE(ts.empty());
    EXPECT_EQ(ts.size() % 188, 0u);
    for (std::size_t at = 0; at < ts.size(); at += 188)
        ASSERT_EQ(ts[at], 0x47) << "no sync byte at " << at;

    // The window rolls: new segments join at the end, old ones leave the list.
    Listed later;
    ASSERT_TRUE(waitFor(
        [&] {
            later = parse(testing::fetch(url("/hls/cam-a/index.m3u8")).body());
            return later.mediaSequence >= 2;
        },
        30s));
    EXPECT_EQ(later.segments.size(), 4u);
    for (std::size_t i = 0; i < later.segments.size(); ++i)
        EXPECT_EQ(later.segments[i], std::to_string(later.mediaSequence + i) + ".ts");
}

TEST_F(LiveStreamsTest, KeepsAWindowOfSegmentsAndRaisesNumbersAcrossRestarts) {
    LiveStreams live({.playlistLength = 2, .keptSegments = 3, .idleSeconds = 1});
    Response answer = live.playlist("cam");
    Listed first = parse(answer.body);
    ASSERT_EQ(first.segments, (std::vector<std::string>{"0.ts", "1.ts"})) << answer.body;
    // Three segments are kept: the one just out of the list is still there.
    EXPECT_EQ(live.segment("cam", 0).status, 200);
    EXPECT_EQ(live.segment("cam", 3).status, 404);  // not made yet
    ASSERT_TRUE(waitFor([&] { return parse(live.playlist("cam").body).mediaSequence >= 3; }, 30s));
    EXPECT_EQ(live.segment("cam", 0).status, 404);  // left the window

    // Unasked for, it stops; asked again, it goes on from the next number.
    ASSERT_TRUE(waitFor([&] { return live.runningStreams().empty(); }, 30s));
    std::uint64_t before = parse(live.playlist("cam").body).mediaSequence;
    EXPECT_GE(before, 4u);
    EXPECT_EQ(live.runningStreams(), std::vector<std::string>{"cam"});
}

TEST_F(LiveStreamsTest, CapsEncodersAndLetsAQuietStreamMakeRoom) {
    LiveStreams live({.idleSeconds = 30, .maxEncoders = 1});
    EXPECT_TRUE(live.runningStreams().empty());  // nothing runs before it is asked for
    ASSERT_EQ(live.playlist("watched").status, 200);
    // While the first stream is watched, a second one is turned away, to come back soon.
    Response busy = live.playlist("second");
    EXPECT_EQ(busy.status, 503);
    EXPECT_EQ(header(busy, "Retry-After"), "1");
    EXPECT_EQ(live.runningStreams(), std::vector<std::string>{"watched"});
    // Quiet for two segments, it gives its encoder up.
    std::this_thread::sleep_for(2500ms);
    EXPECT_EQ(live.playlist("second").status, 200);
    EXPECT_EQ(live.runningStreams(), std::vector<std::string>{"second"});
}

TEST_F(LiveStreamsTest, UnknownNamesAndFilesAreNotFoundAndFaultsApply) {
    for (const std::string& path : std::vector<std::string>{
             "/hls/a%20b/index.m3u8", "/hls/" + std::string(65, 'x') + "/index.m3u8",
             "/hls/../index.m3u8", "/hls/index.m3u8", "/hls/cam-b/other.txt", "/hls/cam-b/x.ts",
             "/hls/cam-b/123456789012345678901234.ts", "/hls/never-started/0.ts"}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(testing::fetch(url(path)).status(), 404);
    }
    service().injectFault("/hls/faulty/", {.count = 1, .status = 404});
    EXPECT_EQ(testing::fetch(url("/hls/faulty/index.m3u8")).status(), 404);
    EXPECT_EQ(testing::fetch(url("/hls/faulty/index.m3u8")).status(), 200);
}

TEST(RoadScene, SameNameAndTimePaintTheSamePictureAndCarsMove) {
    auto paint = [](const std::string& name, double seconds) {
        cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_RGB24, 320, 180);
        cairo_t* cr = cairo_create(s);
        paintRoadScene(cr, 320, 180, name, seconds, "2024-01-01 12:00:00");
        cairo_destroy(cr);
        cairo_surface_flush(s);
        auto* data = cairo_image_surface_get_data(s);
        std::string bytes(reinterpret_cast<char*>(data),
                          static_cast<std::size_t>(cairo_image_surface_get_stride(s)) * 180);
        cairo_surface_destroy(s);
        return bytes;
    };
    EXPECT_EQ(paint("cam1", 100.0), paint("cam1", 100.0));
    EXPECT_NE(paint("cam1", 100.0), paint("cam1", 100.5));
    EXPECT_NE(paint("cam1", 100.0), paint("cam2", 100.0));
}

}  // namespace
}  // namespace sorvan::server
