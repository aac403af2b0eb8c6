// The embedded service's live camera streams: "/hls/{name}/index.m3u8", a rolling HLS playlist
// of short MPEG-TS segments ("/hls/{name}/{n}.ts"), encoded in-process from a painted road
// scene with moving cars and a clock (H.264, one picture per tenth of a second by default).
//
// A stream starts on its first request, encodes in real time while it is asked for and stops
// after being idle; its segment numbers keep rising across restarts. Encoders are capped
// (streams are cheap to ask for and a machine has few cores): a new stream takes the place of
// the one asked for least recently once that has gone quiet for two segments, and is
// otherwise answered 503 with "Retry-After: 1".
//
// Names are 1 to 64 characters of letters, digits, '-', '_' and '.'; others are not found.
// Thread-safe: the service's workers call it concurrently.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {

struct LiveStreamOptions {
    int width = 640;
    int height = 360;
    int framesPerSecond = 10;
    /// Whole seconds, at least 1 (a keyframe starts each segment).
    int segmentSeconds = 1;
    /// Segments listed in the playlist.
    int playlistLength = 4;
    /// Segments kept for readers that fetched an older playlist (at least playlistLength).
    /// Generous: a stream starts with a burst of segments, and a reader slow to start (a busy
    /// machine) must still find the first one it was given.
    int keptSegments = 16;
    /// A stream nobody asked for this long stops.
    double idleSeconds = 20;
    /// Streams encoding at once.
    int maxEncoders = 4;
    /// The moment the first picture of a stream shows (its cars and its clock, in the local
    /// time zone); unset, a few seconds before the stream starts, so that its clock is live.
    /// A fixed one gives the same pictures on every run, for tests.
    std::optional<std::chrono::system_clock::time_point> sceneStart = std::nullopt;
};

class LiveStreams {
  public:
    explicit LiveStreams(LiveStreamOptions options = {});
    /// Stops every encoder and joins its thread.
    ~LiveStreams();
    LiveStreams(const LiveStreams&) = delete;
    LiveStreams& operator=(const LiveStreams&) = delete;

    /// The playlist of a stream, starting it when needed (the first answer waits until the
    /// first segments exist: well under a second).
    Response playlist(const std::string& name);
    /// One segment by its sequence number; 404 once it left the window or before it exists.
    Response segment(const std::string& name, std::uint64_t sequence);

    /// Names of the streams encoding now.
    std::vector<std::string> runningStreams() const;
    const LiveStreamOptions& options() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// Installs "/hls/" with its own LiveStreams (replacing any earlier one) and returns it.
std::shared_ptr<LiveStreams> installLiveRoutes(EmbeddedService& service,
                                               LiveStreamOptions options = {});

}  // namespace sorvan::server
