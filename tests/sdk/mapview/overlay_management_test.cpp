#include <mutex>
#include <thread>

#include "map_view_fixture.hpp"
#include "sorvan/platform/map/overlay.hpp"
#include "sorvan/platform/map/overlay_renderer.hpp"
#include "sorvan/platform/ui/controls.hpp"

namespace sorvan::test {
namespace {

using Modes = std::vector<std::vector<std::int64_t>>;

std::shared_ptr<map::Polyline> somePolyline() {
    map::Coordinate line[] = {{13.7, 100.5}, {13.8, 100.6}};
    return map::Polyline::withCoordinates(line, 2);
}

TEST_F(MapViewTest, EveryOverlayLandsAboveTheTopmostTileOverlay) {
    auto p = somePolyline();
    auto q = somePolyline();
    view_->addOverlay(p);
    view_->addSMOverlay(SMLayerModeNormal);
    view_->addSMOverlay(SMLayerModeIcons);
    view_->addOverlay(q);
    view_->addSMOverlay(SMLayerModeBase);
    EXPECT_EQ(modes(), (Modes{{}, {5}, {9}, {0}, {}}));
    EXPECT_EQ(view_->overlays().front(), p);
    EXPECT_EQ(view_->overlays().back(), q);
}

TEST_F(MapViewTest, TilesCarryTheLayerAlphaPolylinesTheRouteStyleOtherShapesNoRenderer) {
    auto line = somePolyline();
    map::Coordinate ring[] = {{13.7, 100.5}, {13.8, 100.6}, {13.7, 100.6}};
    auto polygon = map::Polygon::withCoordinates(ring, 3);
    view_->addSMLayer(layer(SMLayerModeNormal, 0.3));
    view_->addOverlay(line);
    view_->addOverlay(polygon);

    auto tile = view_->rendererForOverlay(view_->overlays()[0]);
    ASSERT_NE(std::dynamic_pointer_cast<map::TileOverlayRenderer>(tile), nullptr);
    EXPECT_DOUBLE_EQ(tile->alpha(), 0.3);
    auto renderer =
        std::dynamic_pointer_cast<map::PolylineRenderer>(view_->rendererForOverlay(line));
    ASSERT_NE(renderer, nullptr);
    gfx::Color stroke = renderer->strokeColor();  // blue, a little see-through
    EXPECT_TRUE(stroke.b > 0.8 && stroke.r < 0.2 && stroke.a > 0.5 && stroke.a < 1.0);
    EXPECT_NEAR(renderer->lineWidth(), 5.0, 1.0);
    EXPECT_DOUBLE_EQ(renderer->alpha(), 1.0);  // the tile layer's alpha is its own
    EXPECT_EQ(view_->rendererForOverlay(polygon), nullptr);
}

TEST_F(MapViewTest, AddSMLayerTakesTemplateRangeAndCache) {
    globals::setCache(1);
    auto custom = layer(SMLayerModeCustom, 0.8, 4, 12);
    custom->setSourceLayer("http://t.example.org/{z}/{x}/{y}.png");
    custom->setTileFormat(SMTileFormatTMS);
    custom->setReferer("http://app.example.org/");
    view_->addSMLayer(custom);
    auto server = layer(SMLayerModeServerLayer);
    server->setSourceLayer("special");
    view_->addSMLayer(server);
    view_->addSMLayer(layer(SMLayerModeTraffic, 1.0, 2, 19));

    auto t = tiles();
    ASSERT_EQ(t.size(), 3u);
    EXPECT_EQ(t[0]->urlLayer(), std::vector<std::string>{custom->sourceLayer()});
    EXPECT_EQ(t[0]->tileFormat(), std::vector<std::int64_t>{SMTileFormatTMS});
    EXPECT_EQ(t[0]->referer(), std::vector<std::string>{"http://app.example.org/"});
    EXPECT_EQ(t[0]->alpha(), 0.8);
    EXPECT_EQ(t[0]->minimumZ(), 4);
    EXPECT_EQ(t[0]->maximumZ(), 12);
    EXPECT_EQ(t[0]->cache(), 1);
    EXPECT_EQ(t[1]->urlLayer(), std::vector<std::string>{"special"});
    EXPECT_FALSE(t[1]->tileFormat().has_value());
    EXPECT_FALSE(t[1]->referer().has_value());
    // The descriptor's range replaces traffic's own 7..16; traffic never goes to disk.
    EXPECT_EQ(t[2]->minimumZ(), 2);
    EXPECT_EQ(t[2]->maximumZ(), 19);
    EXPECT_EQ(t[2]->cache(), 2);
    ASSERT_NE(globals::trafficTimer(), nullptr);
    EXPECT_TRUE(globals::trafficTimer()->isValid());
    EXPECT_EQ(globals::trafficTimer()->interval().count(), 180.0);
}

TEST_F(MapViewTest, AddSMLayersStacksTheLayersMatchingTheLastOne) {
    // Alpha 1.0, 0.5, 1.0: the 0.5 layer stands alone below the stack of the other two.
    view_->addSMLayers({layer(5), layer(9, 0.5), layer(0)});
    EXPECT_EQ(modes(), (Modes{{9}, {5, 0}}));
    EXPECT_EQ(tiles()[0]->alpha(), 0.5);
    EXPECT_EQ(tiles()[1]->alpha(), 1.0);
    view_->removeOverlays(view_->overlays());

    // The last element's zoom range differs: only it forms the stack.
    view_->addSMLayers({layer(5), layer(9), layer(0, 1.0, 5, 15)});
    EXPECT_EQ(modes(), (Modes{{5}, {9}, {0}}));
    EXPECT_EQ(tiles()[2]->minimumZ(), 5);
    EXPECT_EQ(tiles()[2]->maximumZ(), 15);
    view_->removeOverlays(view_->overlays());

    // Traffic last with alpha 0.7 sets the reference: no stack at all, traffic on top.
    view_->addSMLayers({layer(5), layer(9), layer(SMLayerModeTraffic, 0.7)});
    EXPECT_EQ(modes(), (Modes{{5}, {9}, {16}}));
    EXPECT_EQ(tiles()[2]->alpha(), 0.7);
    EXPECT_TRUE(globals::trafficTimer()->isValid());
    view_->removeOverlays(view_->overlays());

    view_->addSMLayers({});
    EXPECT_TRUE(view_->overlays().empty());
}

TEST_F(MapViewTest, AddSMOverlaysChecksCountsAndLeavesTheDiskCacheOff) {
    view_->setKey("k");
    globals::setCache(1);
    view_->addSMOverlays({5, 21}, {"", "http://t.example.org/{z}/{x}/{y}.png"}, {0}, {"", ""});
    EXPECT_TRUE(view_->overlays().empty());
    view_->addSMOverlays({5, 9}, {"", ""}, {0, 0}, {});
    ASSERT_EQ(modes(), (Modes{{5, 9}}));
    EXPECT_EQ(tiles()[0]->cache(), 2);
    EXPECT_FALSE(globals::legalLabel()->isHidden());
}

TEST_F(MapViewTest, RemovingOneLayerOfAStackKeepsTheOthersAsTheyWere) {
    view_->addSMLayers({layer(5, 0.5, 3, 15), layer(9, 0.5, 3, 15)});
    view_->removeSMOverlay(9);
    ASSERT_EQ(modes(), (Modes{{5}}));
    EXPECT_EQ(tiles()[0]->alpha(), 0.5);
    EXPECT_EQ(tiles()[0]->minimumZ(), 3);
    EXPECT_EQ(tiles()[0]->maximumZ(), 15);

    auto a = layer(21);
    a->setSourceLayer("http://a.example.org/{z}/{x}/{y}.png");
    auto b = layer(21);
    b->setSourceLayer("http://b.example.org/{z}/{x}/{y}.png");
    view_->addSMLayers({a, b});
    view_->removeSourceLayer("http://nowhere.example.org/");
    EXPECT_EQ(modes(), (Modes{{5}, {21, 21}}));
    view_->removeSourceLayer(a->sourceLayer());
    EXPECT_EQ(modes(), (Modes{{5}, {21}}));
    EXPECT_EQ(tiles()[1]->urlLayer(), std::vector<std::string>{b->sourceLayer()});
}

TEST_F(MapViewTest, RemoveOverlaysKeepsTheTagLayerAndSkipsTheNextOne) {
    view_->addSMOverlay(5);
    view_->addSMOverlay(19);
    view_->addSMOverlay(9);
    view_->removeOverlays(view_->overlays());
    EXPECT_EQ(modes(), (Modes{{19}}));

    // After a lone 19 is dropped from the list its successor is not examined, so a second 19
    // right behind it is removed.
    view_->addSMOverlay(19);
    view_->removeOverlays(view_->overlays());
    EXPECT_EQ(modes(), (Modes{{19}}));
}

TEST_F(MapViewTest, TrafficRemovedBeforeTheFirstRefreshComesBack) {
    auto clock = std::make_shared<dispatch::ManualClock>();
    dispatch::RunLoop::main().setClock(clock);
    auto tick = [&] {
        clock->advance(dispatch::Duration(180.0));
        dispatch::RunLoop::main().drain();
    };
    view_->addSMOverlay(5);
    view_->addSMLayer(layer(SMLayerModeTraffic));
    auto first = tiles()[1];
    auto timer = globals::trafficTimer();

    view_->removeSMOverlay(16);  // the flag was false: it only turns true
    EXPECT_EQ(modes(), (Modes{{5}}));
    EXPECT_TRUE(globals::isTrafficShowed());
    EXPECT_TRUE(timer->isValid());

    tick();  // the refresh brings a fresh copy back
    ASSERT_EQ(modes(), (Modes{{5}, {16}}));
    EXPECT_NE(tiles()[1], first);
    EXPECT_TRUE(globals::isTrafficShowed());
    tick();
    EXPECT_EQ(modes(), (Modes{{5}, {16}}));

    view_->removeSMOverlay(16);  // now for good
    EXPECT_FALSE(globals::isTrafficShowed());
    EXPECT_FALSE(timer->isValid());
    tick();
    EXPECT_EQ(modes(), (Modes{{5}}));

    // A bulk removal of a traffic overlay stops the refresh too.
    view_->addSMLayer(layer(SMLayerModeTraffic));
    globals::setIsTrafficShowed(true);
    view_->removeOverlays(view_->overlays());
    EXPECT_FALSE(globals::isTrafficShowed());
    EXPECT_FALSE(globals::trafficTimer()->isValid());
}

TEST_F(MapViewTest, LegalLabelFollowsMapPictureOverlays) {
    view_->setKey("k");
    auto label = globals::legalLabel();
    view_->addSMOverlay(18);
    view_->addSMOverlay(21);
    view_->addCustomOverlayWithURL("http://t.example.org/{z}/{x}/{y}.png", 0, "");
    EXPECT_FALSE(view_->hasSorvanOverlay());
    EXPECT_TRUE(label->isHidden());

    view_->addSMOverlay(5);
    EXPECT_TRUE(view_->hasSorvanOverlay());
    EXPECT_FALSE(label->isHidden());
    view_->removeSMOverlay(5);
    EXPECT_TRUE(label->isHidden());

    // A stack holding a white background is no map picture either.
    view_->addSMOverlays({18, 5}, {"", ""}, {0, 0}, {"", ""});
    EXPECT_FALSE(view_->hasSorvanOverlay());

    // The customer's own box domain shows no attribution through addSMLayer.
    view_->setBoxDomain(net::URL::fromString(ServiceConfig::current().alternativeMapService));
    label = globals::legalLabel();
    view_->addSMLayer(layer(5));
    EXPECT_TRUE(label->isHidden());
    view_->setBoxDomain(net::URL::fromString("https://box.example.org"));
    label = globals::legalLabel();
    view_->addSMLayer(layer(9));
    EXPECT_FALSE(label->isHidden());
}

class DataCollector : public SMTileDataDelegate {
  public:
    void dataFromTile(const net::Data& data) override {
        std::lock_guard lock(mutex);
        received.emplace_back(data.begin(), data.end());
    }
    std::mutex mutex;
    std::vector<std::string> received;
};

TEST_F(MapViewTest, DataTemplateAnswersReachTheHostThroughTheView) {
    auto host = std::make_shared<DataCollector>();
    view_->setDataDelegate(host);
    view_->addCustomOverlayWithURL(service_.origin() + "/data/{z}/{u}/{v}?w={w}", 3, "");
    auto overlay = tiles()[0];
    ASSERT_EQ(overlay->dataDelegate().get(), static_cast<SMTileDataDelegate*>(view_.get()));
    // Tile loads block, so they run off the main queue, as the engine runs them.
    std::thread([&] {
        overlay->loadTileAtPath({3, 5, 7}, [](std::vector<std::uint8_t>, auto) {});
    }).join();
    std::lock_guard lock(host->mutex);
    ASSERT_EQ(host->received.size(), 1u);
    EXPECT_NE(host->received[0].find("/data/7/3/5"), std::string::npos) << host->received[0];
}

}  // namespace
}  // namespace sorvan::test
