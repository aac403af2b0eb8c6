// Every service the kit calls, against every fault a server can show: an error status, a
// dropped connection, a stall, a trickled answer, a truncated body, a body that is no JSON or
// no picture, an answer of the wrong shape and a huge body. Each meets its fixed outcome: the
// result block runs exactly once, the operation's own log line is written (or none, where the
// kit is silent), and once the server is healthy again the next call gets the whole answer.
//
// The embedded service makes the status, drop, delay, truncation and malformed-body faults;
// the hostile server of this directory sends the trickled, stalled and huge answers. Service
// calls wait half a second for a stalled server here rather than the default minute.
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMRouteGuide.hpp"
#include "SorvanMapSDK/SMRouteResult.hpp"
#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "faults/hostile_server.hpp"
#include "mapview/globals.hpp"
#include "services/service_client.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "support/foundation_support.hpp"
#include "support/services_fixtures.hpp"

namespace sorvan {
namespace {

using testing::HostileServer;
using Lines = std::vector<std::string>;
using Pins = std::optional<std::vector<std::shared_ptr<SMPinAnnotation>>>;
using Words = std::optional<std::vector<std::string>>;
using Polylines = std::optional<std::vector<std::shared_ptr<map::Polyline>>>;

constexpr const char* kSearch = "/mapsearch/json/search";
constexpr const char* kSuggest = "/mapsearch/json/suggest";
constexpr const char* kGuide = "/tvroute/json/route/guide";
constexpr const char* kPath = "/tvroute/json/route/path";
constexpr const char* kTiles = "/map/msn-server/img.php";
constexpr map::Coordinate kCentre{13.7563, 100.5018};
// How long a call may take before the test gives up on it: long, for sanitizer builds on a busy
// machine (a 16 MiB answer is read and decoded under the address checker).
constexpr std::chrono::seconds kPatience{120};
constexpr map::Coordinate kTo{13.69, 100.7501};
const std::string kSearchLine = "searchWithKeyword Error (wat,13.756300,100.501800): ";
const std::string kSuggestLine = "suggestWithKeyword Error (wat): ";
const std::string kRouteLine = "route Error (13.756300,100.501800,13.690000,100.750100): ";

// The faults that end a call with an error object: each as the embedded service injects it
// into every request of a path until cleared.
struct ErrorFault {
    const char* name;
    server::Fault fault;
    net::Error::Code code;
};
const std::vector<ErrorFault> kErrorFaults = {
    {"status 503", {.count = -1, .status = 503}, net::Error::Code::CannotParseResponse},
    {"dropped connection", {.count = -1, .dropConnection = true}, net::Error::Code::ConnectionLost},
    {"truncated body", {.count = -1, .truncateBody = true}, net::Error::Code::ConnectionLost},
    {"malformed body", {.count = -1, .malformedBody = true}, net::Error::Code::CannotParseResponse},
};

// A body far beyond any answer the services give: the real answer, then 16 MiB of white space.
std::string huge(std::string answer) {
    auto end = answer.find_last_of('}');
    answer.insert(end, std::string(std::size_t{16} << 20, ' '));
    return answer;
}

constexpr std::chrono::milliseconds kStallTimeout{500};

// The faults of the hostile server, each made from the healthy answer of the path under test.
// A row with a code ends the call with that error, whose text names the limit that ended it;
// a row without one still gets the whole answer.
struct HostileFault {
    const char* name;
    HostileServer::Answer (*make)(const std::string& healthy);
    std::optional<net::Error::Code> code;
    const char* text;
};
const std::vector<HostileFault> kHostileFaults = {
    {"stall", [](const std::string&) { return HostileServer::Answer{.stall = true}; },
     net::Error::Code::TimedOut, "The request timed out. (idle for 0.5 s)"},
    {"trickle",
     [](const std::string& healthy) {
         return HostileServer::Answer{
             .body = healthy, .piece = 64, .pause = std::chrono::milliseconds(2)};
     },
     std::nullopt, ""},
    {"huge body",
     [](const std::string& healthy) { return HostileServer::Answer{.body = huge(healthy)}; },
     net::Error::Code::DataLengthExceedsMaximum,
     "The response is too large. (body larger than 16777216 bytes)"},
};

// The hostile server for row, answering only requests of path that way; every other request
// gets elsewhere at once.
HostileServer::Answer onlyOn(const HostileFault& row, const std::string& healthy, const char* path,
                             std::string elsewhere = {}) {
    HostileServer::Answer answer = row.make(healthy);
    answer.only = path;
    answer.elsewhere = std::move(elsewhere);
    return answer;
}

class FaultMatrix : public testing::ServicesTest {
  protected:
    void SetUp() override {
        ServicesTest::SetUp();
        point(origin());
        net::URLCache::shared().removeAllCachedResponses();
        view = SorvanMapView::create({0, 0, 400, 300});
        view->setKey("fault-key");
        view->setCenterCoordinate(kCentre);
        capture.clear();
        services::setIdleTimeoutForTesting(kStallTimeout);
    }
    void TearDown() override {
        services::setIdleTimeoutForTesting(std::chrono::seconds(0));
        view.reset();
        globals::resetForTesting();
        ServiceConfig::setCurrent(ServiceConfig::fromEnvironment());
        ServicesTest::TearDown();
    }
    static void point(const std::string& at) {
        ServiceConfig::setCurrent(ServiceConfig{}.pointedAt(at));
    }
    // The raw answer the healthy service gives, for the hostile server to send again.
    static std::string realAnswer(const std::string& pathAndQuery) {
        return testing::fetch(url(pathAndQuery)).body();
    }

