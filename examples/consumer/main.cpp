// An application of SorvanMapSDK that uses nothing but the installed headers and library: it
// checks the version it was built and run with, converts a UTM text both ways, asks the
// services for a search and a route, and renders a map into a PNG.
//
//   sorvan_consumer [OUTPUT.png]
//
// With SORVAN_SERVICE_ORIGIN set (for instance to the origin `sorvan serve` prints), the map
// and the answers come from that service; without it the map is a white background drawn
// offline and the services are not asked. Exits 0 when everything checked out.
#include <SorvanMapSDK/SorvanMapSDK.hpp>
#include <sorvan/platform/foundation/log.hpp>
#include <sorvan/platform/graphics/image.hpp>

#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#if !defined(SORVAN_MAP_SDK_VERSION_NUMBER) || \
    SORVAN_MAP_SDK_VERSION_NUMBER < SORVAN_MAP_SDK_VERSION_ENCODE(3, 13, 0)
#error "this program needs SorvanMapSDK 3.13 or later"
#endif

namespace {

int failures = 0;

void check(bool ok, const std::string& what) {
    std::printf("%s %s\n", ok ? "ok  " : "FAIL", what.c_str());
    if (!ok) {
        ++failures;
    }
}

// Waits for one completion that arrives on the URL session's queue.
class Completion {
  public:
    void done() {
        std::lock_guard lock(mutex_);
        done_ = true;
        cv_.notify_all();
    }
    bool wait() {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(30), [this] { return done_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false;
};

// A host's own delegate: the library calls into a class it never saw.
class Pins : public sorvan::SMSearchDelegate {
  public:
    void searchData(const std::vector<std::shared_ptr<sorvan::SMPinAnnotation>>& pins) override {
        count = pins.size();
    }
    void suggestData(const std::vector<std::string>&) override {}
    std::size_t count = 0;
};

void checkVersion() {
    check(std::string(SorvanMapSDKVersionString) == SORVAN_MAP_SDK_VERSION_STRING,
          std::string("library version ") + SorvanMapSDKVersionString + " matches the headers");
    check(SorvanMapSDKVersionNumber ==
              SORVAN_MAP_SDK_VERSION_MAJOR + SORVAN_MAP_SDK_VERSION_MINOR / 100.0,
          "version number " + std::to_string(SorvanMapSDKVersionNumber));
}

void checkGeodesy() {
    std::string utm = sorvan::geodesy::UTMFrom({13.7563, 100.5018}, true);
    check(utm == "47P, 662367, 1521281", "UTM of Bangkok: " + utm);
    auto back = sorvan::geodesy::coordinateFromUTM(utm);
    check(std::abs(back.latitude - 13.7563) < 1e-4 && std::abs(back.longitude - 100.5018) < 1e-4,
          "and back again");
    try {
        sorvan::geodesy::coordinateFromUTM("not a position");
        check(false, "a malformed UTM text is refused");
    } catch (const std::invalid_argument& e) {
        check(e.what() == sorvan::geodesy::kInvalidUTMFormat,
              "a malformed UTM text is refused with the library's own exception");
    }
}

void checkServices(const std::shared_ptr<sorvan::SorvanMapView>& view) {
    Completion searched;
    std::size_t hits = 0;
    auto options = std::make_shared<sorvan::SMSearchOptions>();
    options->setLimit(5);
    view->searchKeyword("Siam", options, [&](const auto& pins, const auto& error) {
        hits = pins && !error ? pins->size() : 0;
        searched.done();
    });
    bool answered = searched.wait();
    check(answered && hits > 0, "search answered with " + std::to_string(hits) + " pins");

    Completion routed;
    std::size_t steps = 0;
    view->routeFrom({13.7563, 100.5018}, {13.7456, 100.5341}, nullptr,
                    [&](const auto& route, const auto&) {
                        steps = route ? route->guide().size() : 0;
                        routed.done();
                    });
    answered = routed.wait();
    check(answered && steps > 0, "route answered with " + std::to_string(steps) + " steps");

    auto delegate = std::make_shared<Pins>();
    view->setSearchDelegate(delegate);
    view->searchWithKeyword("Siam", {13.7456, 100.5341});
    sorvan::dispatch::RunLoop::main().runUntil([&] { return delegate->count > 0; },
                                               sorvan::dispatch::Duration(30));
    check(delegate->count > 0,
          "the host's delegate got " + std::to_string(delegate->count) + " pins on the main queue");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> lines;
    std::mutex linesMutex;
    sorvan::log::setSink([&](sorvan::log::Level, std::string_view line) {
        std::lock_guard lock(linesMutex);
        lines.emplace_back(line);
    });

    checkVersion();
    checkGeodesy();

    const char* origin = std::getenv("SORVAN_SERVICE_ORIGIN");
    const bool online = origin && *origin;
    auto view = sorvan::SorvanMapView::create({0, 0, 512, 384});
    view->setKey("consumer");
    view->setLanguage(2);
    view->setRegion({{13.7563, 100.5018}, {0.05, 0.05}});
    view->addSMOverlay(online ? sorvan::SMLayerModeNormal : sorvan::SMLayerModeWhiteBackground);
    check(view->overlays().size() == 1 &&
              std::dynamic_pointer_cast<sorvan::SMTileOverlay>(view->overlays()[0]) != nullptr,
          "the map holds one tile overlay");

    auto frame = view->render();
    check(frame && frame->pixelWidth() > 0, "the map was drawn");
    if (frame) {
        bool varied = false, white = true;
        auto first = frame->rgbaAt(0, 0);
        for (int y = 0; y < frame->pixelHeight(); y += 7) {
            for (int x = 0; x < frame->pixelWidth(); x += 7) {
                auto p = frame->rgbaAt(x, y);
                varied = varied || p != first;
                white = white && p == std::array<std::uint8_t, 4>{255, 255, 255, 255};
            }
        }
        check(online ? varied : white,
              online ? "the map shows the service's tiles" : "the offline map is white");
        if (argc > 1) {
            check(frame->writePNG(argv[1]), std::string("written to ") + argv[1]);
        }
    }
    if (online) {
        checkServices(view);
    }

    {
        std::lock_guard lock(linesMutex);
        bool banner = false;
        for (const auto& line : lines) {
            banner = banner || line.rfind("Sorvan Map SDK v" SORVAN_MAP_SDK_VERSION_STRING, 0) == 0;
        }
        check(banner, "the library logged its banner through the host's sink");
    }
    sorvan::log::setSink(nullptr);
    std::printf("%s\n", failures == 0 ? "consumer: all checks passed" : "consumer: FAILED");
    return failures == 0 ? 0 : 1;
}
