// The map view's start-up, furniture (crosshair and legal label), service settings and the
// disk cache operations.
#include <filesystem>
#include <mutex>
#include <system_error>

#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "mapview/class_start_up.hpp"
#include "mapview/globals.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/defaults.hpp"
#include "sorvan/platform/foundation/log.hpp"
#include "sorvan/platform/foundation/paths.hpp"
#include "sorvan/platform/location/map_location_source.hpp"
#include "sorvan/platform/ui/layout_constraint.hpp"
#include "tiles/tile_cache.hpp"

namespace sorvan {

namespace mapview {

void classStartUp() {
    std::string version = Bundle::kit().infoValue("CFBundleShortVersionString").value_or("");
    log::info("Sorvan Map SDK v%s by Tervane Technology Co. Ltd.", version.c_str());

    // Only a stored version that differs empties the response cache. A first run stores
    // nothing: a fresh installation keeps no "cacheVersion" until the host or an earlier
    // release wrote one.
    Defaults& defaults = Defaults::standard();
    std::optional<std::string> stored = defaults.stringForKey("cacheVersion");
    if (stored && *stored != version) {
        net::URLCache::shared().removeAllCachedResponses();
        defaults.setString(version, "cacheVersion");
        defaults.synchronize();
    }
}

}  // namespace mapview

void SorvanMapView::initialize() {
    static std::once_flag once;
    std::call_once(once, mapview::classStartUp);
}

std::shared_ptr<SorvanMapView> SorvanMapView::create(gfx::Rect frame) {
    initialize();
    std::shared_ptr<SorvanMapView> view(new SorvanMapView(frame));
    view->setDelegate(view);
    // Where the user is, once the host shows it: the process's shared location source.
    view->setLocationSource(std::make_shared<location::MapLocationSource>());
    return view;
}

SorvanMapView::SorvanMapView(gfx::Rect frame) : map::MapView(frame) {}

SorvanMapView::~SorvanMapView() = default;

void SorvanMapView::awakeFromNib() {
    globals::setCache(2);
}

void SorvanMapView::setKey(const std::string& key) {
    globals::setApikey(key);
    initData();
}

void SorvanMapView::setBoxDomain(std::optional<net::URL> domain) {
    boxDomain_ = std::move(domain);
    initData();
}

// Deliberately not guarded against repetition: every call adds one more crosshair and one more
// label to the subviews; only the references move to the newest ones.
void SorvanMapView::initData() {
    Bundle& kit = Bundle::kit();
    setTranslatesAutoresizingMaskIntoConstraints(false);

    crosshair_ = std::make_shared<ui::ImageView>(kit.image("crosshair"));
    addSubview(crosshair_);
    crosshair_->setHidden(true);

    ui::TextAttributes attributes;
    attributes.alignment = ui::TextAlignment::Right;
    attributes.foreground = gfx::Color::darkGray();
    attributes.underline = true;
    attributes.weight = ui::FontWeight::Bold;
    attributes.size = 9.0;
    // Looked up in the host's string table, so a host may replace the attribution text; an
    // unlocalised host shows the key itself.
    std::string text = Bundle::main().localizedString("Sorvan Map © TV, Kerova, OSM", "");
    ui::AttributedString title;
    title.append(ui::AttributedString(text, attributes));

    auto label = std::make_shared<ui::Button>(gfx::Rect(0, 0, 100, 16));
    globals::setLegalLabel(label);
    label->setAttributedTitle(title, ui::ControlState::Normal);
    std::weak_ptr<SorvanMapView> self = weakSelf();
    label->addTarget(
        [self] {
            if (auto view = self.lock()) {
                view->openTerm();
            }
        },
        ui::ControlEvent::TouchUpInside);
    addSubview(label);
    label->setTranslatesAutoresizingMaskIntoConstraints(false);
    using ui::LayoutAttribute;
    using ui::LayoutConstraint;
    using ui::LayoutRelation;
    LayoutConstraint::activate({
        LayoutConstraint::create(label, LayoutAttribute::Height, LayoutRelation::Equal, nullptr,
                                 LayoutAttribute::NotAnAttribute, 1.0, 16.0),
        LayoutConstraint::create(label, LayoutAttribute::Width, LayoutRelation::GreaterThanOrEqual,
                                 nullptr, LayoutAttribute::NotAnAttribute, 1.0, 100.0),
    });

    setPointOfInterestFilter(map::PointOfInterestFilter::excludingAll());
    setMapType(map::MapType::MutedStandard);

    auto me = shared_from_this();
    LayoutConstraint::activate({
        LayoutConstraint::create(label, LayoutAttribute::Left, LayoutRelation::Equal, me,
                                 LayoutAttribute::Left, 1.0, 10.0),
        LayoutConstraint::create(label, LayoutAttribute::Bottom, LayoutRelation::Equal, me,
                                 LayoutAttribute::Bottom, 1.0, -20.0),
    });
    // The kit never shows the label again; the host may, through the global.
    label->setHidden(true);
}

void SorvanMapView::setLanguage(std::int64_t language) {
    language_ = language;
    // Tile overlays carry their language from creation, so each is rebuilt. removeOverlays is
    // this view's own: it keeps mode-19 overlays and stops the traffic refresh.
    std::vector<std::shared_ptr<map::Overlay>> snapshot = overlays();
    removeOverlays(snapshot);
    for (const auto& overlay : snapshot) {
        if (auto tile = std::dynamic_pointer_cast<SMTileOverlay>(overlay)) {
            reAddOverlay(tile);
        } else {
            addOverlay(overlay);
        }
    }
    reAddTag();
    if (showsEvents_) {
        unloadEvent();
        loadEvent();
    }
}

void SorvanMapView::setCache(std::int64_t mode) {
    globals::setCache(mode);
    // Only tile overlays have a cache mode: any other overlay a host put on the map is skipped
    // rather than failing on a setting it cannot take.
    for (const auto& overlay : overlays()) {
        if (auto tile = std::dynamic_pointer_cast<SMTileOverlay>(overlay)) {
            tile->setCache(mode);
        }
    }
}

bool SorvanMapView::clearCaches(long directory) {
    namespace fs = std::filesystem;
    std::string base = paths::forSearchPathDirectory(directory);
    if (base.empty()) {
        return false;
    }
    fs::path folder = fs::path(base) / "tileCache/";
    std::error_code ec;
    if (!fs::exists(folder, ec)) {
        return false;
    }
    // A folder that cannot be listed counts as empty, as before.
    std::vector<fs::path> entries;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        entries.push_back(it->path());
    }
    for (const auto& entry : entries) {
        std::error_code removeError;
        if (fs::remove_all(entry, removeError) == static_cast<std::uintmax_t>(-1) || removeError) {
            return false;
        }
    }
    // The names stay listed in memory for the next download to store again.
    tiles::TileCache::shared().removeStoredList();
    return true;
}

bool SorvanMapView::clearAllCaches() {
    net::URLCache::shared().removeAllCachedResponses();
    return clearCaches(13);
}

void SorvanMapView::placeCrosshair() {
    if (crosshair_) {
        crosshair_->setCenter(convertCoordinateToPoint(centerCoordinate(), this));
    }
}

void SorvanMapView::layoutSubviews() {
    map::MapView::layoutSubviews();
    placeCrosshair();
}

void SorvanMapView::updateCrosshair() {
    placeCrosshair();
    if (crosshair_) {
        crosshair_->setHidden(false);
    }
}

void SorvanMapView::openTerm() {
    Application::openURL(ServiceConfig::current().termsPage);
}

void SorvanMapView::dataFromTile(const net::Data& data) {
    if (auto delegate = dataDelegate()) {
        delegate->dataFromTile(data);
    }
}

}  // namespace sorvan
