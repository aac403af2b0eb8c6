// A map view against the embedded service, with caches, preferences and process-wide settings
// of its own for each test.
#pragma once

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
    server::EmbeddedService service_;
    std::shared_ptr<SorvanMapView> view_;
};

}  // namespace sorvan::test
