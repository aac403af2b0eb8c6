#include <filesystem>
#include <fstream>

#include "map_view_fixture.hpp"
#include "mapview/class_start_up.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/foundation/paths.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/platform/map/overlay.hpp"
#include "sorvan/platform/ui/controls.hpp"
#include "sorvan/platform/ui/layout_constraint.hpp"
#include "tiles/tile_cache.hpp"

namespace sorvan::test {
namespace {

namespace fs = std::filesystem;

TEST_F(MapViewTest, SetKeyTwiceLeavesTwoCrosshairsAndTwoLabels) {
    EXPECT_EQ(view_->crosshair(), nullptr);
    view_->setKey("first");
    view_->setKey("second");
    auto crosshairs = subviewsOf<ui::ImageView>(*view_);
    auto labels = subviewsOf<ui::Button>(*view_);
    ASSERT_EQ(crosshairs.size(), 2u);
    ASSERT_EQ(labels.size(), 2u);
    EXPECT_EQ(view_->crosshair(), crosshairs[1]);
    EXPECT_EQ(globals::legalLabel(), labels[1]);
    EXPECT_EQ(globals::apikey(), "second");
    for (const auto& v : crosshairs) {
        EXPECT_TRUE(v->isHidden());
        EXPECT_NE(v->image(), nullptr);
    }
    for (const auto& l : labels) {
        EXPECT_TRUE(l->isHidden());
    }
    // setBoxDomain builds the furniture once more.
    view_->setBoxDomain(net::URL::fromString("https://box.example.org/"));
    EXPECT_EQ(subviewsOf<ui::Button>(*view_).size(), 3u);
    EXPECT_EQ(view_->boxDomain()->absoluteString(), "https://box.example.org/");
}

TEST_F(MapViewTest, InitDataBuildsTheLegalLabelAndMapAppearance) {
    view_->setKey("k");
    auto label = globals::legalLabel();
    ASSERT_NE(label, nullptr);
    EXPECT_EQ(label->frame(), gfx::Rect(0, 0, 100, 16));
    EXPECT_FALSE(label->translatesAutoresizingMaskIntoConstraints());
    EXPECT_FALSE(view_->translatesAutoresizingMaskIntoConstraints());
    const ui::AttributedString* title = label->attributedTitle(ui::ControlState::Normal);
    ASSERT_NE(title, nullptr);
    // An unlocalised host shows the key itself.
    EXPECT_EQ(title->string(), "Sorvan Map © TV, Kerova, OSM");
    ASSERT_EQ(title->runs().size(), 1u);
    const ui::TextAttributes& a = title->runs()[0].attributes;
    EXPECT_EQ(a.alignment, ui::TextAlignment::Right);
    EXPECT_EQ(a.foreground, gfx::Color::darkGray());
    EXPECT_TRUE(a.underline);
    EXPECT_EQ(a.weight, ui::FontWeight::Bold);
    EXPECT_EQ(a.size, 9.0);

    // Held 10 points from the left and 20 above the bottom, 16 high and at least 100 wide.
    view_->layoutIfNeeded();
    EXPECT_EQ(label->frame().origin.x, 10);
    EXPECT_EQ(label->frame().origin.y, 512 - 20 - 16);
    EXPECT_EQ(label->frame().size.height, 16);
    EXPECT_GE(label->frame().size.width, 100);

    EXPECT_EQ(view_->mapType(), map::MapType::MutedStandard);
    EXPECT_FALSE(view_->pointOfInterestFilter().includesAll);
    EXPECT_TRUE(view_->pointOfInterestFilter().categories.empty());

    std::vector<std::string> opened;
    Application::setOpenURLHandler([&](const std::string& url) {
        opened.push_back(url);
        return true;
    });
    label->sendActions(ui::ControlEvent::TouchUpInside);
    Application::setOpenURLHandler(nullptr);
    EXPECT_EQ(opened, std::vector<std::string>{service_.origin() + "/terms"});
}

TEST_F(MapViewTest, ClassStartUpWritesCacheVersionOnlyOverADifferentOne) {
    auto url = *net::URL::fromString(service_.origin() + "/cached");
    auto cacheHolds = [&] { return net::URLCache::shared().cachedData(url).has_value(); };
    auto fill = [&] { net::URLCache::shared().store(url, {url, 200, {}}, {1, 2, 3}); };
    Defaults& defaults = Defaults::standard();
    log::Capture capture;

    // First run: the banner, and nothing written, nothing emptied.
    fill();
    mapview::classStartUp();
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"Sorvan Map SDK v3.13 by Tervane Technology Co. Ltd."});
    EXPECT_EQ(capture.entries().front().level, log::Level::info);
    EXPECT_FALSE(defaults.stringForKey("cacheVersion").has_value());
    EXPECT_TRUE(cacheHolds());

