#include "tile_tally.hpp"

#include <mutex>

#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::cli {

struct TileTally::State {
    mutable std::mutex mutex;
    Counts counts;
};

TileTally::TileTally()
    : state_(std::make_shared<State>()),
      subscription_([state = state_](const tiles::TileOutcome& outcome) {
          std::lock_guard lock(state->mutex);
          Counts& c = state->counts;
          ++c.loaded;
          c.withPicture += outcome.picture ? 1 : 0;
          if (outcome.failures.empty()) {
              return;
          }
          ++c.failed;
          if (c.firstFailure.empty()) {
              const tiles::LayerFailure& f = outcome.failures.front();
              c.firstFailure = strformat("tile %lld/%lld/%lld, layer %zu (mode %lld): %s",
                                         static_cast<long long>(outcome.path.z),
                                         static_cast<long long>(outcome.path.x),
                                         static_cast<long long>(outcome.path.y), f.layer,
                                         static_cast<long long>(f.mode), f.describe().c_str());
          }
      }) {}

TileTally::Counts TileTally::counts() const {
    std::lock_guard lock(state_->mutex);
    return state_->counts;
}

}  // namespace sorvan::cli
