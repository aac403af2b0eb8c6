// What became of each tile load, for hosts that must tell a whole map from one with gaps (the
// sorvan tool's verdict on a render). A tile load never reports failure to the map engine: a
// layer that fails is left out of the picture, a few causes write a log line, most write none.
// This report stands beside that behaviour and changes nothing of it: when someone listens,
// every tile load of every SMTileOverlay tells the listeners what it produced and why each
// image layer that should have drawn did not.
//
// Thread-safe. Observers are called on the tile thread that loaded the tile, just before the
// result is handed to the engine (so a render that waited for its tiles has seen every
// outcome); they must be quick and must not block on the main queue.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::tiles {

/// Why one image layer of a tile has no picture.
struct LayerFailure {
    enum class Cause {
        Transport,   // no answer: the transport error's description ("TILE ERROR" was logged)
        Status,      // an HTTP status other than 200, after every attempt
        NotAnImage,  // status 200, but the body decodes as no image (empty, HTML, damaged)
        WrongSize,   // status 200 and an image, but not 256 x 256 pixels: drawn stretched
        NoAddress,   // the layer forms no address (a template that is no URL, no traffic server)
    };
    std::size_t layer = 0;  // index in the overlay's modes, bottom first
    std::int64_t mode = 0;
    Cause cause = Cause::Transport;
    int status = 0;           // the last HTTP status, when there was an answer
    std::string contentType;  // of the last answer ("" when none or not sent)
    std::size_t bytes = 0;    // of the last answer's body
    std::string detail;       // the transport error, or the picture's size for WrongSize
    /// One readable phrase: "HTTP status 404 (text/html, 162 bytes)", "not an image (status
    /// 200, text/html, 38 bytes)", "a 1 x 1 image instead of 256 x 256", ...
    std::string describe() const;
};

/// One call of loadTileAtPath.
struct TileOutcome {
    map::TilePath path;
    bool picture = false;  // the engine got a picture (not empty data)
    std::vector<LayerFailure> failures;
};

using TileOutcomeObserver = std::function<void(const TileOutcome& outcome)>;

/// Listens while it lives. Move-only.
class TileOutcomeSubscription {
  public:
    explicit TileOutcomeSubscription(TileOutcomeObserver observer);
    ~TileOutcomeSubscription();
    TileOutcomeSubscription(const TileOutcomeSubscription&) = delete;
    TileOutcomeSubscription& operator=(const TileOutcomeSubscription&) = delete;

  private:
    std::uint64_t id_;
};

/// Used by the tile loader. True when anyone listens (so a load without listeners gathers
/// nothing).
bool tileOutcomesObserved();
/// Hands an outcome to every listener.
void publishTileOutcome(const TileOutcome& outcome);

}  // namespace sorvan::tiles