    defaults.setString("3.13", "cacheVersion");
    mapview::classStartUp();
    EXPECT_TRUE(cacheHolds());
    EXPECT_EQ(defaults.stringForKey("cacheVersion"), "3.13");

    defaults.setString("3.12", "cacheVersion");
    mapview::classStartUp();
    EXPECT_FALSE(cacheHolds());
    EXPECT_EQ(defaults.stringForKey("cacheVersion"), "3.13");
}

TEST_F(MapViewTest, ClearCachesEmptiesTheTileFolderAndForgetsTheList) {
    Defaults& defaults = Defaults::standard();
    fs::path folder = fs::path(paths::caches()) / "tileCache";

    // No folder: false, and the list stays.
    defaults.setStringArray({"a"}, "tileList");
    EXPECT_FALSE(SorvanMapView::clearCaches(13));
    EXPECT_FALSE(SorvanMapView::clearCaches(99));
    EXPECT_TRUE(defaults.stringArrayForKey("tileList").has_value());

    // An empty folder: true, and the list is gone.
    fs::create_directories(folder);
    EXPECT_TRUE(SorvanMapView::clearCaches(13));
    EXPECT_FALSE(defaults.stringArrayForKey("tileList").has_value());

    // Files and a stray sub-folder all go; the folder itself stays.
    std::ofstream(folder / "A.png") << "x";
    std::ofstream(folder / "B.png") << "y";
    fs::create_directories(folder / "sub" / "deeper");
    defaults.setStringArray({"A", "B"}, "tileList");
    EXPECT_TRUE(SorvanMapView::clearAllCaches());
    EXPECT_TRUE(fs::exists(folder));
    EXPECT_TRUE(fs::is_empty(folder));
    EXPECT_FALSE(defaults.stringArrayForKey("tileList").has_value());
}

class ClearCachesTest : public MapViewTest {
  protected:
    std::shared_ptr<SMTileOverlay> cachingOverlay() {
        auto overlay = SMTileOverlay::create({21}, "k", std::nullopt, 0);
        overlay->setCustomUrl(
            std::vector<std::string>{service_.origin() + "/tiles/{z}/{x}/{y}.png"},
            std::vector<std::int64_t>{0}, std::nullopt);
        overlay->setCache(1);
        return overlay;
    }
    static void load(SMTileOverlay& overlay, map::TilePath path) {
        overlay.loadTileAtPath(path, [](std::vector<std::uint8_t>, std::optional<std::string>) {});
    }
};

TEST_F(ClearCachesTest, TheNextDownloadStoresTheWholeListKeptInMemory) {
    Defaults& defaults = Defaults::standard();
    tiles::TileCache& cache = tiles::TileCache::shared();
    std::vector<std::string> names;
    for (int i = 0; i < 10001; ++i) {
        names.push_back(strformat("%076d", i));
    }
    defaults.setStringArray(names, "tileList");
    auto overlay = cachingOverlay();  // loads the list
    ASSERT_TRUE(SorvanMapView::clearCaches(13));
    EXPECT_FALSE(defaults.stringArrayForKey("tileList"));
    EXPECT_EQ(cache.tileList(), names);

    load(*overlay, {0, 0, 1});
    auto list = cache.tileList();
    ASSERT_EQ(list.size(), 10001u);
    EXPECT_EQ(list.front(), names[1]);
    EXPECT_EQ(defaults.stringArrayForKey("tileList"), list);

    // The next process starts from the stored list, so the bound still holds there.
    auto next = cachingOverlay();
    EXPECT_EQ(cache.tileList(), list);
    load(*next, {1, 0, 1});
    list = cache.tileList();
    EXPECT_EQ(list.size(), 10001u);
    EXPECT_EQ(list.front(), names[2]);
    EXPECT_EQ(defaults.stringArrayForKey("tileList"), list);
}

