// A map view against the embedded service, with caches, preferences and process-wide settings
// of its own for each test.
#pragma once

#include <cmath>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "SorvanMapSDK/SMLayer.hpp"
#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/globals.hpp"
#include "sorvan/platform/foundation/defaults.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/server/embedded_service.hpp"
#include "support/foundation_support.hpp"

namespace sorvan::test {

/// The subviews of view that are of type T, in order.
template <typename T>
std::vector<std::shared_ptr<T>> subviewsOf(const ui::View& view) {
    std::vector<std::shared_ptr<T>> out;
    for (const auto& v : view.subviews()) {
        if (auto t = std::dynamic_pointer_cast<T>(v)) {
            out.push_back(t);
        }
    }
    return out;
}

class MapViewTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ServiceConfig::setCurrent(ServiceConfig{}.pointedAt(service_.origin()));
        globals::resetForTesting();
        dispatch::RunLoop::main().reset();
        Defaults::standard().removeObjectForKey("tileList");
        Defaults::standard().removeObjectForKey("cacheVersion");
        view_ = SorvanMapView::create({0, 0, 512, 512});
    }

    void TearDown() override {
        view_.reset();
        dispatch::RunLoop::main().reset();
        globals::resetForTesting();
        ServiceConfig::setCurrent(ServiceConfig::fromEnvironment());
    }

    /// The overlays on the map, bottom first, as tile overlays (nullptr for other kinds).
    std::vector<std::shared_ptr<SMTileOverlay>> tiles() const {
        std::vector<std::shared_ptr<SMTileOverlay>> out;
        for (const auto& o : view_->overlays()) {
            out.push_back(std::dynamic_pointer_cast<SMTileOverlay>(o));
        }
        return out;
    }

    /// The mode lists of the overlays on the map, bottom first ({} for other kinds).
    std::vector<std::vector<std::int64_t>> modes() const {
        std::vector<std::vector<std::int64_t>> out;
        for (const auto& t : tiles()) {
            out.push_back(t ? t->mode() : std::vector<std::int64_t>{});
        }
        return out;
    }

    /// Shows the view at exactly zoom, centred on c.
    void showAt(map::Coordinate c, double zoom) {
        map::MapPoint p = map::mapPointForCoordinate(c);
        double w = view_->bounds().size.width * std::exp2(20.0 - zoom);
        double h = view_->bounds().size.height * std::exp2(20.0 - zoom);
        view_->setVisibleMapRect({{p.x - w / 2, p.y - h / 2}, {w, h}});
    }

    static std::shared_ptr<SMLayer> layer(std::int64_t mode, double alpha = 1.0,
                                          std::int64_t minZoom = 1, std::int64_t maxZoom = 20) {
        auto l = SMLayer::create(mode);
        l->setAlpha(alpha);
        l->setMinZoom(minZoom);
        l->setMaxZoom(maxZoom);
        return l;
    }

    TempDir home_;
    ScopedEnv homeEnv_{"SORVAN_HOME", home_.path()};
    // With a request log, for tests that check what the view asked for.
    server::EmbeddedService service_{server::ServiceOptions{.requestLog = 10000}};
    std::shared_ptr<SorvanMapView> view_;
};

}  // namespace sorvan::test
