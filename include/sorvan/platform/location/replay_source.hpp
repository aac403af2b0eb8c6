// A source that replays a recorded track: an NMEA 0183 log (RMC, GGA, HDT and HDG sentences,
// checksums checked) or a GPX document, told apart by their first character. Reports keep the
// recorded pace, scaled by a speed factor, or come without pauses.
//
// Bad input never stops a replay: a sentence that is corrupt, truncated or fails its checksum
// is logged ("Location replay: line N of FILE skipped: REASON", the first ten of a pass, then
// a count) and skipped; the last good position stands. A file that cannot be read, a GPX
// document that is not XML or has no track, or a log without any position ends the replay with
// a failure (ErrorCode::SourceUnreadable). After the last report subscribers hear finished().
//
// Thread-safe. Reports come from a thread of the replay's own, started by the first
// subscriber; the replay waits for subscribers that fall behind rather than drop reports.
#pragma once

#include <memory>
#include <string>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/location/source.hpp"

namespace sorvan::location {

class SORVAN_EXPORT ReplaySource : public Source {
  public:
    struct Options {
        std::string path;
        /// Times the recorded pace; 0 plays without pauses.
        double speed = 1;
        /// Starts over at the end (only tracks that gave a position).
        bool loops = false;
    };
    static std::shared_ptr<ReplaySource> create(Options options);
    ~ReplaySource() override;

    /// "replay of PATH".
    std::string description() const override;
    bool paced() const override { return true; }

  protected:
    void startFeed() override;
    void stopFeed() override;

  private:
    explicit ReplaySource(Options options);
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sorvan::location
