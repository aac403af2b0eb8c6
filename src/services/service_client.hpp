// The kit's side of the search, suggest and routing services, apart from the view: request
// building, the guarded walks over the answers and the fixed log lines. SorvanMapView's
// service methods forward here; tests and the sorvan tool may use these clients directly.
//
// A client is a value holding the settings of one call, captured on the caller's thread (the
// view's properties are main-queue state, so they are never read again from the session
// queue). Every call returns at once after starting one GET on net::URLSession::shared(), with
// the call's SMServiceTask (dropping it cancels nothing). Completion-style results run on the
// session's delegate queue; delegate-style sinks run on dispatch::RunLoop::main(). A cancelled
// call reads nothing, logs nothing and calls nothing. Thread-safe: a client may be copied and
// used from any thread.
#pragma once

#include <chrono>
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
class SMServiceTask;
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

/// How long a service call may receive nothing before it fails with TimedOut: the session's
/// default (60 s) unless set. Tests shorten it to meet a stalled server; 0 restores the
/// default. Thread-safe; reaches calls started afterwards.
void setIdleTimeoutForTesting(std::chrono::duration<double> timeout);

/// The error a result block gets when an answer is no JSON.
net::Error parseError(const std::string& description);

/// What a service answered, seen from the side: the kit reads every answer alike whatever its
/// status, and a host that explains a failure (the sorvan tool) wants to name the status.
struct AnswerNote {
    std::string path;  // the request's path, e.g. "/mapsearch/json/search"
    int status = 0;
    std::string contentType;
};
using AnswerObserver = std::function<void(const AnswerNote& note)>;
/// One process-wide observer (nullptr removes it), called on the session queue for every
/// answer of a search, suggest or routing request, before the answer is read. Thread-safe.
void setAnswerObserver(AnswerObserver observer);

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
    std::shared_ptr<SMServiceTask> searchWithKeyword(const std::string& keyword,
                                                     map::Coordinate coordinate,
                                                     PinsSink onMain) const;
    std::shared_ptr<SMServiceTask> suggestWithKeyword(const std::string& keyword,
                                                      WordsSink onMain) const;
    /// options may be null: then no position, span, offset or limit is sent.
    std::shared_ptr<SMServiceTask> searchKeyword(const std::string& keyword,
                                                 const SMSearchOptions* options,
                                                 SMSearchResult result) const;
    std::shared_ptr<SMServiceTask> suggestKeyword(const std::string& keyword,
                                                  const SMSuggestOptions* options,
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
    /// (nullptr, nullopt). Cancelling the task also ends the path request.
    std::shared_ptr<SMServiceTask> routeFrom(map::Coordinate from, map::Coordinate to,
                                             const SMRouteOptions* options,
                                             SMRouteResultBlock result) const;
    /// One polyline per step of the route; result runs once, on the session queue.
    std::shared_ptr<SMServiceTask> pathFrom(std::int64_t routeId, SMPathResult result) const;

    std::string guideQuery(map::Coordinate from, map::Coordinate to,
                           const SMRouteOptions* options) const;
    /// The service's mode letter and type bits for options.
    static const char* modeLetter(std::int64_t mode);
    static long typeBits(bool allowedTollway, bool allowedFerry);

  private:
    /// The path request as a step of task's call.
    void requestPath(const std::shared_ptr<SMServiceTask>& task, std::int64_t routeId,
                     SMPathResult result) const;

    ServiceSettings settings_;
};

}  // namespace sorvan::services