    // One call of the view's; the block holds the outcome, so a call that answers after the
    // test gave up on it writes into live memory.
    template <class Value, class Start>
    std::shared_ptr<testing::Outcome<Value>> call(Start start) {
        auto out = std::make_shared<testing::Outcome<Value>>(capture);
        start([out](const auto& v, const auto& e) { out->block()(v, e); });
        out->probe.wait(kPatience);
        settle();
        return out;
    }
    auto search() {
        return call<Pins>([&](auto block) { view->searchKeyword("wat", nullptr, block); });
    }
    auto suggest() {
        return call<Words>([&](auto block) { view->suggestKeyword("wat", nullptr, block); });
    }
    auto route() {
        return call<std::shared_ptr<SMRouteResult>>(
            [&](auto block) { view->routeFrom(kCentre, kTo, nullptr, block); });
    }

    // One call; then the checks every error row shares: one call of the block with an error of
    // the expected kind (and text, when given) and nothing else, then the operation's line
    // with the error's text.
    template <class Call>
    void expectErrorOutcome(const char* name, net::Error::Code code, const std::string& text,
                            const std::string& lineStart, Call call) {
        SCOPED_TRACE(name);
        capture.clear();
        auto out = call();
        EXPECT_EQ(out->probe.calls(), 1);
        EXPECT_FALSE(out->value);
        ASSERT_TRUE(out->error);
        EXPECT_EQ(out->error->code, code) << out->error->localizedDescription;
        if (!text.empty()) {
            EXPECT_EQ(out->error->localizedDescription, text);
        }
        EXPECT_EQ(out->probe.linesBefore(), 0u) << "the block runs before the line is written";
        EXPECT_EQ(capture.lines(), Lines{lineStart + out->error->localizedDescription});
    }
    template <class Call>
    void expectErrorOutcome(const ErrorFault& row, const std::string& lineStart, Call call) {
        expectErrorOutcome(row.name, row.code, "", lineStart, call);
    }

    // Every hostile row against search or suggest: the error row's outcome, or the whole
    // answer (as `same` judges it) and no line.
    template <class Call, class Same>
    void hostileRows(const std::string& healthy, const std::string& lineStart, Call call,
                     Same same) {
        for (const auto& row : kHostileFaults) {
            HostileServer hostile(row.make(healthy));
            point(hostile.origin());
            if (row.code) {
                expectErrorOutcome(row.name, *row.code, row.text, lineStart, call);
            } else {
                SCOPED_TRACE(row.name);
                capture.clear();
                auto out = call();
                EXPECT_EQ(out->probe.calls(), 1);
                ASSERT_TRUE(out->value);
                EXPECT_TRUE(same(*out->value));
                EXPECT_TRUE(capture.lines().empty());
            }
            EXPECT_EQ(hostile.requests(), 1) << row.name;
        }
        point(origin());
    }