TEST_F(ClearCachesTest, AViewMadeInCodeKeepsTilesOffTheDiskUntilTheHostAsks) {
    view_->addSMOverlay(SMLayerModeNormal);
    EXPECT_EQ(globals::cache(), 2);
    ASSERT_EQ(tiles().size(), 1u);
    EXPECT_EQ(tiles()[0]->cache(), 2);
    load(*tiles()[0], {0, 0, 1});
    EXPECT_TRUE(tiles::TileCache::shared().tileList().empty());
    EXPECT_TRUE(fs::is_empty(fs::path(paths::caches()) / "tileCache"));
}

TEST_F(MapViewTest, CrosshairSitsOnTheCentreAndOnlyUpdateCrosshairShowsIt) {
    view_->updateCrosshair();  // no furniture yet: nothing to place
    view_->setKey("k");
    view_->setCenterCoordinate({13.7563, 100.5018});
    view_->layoutSubviews();
    auto crosshair = view_->crosshair();
    EXPECT_NEAR(crosshair->center().x, 256.0, 1e-6);
    EXPECT_NEAR(crosshair->center().y, 256.0, 1e-6);
    EXPECT_TRUE(crosshair->isHidden());
    view_->updateCrosshair();
    EXPECT_FALSE(crosshair->isHidden());
    view_->layoutSubviews();
    EXPECT_FALSE(crosshair->isHidden());
}

TEST_F(MapViewTest, SetCacheReachesEveryTileOverlay) {
    view_->setCache(1);
    EXPECT_EQ(globals::cache(), 1);
    EXPECT_TRUE(view_->overlays().empty());

    view_->addSMOverlay(SMLayerModeNormal);
    map::Coordinate line[] = {{13.7, 100.5}, {13.8, 100.6}};
    view_->addOverlay(map::Polyline::withCoordinates(line, 2));
    view_->addSMOverlay(SMLayerModeIcons);
    EXPECT_EQ(tiles()[0]->cache(), 1);
    view_->setCache(3);
    for (const auto& t : tiles()) {
        if (t) {
            EXPECT_EQ(t->cache(), 3);
        }
    }
    // Loading from a layout description turns the disk cache off for later overlays only.
    view_->awakeFromNib();
    EXPECT_EQ(globals::cache(), 2);
    EXPECT_EQ(tiles()[0]->cache(), 3);
}

TEST_F(MapViewTest, SetLanguageRebuildsTileOverlaysAndKeepsOthers) {
    view_->addSMLayers({layer(SMLayerModeNormal, 0.5, 3, 15), layer(SMLayerModeIcons, 0.5, 3, 15)});
    view_->addSMOverlay(SMLayerModeNone);
    map::Coordinate line[] = {{13.7, 100.5}, {13.8, 100.6}};
    auto polyline = map::Polyline::withCoordinates(line, 2);
    view_->addOverlay(polyline);
    auto before = tiles();

    view_->setLanguage(2);
    EXPECT_EQ(view_->language(), 2);
    // The lone mode-19 overlay survives the bulk removal and is re-added as well.
    using M = std::vector<std::vector<std::int64_t>>;
    EXPECT_EQ(modes(), (M{{19}, {5, 9}, {19}, {}}));
    auto after = tiles();
    EXPECT_EQ(after[0], before[1]);
    EXPECT_EQ(after[0]->language(), 0);
    for (int i : {1, 2}) {
        EXPECT_EQ(after[i]->language(), 2);
    }
    EXPECT_NE(after[1], before[0]);
    EXPECT_EQ(after[1]->alpha(), 0.5);
    EXPECT_EQ(after[1]->minimumZ(), 3);
    EXPECT_EQ(after[1]->maximumZ(), 15);
    EXPECT_EQ(view_->overlays().back(), polyline);
    EXPECT_EQ(std::string(SorvanMapView::localeCode(2)), "en");
    for (std::int64_t other : {0, 1, 3, -2}) {
        EXPECT_EQ(std::string(SorvanMapView::localeCode(other)), "th");
    }
}

}  // namespace
}  // namespace sorvan::test
