// A count of the live-annotation requests in flight (cluster answers, the event feed, icons),
// from the moment one starts until what it brought has reached the map on the main queue.
// Headless front ends wait for it to reach zero before they draw the final picture. A request
// holds a token; the count drops when the last copy of the token is released. Thread-safe.
#pragma once

#include <cstddef>
#include <memory>

namespace sorvan::mapview {

struct LiveRequestToken;

/// A token for one request; copies share it.
std::shared_ptr<LiveRequestToken> beginLiveRequest();
/// How many tokens are alive.
std::size_t liveRequestsInFlight();

}  // namespace sorvan::mapview
