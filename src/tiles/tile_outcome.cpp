#include "tiles/tile_outcome.hpp"

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::tiles {
namespace {

struct Registry {
    std::mutex mutex;
    std::uint64_t next = 1;
    // Copied out before the calls, so an observer may unsubscribe another without deadlock.
    std::vector<std::pair<std::uint64_t, std::shared_ptr<TileOutcomeObserver>>> observers;
};

Registry& registry() {
    static Registry* r = new Registry();  // tile threads may report after static destruction
    return *r;
}

std::atomic<int> listeners{0};

std::string answerText(const LayerFailure& f) {
    std::string text = f.contentType.empty() ? std::string("no content type") : f.contentType;
    return text + strformat(", %zu bytes", f.bytes);
}

}  // namespace

std::string LayerFailure::describe() const {
    switch (cause) {
        case Cause::Transport:
            return detail;
        case Cause::Status:
            return strformat("HTTP status %d (%s)", status, answerText(*this).c_str());
        case Cause::NotAnImage:
            return bytes == 0 ? strformat("an empty answer (status %d)", status)
                              : strformat("not an image (status %d, %s)", status,
                                          answerText(*this).c_str());
        case Cause::WrongSize:
            return "a " + detail + " image instead of 256 x 256";
        case Cause::NoAddress:
            return "no address: " + detail;
    }
    return detail;
}

TileOutcomeSubscription::TileOutcomeSubscription(TileOutcomeObserver observer) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    id_ = r.next++;
    r.observers.emplace_back(id_, std::make_shared<TileOutcomeObserver>(std::move(observer)));
    listeners.fetch_add(1, std::memory_order_release);
}

TileOutcomeSubscription::~TileOutcomeSubscription() {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    std::erase_if(r.observers, [this](const auto& entry) { return entry.first == id_; });
    listeners.fetch_sub(1, std::memory_order_release);
}

bool tileOutcomesObserved() {
    return listeners.load(std::memory_order_acquire) > 0;
}

void publishTileOutcome(const TileOutcome& outcome) {
    std::vector<std::shared_ptr<TileOutcomeObserver>> observers;
    {
        Registry& r = registry();
        std::lock_guard lock(r.mutex);
        for (const auto& entry : r.observers) {
            observers.push_back(entry.second);
        }
    }
    for (const auto& observer : observers) {
        (*observer)(outcome);
    }
}

}  // namespace sorvan::tiles