    std::shared_ptr<SorvanMapView> view;
};

TEST_F(FaultMatrix, SearchAnswersEveryFaultOnceWithItsLineAndRecovers) {
    auto healthy = search();
    ASSERT_TRUE(healthy->value);
    const std::size_t hits = healthy->value->size();
    ASSERT_GT(hits, 1u);
    EXPECT_TRUE(capture.lines().empty());

    for (const auto& row : kErrorFaults) {
        service().injectFault(kSearch, row.fault);
        expectErrorOutcome(row, kSearchLine, [&] { return search(); });
        service().clearFaults();
        capture.clear();
        auto again = search();
        ASSERT_TRUE(again->value) << row.name;
        EXPECT_EQ(again->value->size(), hits) << row.name;
        EXPECT_TRUE(capture.lines().empty()) << row.name;
    }

    // Wrong types: the hits before the fault are a result, the fault only a line.
    const std::string raw = realAnswer("/mapsearch/json/search?keyword=wat");
    answer(kSearch, R"({"data":[{"name":"A","lat":13.7,"lon":100.5,"icon":"a.png"},7]})");
    capture.clear();
    auto partial = search();
    ASSERT_TRUE(partial->value);
    ASSERT_EQ(partial->value->size(), 1u);
    EXPECT_EQ(*partial->value->front()->type(), "a");
    EXPECT_FALSE(partial->error);
    EXPECT_EQ(capture.lines(), Lines{kSearchLine + "expected an object, found number"});
    server::installBuiltinRoutes(service());

    // A slow answer (a wait within the idle limit) is still the whole answer, and no failure.
    service().injectFault(kSearch, {.delaySeconds = 0.2});
    capture.clear();
    auto slow = search();
    ASSERT_TRUE(slow->value);
    EXPECT_EQ(slow->value->size(), hits);
    EXPECT_TRUE(capture.lines().empty());

    hostileRows(
        raw, kSearchLine, [&] { return search(); },
        [&](const auto& pins) { return pins.size() == hits; });
}

TEST_F(FaultMatrix, SuggestAnswersEveryFaultOnceWithItsLineAndRecovers) {
    auto healthy = suggest();
    ASSERT_TRUE(healthy->value);
    const auto words = *healthy->value;
    ASSERT_FALSE(words.empty());

    for (const auto& row : kErrorFaults) {
        service().injectFault(kSuggest, row.fault);
        expectErrorOutcome(row, kSuggestLine, [&] { return suggest(); });
        service().clearFaults();
        capture.clear();
        auto again = suggest();
        ASSERT_TRUE(again->value) << row.name;
        EXPECT_EQ(*again->value, words) << row.name;
    }

    const std::string raw = realAnswer("/mapsearch/json/suggest?keyword=wat");
    answer(kSuggest, R"({"data":[{"w":"wat arun"},{"word":"no w"},{"w":"never read"}]})");
    capture.clear();
    auto partial = suggest();
    ASSERT_TRUE(partial->value);
    EXPECT_EQ(*partial->value, std::vector<std::string>{"wat arun"});
    EXPECT_EQ(capture.lines(), Lines{kSuggestLine + "a suggestion without \"w\""});
    server::installBuiltinRoutes(service());

    hostileRows(
        raw, kSuggestLine, [&] { return suggest(); },
        [&](const auto& got) { return got == words; });
}

TEST_F(FaultMatrix, RouteGuideFaultsEndTheCallBeforeAnyPathRequest) {
    service().clearRequests();
    auto healthy = route();
    ASSERT_TRUE(healthy->value);
    const std::size_t steps = healthy->value->guide().size();
    ASSERT_GT(steps, 1u);
    ASSERT_GT(healthy->value->guide()[0]->path()->pointCount(), 0u);
    const std::string guideAnswer = realAnswer(service().requests(kGuide).at(0).target);
    const std::string pathAnswer = realAnswer(service().requests(kPath).at(0).target);

    for (const auto& row : kErrorFaults) {
        service().clearRequests();
        service().injectFault(kGuide, row.fault);
        expectErrorOutcome(row, kRouteLine, [&] { return route(); });
        EXPECT_TRUE(service().requests(kPath).empty()) << row.name;
        service().clearFaults();
        auto again = route();
        ASSERT_TRUE(again->value) << row.name;
        EXPECT_EQ(again->value->guide().size(), steps);
    }

    // A route of the wrong kind: neither a result nor an error, and the line with the reason.
    service().clearRequests();
    answer(kGuide, R"({"data":"no route"})");
    capture.clear();
    auto malformed = route();
    EXPECT_EQ(malformed->probe.calls(), 1);
    EXPECT_FALSE(malformed->value);
    EXPECT_FALSE(malformed->error);
    EXPECT_EQ(capture.lines(), Lines{kRouteLine + "expected an array, found string"});
    EXPECT_TRUE(service().requests(kPath).empty());
    server::installBuiltinRoutes(service());

    // The hostile server's faults on the guide; its path answers stay healthy. The server
    // counts every request, so one request means no path request followed a failed guide.
    for (const auto& row : kHostileFaults) {
        HostileServer hostile(onlyOn(row, guideAnswer, kGuide, pathAnswer));
        point(hostile.origin());
        if (row.code) {
            expectErrorOutcome(row.name, *row.code, row.text, kRouteLine, [&] { return route(); });
            EXPECT_EQ(hostile.requests(), 1) << row.name;
        } else {
            SCOPED_TRACE(row.name);
            capture.clear();
            auto out = route();
            EXPECT_EQ(out->probe.calls(), 1);
            ASSERT_TRUE(out->value);
            EXPECT_EQ(out->value->guide().size(), steps);
            EXPECT_GT(out->value->guide()[0]->path()->pointCount(), 0u);
            EXPECT_TRUE(capture.lines().empty());
            EXPECT_EQ(hostile.requests(), 2);
        }
    }
}

TEST_F(FaultMatrix, RoutePathFaultsStillGiveTheRouteWithoutGeometry) {
    auto healthy = route();
    ASSERT_TRUE(healthy->value);
    const std::size_t steps = healthy->value->guide().size();
    auto pathRequests = service().requests(kPath);
    ASSERT_EQ(pathRequests.size(), 1u);
    const std::string id = pathRequests[0].queryItem("id").value_or("?");
    const std::string pathLine = "path Error (" + id + "): ";
    auto withoutGeometry = [&](const auto& out) {
        EXPECT_EQ(out->probe.calls(), 1);
        ASSERT_TRUE(out->value);
        EXPECT_FALSE(out->error);
        ASSERT_EQ(out->value->guide().size(), steps);
        for (const auto& step : out->value->guide()) {
            EXPECT_EQ(step->path()->pointCount(), 0u);
        }
    };

    for (const auto& row : kErrorFaults) {
        SCOPED_TRACE(row.name);
        service().injectFault(kPath, row.fault);
        capture.clear();
        auto out = route();
        withoutGeometry(out);
        auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].rfind(pathLine, 0), 0u) << lines[0];
        service().clearFaults();
        auto again = route();
        ASSERT_TRUE(again->value);
        EXPECT_GT(again->value->guide()[0]->path()->pointCount(), 0u);
    }

