#include "mapview/live_requests.hpp"

#include <atomic>

namespace sorvan::mapview {
namespace {

std::atomic<std::size_t> gInFlight{0};

}  // namespace

struct LiveRequestToken {
    LiveRequestToken() { gInFlight.fetch_add(1); }
    ~LiveRequestToken() { gInFlight.fetch_sub(1); }
    LiveRequestToken(const LiveRequestToken&) = delete;
    LiveRequestToken& operator=(const LiveRequestToken&) = delete;
};

std::shared_ptr<LiveRequestToken> beginLiveRequest() {
    return std::make_shared<LiveRequestToken>();
}

std::size_t liveRequestsInFlight() {
    return gInFlight.load();
}

}  // namespace sorvan::mapview
