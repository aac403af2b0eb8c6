// A map view over Bangkok against the embedded service, for the tests of tags, events and
// annotation views: log capture, a way to draw until every cluster answer, feed and icon has
// reached the map, and typed views of the map's annotations.
#pragma once

#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include "SorvanMapSDK/SMEventAnnotation.hpp"
#include "SorvanMapSDK/SMTagAnnotation.hpp"
#include "SorvanMapSDK/SMTileOverlayRenderer.hpp"
#include "map_view_fixture.hpp"
#include "mapview/live_requests.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan::test {

inline constexpr map::Coordinate kBangkok{13.7563, 100.5018};

class LiveTest : public MapViewTest {
  protected:
    void SetUp() override {
        MapViewTest::SetUp();
        view_->setKey("view-key");
        capture_.clear();
    }
    void TearDown() override {
        // Answers still on their way would land in the next test's registry and map.
        pumpUntil([] { return mapview::liveRequestsInFlight() == 0; });
        service_.setClock(nullptr);
        MapViewTest::TearDown();
    }

    static bool pumpUntil(const std::function<bool()>& done, double seconds = 10) {
        return dispatch::RunLoop::main().runUntil(done, dispatch::Duration(seconds));
    }
    /// Runs the main queue for a while whatever happens (for things that must not happen).
    static void pumpFor(double seconds) {
        dispatch::RunLoop::main().runUntil([] { return false; }, dispatch::Duration(seconds));
    }

    /// Shows the view at exactly zoom, centred on c, and lets the region change run.
    void showAt(map::Coordinate c, double zoom) {
        MapViewTest::showAt(c, zoom);
        dispatch::RunLoop::main().drain();
    }

    /// Draws until nothing live is on its way: tiles, their cluster answers, feeds, icons.
    std::shared_ptr<gfx::Image> renderSettled(double seconds = 20) {
        auto image = view_->render(dispatch::Duration(seconds));
        for (int round = 0; round < 20 && mapview::liveRequestsInFlight() > 0; ++round) {
            pumpUntil([] { return mapview::liveRequestsInFlight() == 0; }, seconds);
            image = view_->render(dispatch::Duration(seconds));
        }
        return image;
    }

    template <class T>
    std::vector<std::shared_ptr<T>> annotationsOf() const {
        std::vector<std::shared_ptr<T>> out;
        for (const auto& a : view_->annotations()) {
            if (auto t = std::dynamic_pointer_cast<T>(a)) {
                out.push_back(t);
            }
        }
        return out;
    }

    std::shared_ptr<SMTileOverlayRenderer> rendererOf(const std::shared_ptr<SMTileOverlay>& o) {
        return std::dynamic_pointer_cast<SMTileOverlayRenderer>(
            view_->map::MapView::rendererForOverlay(o));
    }

    log::Capture capture_;
};

}  // namespace sorvan::test