    // Point lists of the wrong kind: the line with the reason; too few lines for the steps,
    // so no step gets one.
    answer(kPath, R"({"data":[[{"lat":13.7,"lon":100.5}],"not a list"]})");
    capture.clear();
    auto out = route();
    withoutGeometry(out);
    EXPECT_EQ(capture.lines(),
              Lines{pathLine + "a point list of kind string where an array was expected"});
    server::installBuiltinRoutes(service());

    // The hostile server's faults on the path request, after a healthy guide: a route without
    // geometry and the path's line naming the limit, or (trickled) the whole route.
    const std::string guideAnswer = realAnswer(service().requests(kGuide).at(0).target);
    const std::string pathAnswer = realAnswer(pathRequests[0].target);
    for (const auto& row : kHostileFaults) {
        SCOPED_TRACE(row.name);
        HostileServer hostile(onlyOn(row, pathAnswer, kPath, guideAnswer));
        point(hostile.origin());
        capture.clear();
        auto slow = route();
        EXPECT_EQ(hostile.requests(), 2);
        if (row.code) {
            withoutGeometry(slow);
            EXPECT_EQ(capture.lines(), Lines{pathLine + row.text});
        } else {
            ASSERT_TRUE(slow->value);
            EXPECT_EQ(slow->value->guide().size(), steps);
            EXPECT_GT(slow->value->guide()[0]->path()->pointCount(), 0u);
            EXPECT_TRUE(capture.lines().empty());
        }
    }
}

