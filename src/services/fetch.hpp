// One GET of a service call whose answer is JSON. Internal to the service clients.
#pragma once

#include <functional>
#include <optional>

#include "foundation/json_access.hpp"
#include "sorvan/platform/foundation/url_session.hpp"

namespace sorvan::services {

/// Runs on the session queue with the decoded answer, or with the transport's error, or with
/// a CannotParseResponse error carrying the decoder's description. A missing request (a base
/// that is no URL) reports BadURL, also on the session queue.
using JSONHandler =
    std::function<void(std::optional<json::Value> root, std::optional<net::Error> error)>;

void fetchJSON(std::optional<net::URLRequest> request, JSONHandler handler);

}  // namespace sorvan::services
