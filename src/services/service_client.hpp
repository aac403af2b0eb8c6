// The kit's side of the search, suggest and routing services, apart from the view: request
// building, the guarded walks over the answers and the fixed log lines. SorvanMapView's
// service methods forward here; tests and the sorvan tool may use these clients directly.
//
// A client is a value holding the settings of one call, captured on the caller's thread (the
// view's properties are main-queue state, so they are never read again from the session
// queue). Every call returns at once after starting one GET on net::URLSession::shared().
// Completion-style results run on the session's delegate queue; delegate-style sinks run on
// dispatch::RunLoop::main(). Thread-safe: a client may be copied and used from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "SorvanMapSDK/SorvanMapView.hpp"
#include "sorvan/platform/foundation/url.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/platform/map/geometry.hpp"

namespace sorvan {
class SMPinAnnotation;
class SMSearchOptions;
class SMSuggestOptions;
class SMRouteOptions;
}  // namespace sorvan

namespace sorvan::services {

/// What every service request carries.
struct ServiceSettings {
    /// Scheme, host and port come from here; its path (if any) is replaced by the service's.
    std::string baseAddress;
    std::string locale = "th";
    std::string key;
    /// Filled into the one extra header, Referer: sorvan://IDENTIFIER.
    std::string bundleIdentifier;

    /// The settings of a view: its box domain when set, else defaultBase; its language's
    /// locale; the process's key and the main bundle's identifier.
    static ServiceSettings forView(const std::optional<net::URL>& boxDomain, std::int64_t language,
                                   const std::string& defaultBase);
};

/// The GET request for base + path + query, with the query encoded as URL components encode
/// it (so "&" in a keyword splits the query). nullopt when the base is no URL.
std::optional<net::URLRequest> makeRequest(const ServiceSettings& settings, std::string_view path,
                                           std::string_view query);

/// The error a result block gets when an answer is no JSON.
net::Error parseError(const std::string& description);

using Pins = std::vector<std::shared_ptr<SMPinAnnotation>>;
using Words = std::vector<std::string>;

class SearchClient {
  public:
    /// Asked once per call, on the calling thread, when a search needs the map's centre.
    using CenterProvider = std::function<map::Coordinate()>;
    /// Delegate-style sinks: run on the main queue, only on success.
    using PinsSink = std::function<void(const Pins& pins)>;
    using WordsSink = std::function<void(const Words& words)>;

    SearchClient(ServiceSettings settings, CenterProvider center);

    /// keyword, position, locale and key (no span, offset or limit).
    void searchWithKeyword(const std::string& keyword, map::Coordinate coordinate,
                           PinsSink onMain) const;
    void suggestWithKeyword(const std::string& keyword, WordsSink onMain) const;
    /// options may be null: then no position, span, offset or limit is sent.
    void searchKeyword(const std::string& keyword, const SMSearchOptions* options,
                       SMSearchResult result) const;
    void suggestKeyword(const std::string& keyword, const SMSuggestOptions* options,
                        SMSuggestResult result) const;

    /// The query texts the calls above send (unencoded).
    std::string searchQuery(const std::string& keyword, map::Coordinate coordinate) const;
    std::string optionsSearchQuery(const std::string& keyword, const SMSearchOptions* options,
                                   map::Coordinate position) const;
    std::string suggestQuery(const std::string& keyword, const SMSuggestOptions* options) const;

  private:
    ServiceSettings settings_;
    CenterProvider center_;
};

class RouteClient {
  public:
    explicit RouteClient(ServiceSettings settings);

    /// The guide request, then the path request for the route's id; result runs once, on the
    /// session queue: (route, nullopt), (nullptr, error) or, for a malformed answer,
    /// (nullptr, nullopt).
    void routeFrom(map::Coordinate from, map::Coordinate to, const SMRouteOptions* options,
                   SMRouteResultBlock result) const;
    /// One polyline per step of the route; result runs once, on the session queue.
    void pathFrom(std::int64_t routeId, SMPathResult result) const;

    std::string guideQuery(map::Coordinate from, map::Coordinate to,
                           const SMRouteOptions* options) const;
    /// The service's mode letter and type bits for options.
    static const char* modeLetter(std::int64_t mode);
    static long typeBits(bool allowedTollway, bool allowedFerry);

  private:
    ServiceSettings settings_;
};

}  // namespace sorvan::services
