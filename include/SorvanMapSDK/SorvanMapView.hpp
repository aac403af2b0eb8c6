// SorvanMapView: the one public view of the kit. A map view (the engine's map::MapView) that
// is its own delegate, and the application's gateway to the Sorvan services.
//
// Ownership: create() returns a shared view; the view holds its delegates weakly. Threads:
// main queue only, except the pure conversions (any thread) and the completion-style service
// calls, whose result blocks run on the URL session's queue.
//
//   auto view = sorvan::SorvanMapView::create({0, 0, 800, 600});
//   view->setKey("my-key");
//   view->addSMOverlay(sorvan::SMLayerModeNormal);
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/url.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/map_view.hpp"
#include "sorvan/platform/ui/controls.hpp"

namespace sorvan {

class SMLayer;
class SMTileOverlay;
class SMPinAnnotation;
class SMSearchOptions;
class SMSuggestOptions;
class SMSearchDelegate;
class SMRouteOptions;
class SMRouteResult;

/// Receives the raw answers of data-template tile layers (format 3).
class SMTileDataDelegate {
  public:
    virtual ~SMTileDataDelegate() = default;
    virtual void dataFromTile(const net::Data& data) = 0;
};

/// Result blocks of the completion-style services. Exactly one argument is set, except a
/// malformed route answer, which gives neither.
using SMSearchResult =
    std::function<void(const std::optional<std::vector<std::shared_ptr<SMPinAnnotation>>>& pins,
                       const std::optional<net::Error>& error)>;
using SMSuggestResult = std::function<void(const std::optional<std::vector<std::string>>& words,
                                           const std::optional<net::Error>& error)>;
using SMRouteResultBlock = std::function<void(const std::shared_ptr<SMRouteResult>& result,
                                              const std::optional<net::Error>& error)>;
using SMPathResult =
    std::function<void(const std::optional<std::vector<std::shared_ptr<map::Polyline>>>& polylines,
                       const std::optional<net::Error>& error)>;

class SorvanMapView : public map::MapView, public map::MapViewDelegate {
  public:
    /// A new view that is its own map delegate. Runs the class start-up on first use.
    static std::shared_ptr<SorvanMapView> create(gfx::Rect frame = {0, 0, 320, 480});
    /// Class start-up: the version banner and the "cacheVersion" reconciliation. Runs once
    /// per process; create() calls it.
    static void initialize();
    ~SorvanMapView() override;

    using map::MapView::removeOverlay;
    using map::MapView::rendererForOverlay;
    using map::MapView::viewForAnnotation;
    using map::MapViewDelegate::rendererForOverlay;
    using map::MapViewDelegate::viewForAnnotation;

    // Lifecycle and configuration ------------------------------------------------------------
    /// The hook a front end calls after building the view from a layout description.
    void awakeFromNib();
    void setKey(const std::string& key);
    std::optional<net::URL> boxDomain() const { return boxDomain_; }
    void setBoxDomain(std::optional<net::URL> domain);
    void initData();
    /// 2 = English ("en"); every other value Thai ("th").
    std::int64_t language() const { return language_; }
    void setLanguage(std::int64_t language);
    /// The locale code of a language value.
    static const char* localeCode(std::int64_t language) { return language == 2 ? "en" : "th"; }
    void setCache(std::int64_t mode);
    /// Empties the tile disk cache under a search-path directory (13 = caches).
    static bool clearCaches(long directory);
    static bool clearAllCaches();
    void layoutSubviews() override;
    void updateCrosshair();
    std::shared_ptr<ui::ImageView> crosshair() const { return crosshair_; }
    void setCrosshair(std::shared_ptr<ui::ImageView> crosshair) {
        crosshair_ = std::move(crosshair);
    }
    void openTerm();

    std::shared_ptr<SMSearchDelegate> searchDelegate() const { return searchDelegate_.lock(); }
    void setSearchDelegate(std::weak_ptr<SMSearchDelegate> d) { searchDelegate_ = std::move(d); }
    std::shared_ptr<SMTileDataDelegate> dataDelegate() const { return dataDelegate_.lock(); }
    void setDataDelegate(std::weak_ptr<SMTileDataDelegate> d) { dataDelegate_ = std::move(d); }