// Tiles: the loader is silent about statuses (three attempts) and undecodable answers, and
// writes "TILE ERROR: " with the transport's text once for a transport error. Either way the
// layer is left out of the picture. Each row loads a tile of its own, so that no answer the
// URL cache kept from an earlier row stands in for the server.
class TileFaultMatrix : public FaultMatrix {
  protected:
    void SetUp() override {
        FaultMatrix::SetUp();
        overlay = SMTileOverlay::create({SMLayerModeNormal}, "fault-key", std::nullopt, 0);
    }
    // The picture of tile (x, 3, 3); nullptr when the tile came with no picture at all.
    std::shared_ptr<gfx::Image> load(std::int64_t x) {
        std::shared_ptr<gfx::Image> image;
        int calls = 0;
        overlay->loadTileAtPath({x, 3, 3, 1.0},
                                [&](std::vector<std::uint8_t> data, std::optional<std::string>) {
                                    ++calls;
                                    image = gfx::Image::fromData(data);
                                });
        EXPECT_EQ(calls, 1);
        return image;
    }
    static bool blank(const std::shared_ptr<gfx::Image>& image) {
        return image && std::all_of(image->pixels().begin(), image->pixels().end(),
                                    [](std::uint32_t p) { return p == 0; });
    }
    // A tile request of the overlay's own with a short timeout, to the given origin.
    net::URLRequest request(const std::string& at) {
        auto address = *overlay->addressOfLayer(0, {1, 3, 3, 1.0});
        address.replace(0, origin().size(), at);
        net::URLRequest r(*net::URL::fromString(address));
        r.setTimeoutInterval(std::chrono::milliseconds(500));
        return r;
    }
    std::shared_ptr<SMTileOverlay> overlay;
};

TEST_F(TileFaultMatrix, EveryFaultLeavesTheLayerOutWithTheLoadersLineOrNone) {
    ASSERT_FALSE(blank(load(0)));
    std::int64_t x = 1;

    service().clearRequests();
    service().injectFault(kTiles, {.count = -1, .status = 503});
    EXPECT_TRUE(blank(load(x++)));
    EXPECT_EQ(service().requests(kTiles).size(), 3u);
    EXPECT_TRUE(capture.lines().empty());

    for (auto fault : {server::Fault{.count = -1, .dropConnection = true},
                       server::Fault{.count = -1, .truncateBody = true}}) {
        service().clearRequests();
        service().injectFault(kTiles, fault);
        capture.clear();
        EXPECT_TRUE(blank(load(x++)));
        // The loader never asks again after a transport error. The transport itself may, once:
        // a kept-alive connection that closes before any answer is retried on a fresh one,
        // as HTTP allows for a GET.
        EXPECT_LE(service().requests(kTiles).size(), fault.dropConnection ? 2u : 1u);
        EXPECT_EQ(capture.lines(), Lines{"TILE ERROR: The network connection was lost."});
    }

    // A 200 answer that is no picture: left out, silently, asked once.
    service().clearRequests();
    service().injectFault(kTiles, {.count = -1, .malformedBody = true});
    capture.clear();
    EXPECT_TRUE(blank(load(x++)));
    EXPECT_EQ(service().requests(kTiles).size(), 1u);
    EXPECT_TRUE(capture.lines().empty());
    service().clearFaults();
    service().route(kTiles, [](const server::Request&) {
        return server::Response::html("<html><body>maintenance</body></html>");
    });
    EXPECT_TRUE(blank(load(x++)));
    EXPECT_TRUE(capture.lines().empty());
    server::installBuiltinRoutes(service());

    // Healthy again: a tile not asked before comes whole.
    EXPECT_FALSE(blank(load(x++)));
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(TileFaultMatrix, StalledTrickledAndHugeAnswers) {
    const std::string png =
        realAnswer(overlay->addressOfLayer(0, {1, 3, 3, 1.0})->substr(origin().size()));
    ASSERT_TRUE(gfx::Image::fromData(std::vector<std::uint8_t>(png.begin(), png.end())));
    {
        HostileServer stall({.stall = true});
        auto r = request(stall.origin());
        EXPECT_FALSE(overlay->loadImageOn(r, 0));
        EXPECT_EQ(stall.requests(), 1);
        EXPECT_EQ(capture.lines(), Lines{"TILE ERROR: The request timed out. (idle for 0.5 s)"});
    }
    {
        HostileServer trickle({.contentType = "image/png",
                               .body = png,
                               .piece = 256,
                               .pause = std::chrono::milliseconds(1)});
        auto r = request(trickle.origin());
        r.setTimeoutInterval(std::chrono::seconds(30));
        capture.clear();
        auto image = overlay->loadImageOn(r, 0);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->pixelWidth(), 256);
        EXPECT_TRUE(capture.lines().empty());
    }
    {
        // One byte past the tile answer's limit, through the overlay's own request.
        HostileServer big(
            {.contentType = "image/png", .body = std::string((std::size_t{16} << 20) + 1, 'x')});
        point(big.origin());
        capture.clear();
        EXPECT_TRUE(blank(load(7)));
        EXPECT_EQ(
            capture.lines(),
            Lines{"TILE ERROR: The response is too large. (body larger than 16777216 bytes)"});
        EXPECT_EQ(big.requests(), 1);
    }
}

}  // namespace
}  // namespace sorvan
