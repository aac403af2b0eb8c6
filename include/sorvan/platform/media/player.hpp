// A player of one stream address (a live HLS playlist, a file, any address the media framework
// reads). It opens the stream as soon as it is made, decodes pictures in the background and
// keeps the latest one for the player layers that show it.
//
// Ownership: shared. Player layers hold their player; the stream plays as long as someone
// holds it, and the last owner letting go stops the pipeline, frees it and joins its threads
// before the destructor returns. Nothing needs to stop a player first.
//
// Failures are values: status() turns Failed and error() says why (not found, not a stream,
// undecodable, stalled...), once, with one log line "Player error (URL): DESCRIPTION". A failed
// player keeps nothing running.
//
// Thread-safe: every method may be called from any thread. Player layers are told of new
// pictures on the main queue.
//
//   auto player = sorvan::media::Player::create(url);
//   player->play();
//   if (player->waitForFirstFrame(std::chrono::seconds(10)))
//       player->currentFrame()->writePNG("frame.png");
//   else if (auto e = player->error())
//       std::cerr << e->description << "\n";
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/image.hpp"

namespace sorvan::media {

/// Why a player failed.
struct PlayerError {
    enum class Code {
        NotFound,            // the address answered "not found" (404), or names no file
        Network,             // the connection failed, was refused or broke off
        UnsupportedContent,  // what came back is no stream the player can read
        Decode,              // the stream's pictures could not be decoded
        Stalled,             // no picture arrived within the stall timeout
        MissingPart,         // the media framework lacks a part this stream needs
        Other,
    };
    Code code = Code::Other;
    /// Readable, for log lines and messages.
    std::string description;
};

enum class PlayerStatus { Unknown = 0, ReadyToPlay = 1, Failed = 2 };

struct PlayerOptions {
    /// While the player should be showing pictures (after create(), whether playing or not
    /// yet), this long without a new one fails it with Code::Stalled. Zero or less: never.
    double stallTimeoutSeconds = 20;
};

class SORVAN_EXPORT Player {
  public:
    /// Opens url at once (prerolled, showing its first picture but not advancing); play()
    /// starts it. An address the framework cannot even parse gives a player that is already
    /// Failed. Never nullptr.
    static std::shared_ptr<Player> create(const std::string& url, PlayerOptions options = {});
    /// Stops the pipeline and joins its threads. Do not drop the last reference from inside
    /// a callback of the media framework (nothing in this API runs one).
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    const std::string& url() const;

    /// Same as setRate(1).
    void play();
    /// Same as setRate(0).
    void pause();
    /// 0 when paused; otherwise the rate asked for.
    float rate() const;
    /// 0 pauses; any other value plays. A rate other than 1 is asked of the stream by a seek;
    /// a live stream that cannot change its rate keeps playing at 1 (and rate() still answers
    /// the value asked for). Ignored once Failed.
    void setRate(float rate);

    /// Unknown until the first picture is decoded, then ReadyToPlay; Failed on any error.
    PlayerStatus status() const;
    /// Why the player failed; nullopt while it has not.
    std::optional<PlayerError> error() const;

    /// The latest decoded picture: opaque, the video's own pixel size, scale 1. nullptr before
    /// the first.
    std::shared_ptr<gfx::Image> currentFrame() const;
    /// How many pictures were decoded so far.
    std::uint64_t decodedFrameCount() const;

    /// Waits until a picture was decoded (true), the player failed or the timeout passed
    /// (false). On the thread driving the main queue it keeps running the queue meanwhile.
    bool waitForFirstFrame(std::chrono::duration<double> timeout);

    /// Pipelines alive in the process, across all players (tests, benchmarks, leak checks).
    static std::size_t livePipelineCount();

  private:
    Player();
    // The layers told of new pictures (held weakly); PlayerLayer adds and removes itself.
    void addLayer(std::weak_ptr<class PlayerLayer> layer);
    void removeLayer(const PlayerLayer* layer);
    struct Impl;
    std::shared_ptr<Impl> impl_;
    friend class PlayerLayer;
};

}  // namespace sorvan::media