    // Zoom and pixel space -------------------------------------------------------------------
    static double longitudeToPixelSpaceX(double longitude);
    static double latitudeToPixelSpaceY(double latitude);
    static double pixelSpaceXToLongitude(double pixelX);
    static double pixelSpaceYToLatitude(double pixelY);
    double zoomLevel() const;
    void setZoomLevel(double zoomLevel);
    map::CoordinateSpan coordinateSpanWithZoomLevel(double zoomLevel) const;
    void regionDidChangeAnimated(map::MapView& mapView, bool animated) override;

    // Tile layers ----------------------------------------------------------------------------
    void addSMOverlay(std::int64_t mode);
    void addSMLayer(const std::shared_ptr<SMLayer>& layer);
    void addSMLayers(const std::vector<std::shared_ptr<SMLayer>>& layers);
    void addCustomOverlayWithURL(const std::string& urlTemplate, std::int64_t format,
                                 const std::string& referer);
    void addSMOverlays(const std::vector<std::int64_t>& modes, const std::vector<std::string>& urls,
                       const std::vector<std::int64_t>& formats,
                       const std::vector<std::string>& referers);
    void addTrafficLayer(dispatch::Timer& timer);
    void removeOverlays(const std::vector<std::shared_ptr<map::Overlay>>& overlays) override;
    void removeSMOverlay(std::int64_t mode);
    void removeSourceLayer(const std::string& source);
    void removeOverlay(const std::shared_ptr<SMTileOverlay>& overlay, std::int64_t index);
    void reAddOverlay(const std::shared_ptr<SMTileOverlay>& overlay);
    bool hasSorvanOverlay() const;
    void addOverlay(const std::shared_ptr<map::Overlay>& overlay) override;
    std::shared_ptr<map::OverlayRenderer> rendererForOverlay(
        map::MapView& mapView, const std::shared_ptr<map::Overlay>& overlay) override;
    /// Forwards data-template answers to dataDelegate.
    void dataFromTile(const net::Data& data);
    /// Re-binds tags after the layer stack changed (no-op while no tags are shown).
    void reAddTag();

    // Geodesy (pure; any thread) -------------------------------------------------------------
    /// "47P, 662367, 1521281" (band letter) or "47N, ..." (hemisphere) when !withZone.
    std::string UTMFrom(map::Coordinate coordinate, bool withZone) const;
    /// Throws std::invalid_argument for a text without three comma-separated parts.
    map::Coordinate coordinateFromUTM(const std::string& text) const;
    /// Square metres; throws std::invalid_argument for a shape with no points.
    double areaOfPolygon(const map::MultiPoint& polygon) const;

    // Search and suggest ---------------------------------------------------------------------
    void searchWithKeyword(const std::string& keyword, map::Coordinate coordinate);
    void searchWithKeyword(const std::string& keyword, map::Coordinate coordinate,
                           const std::string& span, std::int64_t offset, std::int64_t limit);
    void suggestWithKeyword(const std::string& keyword);
    void searchKeyword(const std::string& keyword, const std::shared_ptr<SMSearchOptions>& options,
                       SMSearchResult result);
    void suggestKeyword(const std::string& keyword,
                        const std::shared_ptr<SMSuggestOptions>& options, SMSuggestResult result);

    // Routing --------------------------------------------------------------------------------
    void routeFrom(map::Coordinate from, map::Coordinate to,
                   const std::shared_ptr<SMRouteOptions>& options, SMRouteResultBlock result);
    void pathFrom(std::int64_t routeId, SMPathResult result);

  protected:
    explicit SorvanMapView(gfx::Rect frame);

  private:
    std::weak_ptr<SorvanMapView> weakSelf() {
        return std::static_pointer_cast<SorvanMapView>(shared_from_this());
    }

    std::weak_ptr<SMSearchDelegate> searchDelegate_;
    std::weak_ptr<SMTileDataDelegate> dataDelegate_;
    std::int64_t language_ = 0;
    std::optional<net::URL> boxDomain_;
    std::shared_ptr<ui::ImageView> crosshair_;
    double storedZoom_ = 0.0;  // never written by the kit; setZoomLevel reads it
};

}  // namespace sorvan
