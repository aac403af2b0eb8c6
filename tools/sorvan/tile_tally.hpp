// Counts what the tile loads of a command produced, for its verdict: how many tiles came out,
// how many with a picture, and how many lack the picture of a layer that should have drawn,
// with the first such cause in words. Commands that draw maps share it (render today).
//
// Thread-safe: tile threads report while the command's thread reads. The counts live as long
// as the longest of the tally and a report still running, so a tile thread finishing after
// the command has moved on touches nothing freed.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "tiles/tile_outcome.hpp"

namespace sorvan::cli {

class TileTally {
  public:
    struct Counts {
        std::size_t loaded = 0;       // tile loads that finished
        std::size_t withPicture = 0;  // of them, those that gave the engine a picture
        std::size_t failed = 0;       // of them, those where a layer's picture is missing
        std::string firstFailure;     // "tile 14/12776/7580, layer 0 (mode 5): HTTP status 404 ..."
    };

    TileTally();
    Counts counts() const;

  private:
    struct State;
    std::shared_ptr<State> state_;
    tiles::TileOutcomeSubscription subscription_;
};

}  // namespace sorvan::cli
