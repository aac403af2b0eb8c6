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
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sorvan/platform/export.hpp"
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
class SORVAN_EXPORT SMTileDataDelegate {
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

/// Also the data delegate of its own format-3 tile overlays: it forwards their answers to the
/// host's dataDelegate.
class SORVAN_EXPORT SorvanMapView : public map::MapView,
                                    public map::MapViewDelegate,
                                    public SMTileDataDelegate {
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
    /// The disk cache mode of tile overlays made from now on, also sent to every tile overlay
    /// on the map: 2 = off, any other value = on. Until the host sets it, it is 2, however the
    /// view was made.
    void setCache(std::int64_t mode);
    /// Empties the tile disk cache under a search-path directory (13 = caches): removes every
    /// entry of its "tileCache/" folder, then the "tileList" default. The names of the removed
    /// tiles stay listed in memory, and the next cached download stores that whole list again.
    /// False when the folder does not exist or a removal fails (entries removed before stay
    /// removed).
    static bool clearCaches(long directory);
    /// Empties the shared URL response cache, then clearCaches(13).
    static bool clearAllCaches();
    /// Lays out, then centres the crosshair on the map's centre (its visibility unchanged).
    void layoutSubviews() override;
    /// Centres the crosshair and shows it.
    void updateCrosshair();
    std::shared_ptr<ui::ImageView> crosshair() const { return crosshair_; }
    void setCrosshair(std::shared_ptr<ui::ImageView> crosshair) {
        crosshair_ = std::move(crosshair);
    }
    /// Action of the legal label: opens the terms-of-use page.
    void openTerm();

    // The delegates are held weakly and may be read from any thread (tile threads forward
    // data-template answers, the session queue delivers search results).
    std::shared_ptr<SMSearchDelegate> searchDelegate() const {
        std::lock_guard lock(delegateMutex_);
        return searchDelegate_.lock();
    }
    void setSearchDelegate(std::weak_ptr<SMSearchDelegate> d) {
        std::lock_guard lock(delegateMutex_);
        searchDelegate_ = std::move(d);
    }
    std::shared_ptr<SMTileDataDelegate> dataDelegate() const {
        std::lock_guard lock(delegateMutex_);
        return dataDelegate_.lock();
    }
    void setDataDelegate(std::weak_ptr<SMTileDataDelegate> d) {
        std::lock_guard lock(delegateMutex_);
        dataDelegate_ = std::move(d);
    }

    // Zoom and pixel space -------------------------------------------------------------------
    // Pixel space: the spherical Mercator plane 2^29 units wide, (0, 0) at the north-west
    // corner, longitude 0 / latitude 0 at (2^28, 2^28). Results and inputs are rounded to
    // whole units, halves away from zero. The forward latitude conversion works in single
    // precision, its inverse in double: round trips carry that error on purpose.
    static double longitudeToPixelSpaceX(double longitude);
    static double latitudeToPixelSpaceY(double latitude);
    static double pixelSpaceXToLongitude(double pixelX);
    static double pixelSpaceYToLatitude(double pixelY);
    /// log2(bounds width / visible map rect width) + 20; not clamped, not rounded.
    double zoomLevel() const;
    /// Animates to zoom about the centre. Ignored at 21 or more; at world scale (a latitude
    /// span of 90 or more) also ignored at 0 or less.
    void setZoomLevel(double zoomLevel);
    /// The span the view's bounds cover at zoom, about the current centre.
    map::CoordinateSpan coordinateSpanWithZoomLevel(double zoomLevel) const;
    /// Refreshes the process-wide currentZoom (bouncing 21 back to 20) and the views of
    /// zoom-bound annotations.
    void regionDidChangeAnimated(map::MapView& mapView, bool animated) override;

    // Tile layers ----------------------------------------------------------------------------
    // Every overlay these build takes the process-wide key and this view's boxDomain and
    // language. A new tile overlay lands above every earlier one; the traffic layer of
    // addSMLayer refreshes every 180 s on the main run loop.
    /// One overlay of one mode, with the process-wide cache mode.
    void addSMOverlay(std::int64_t mode);
    /// One overlay for a descriptor: its template, alpha and zoom range.
    void addSMLayer(const std::shared_ptr<SMLayer>& layer);
    /// Stacks the layers whose alpha and zoom range equal the last element's into one overlay;
    /// the others get an overlay each, below it; a traffic layer is added last, on its own.
    void addSMLayers(const std::vector<std::shared_ptr<SMLayer>>& layers);
    void addCustomOverlayWithURL(const std::string& urlTemplate, std::int64_t format,
                                 const std::string& referer);
    /// One stacked overlay from parallel lists; nothing when the first three counts differ.
    /// Its disk cache stays off.
    void addSMOverlays(const std::vector<std::int64_t>& modes, const std::vector<std::string>& urls,
                       const std::vector<std::int64_t>& formats,
                       const std::vector<std::string>& referers);
    /// The traffic refresh (the timer's action): re-adds a fresh copy of the timer's overlay.
    void addTrafficLayer(dispatch::Timer& timer);
    /// Removes the overlays except mode-[19] ones; removing traffic stops its refresh.
    void removeOverlays(const std::vector<std::shared_ptr<map::Overlay>>& overlays) override;
    /// Removes mode from the first overlay holding it (its other layers come back as a new
    /// overlay). For traffic (16) it toggles: the first call after a refresh leaves the timer.
    void removeSMOverlay(std::int64_t mode);
    /// Removes the first mode-20/21 layer whose template or mode name is source.
    void removeSourceLayer(const std::string& source);
    /// Drops layer index of an overlay already off the map and adds the rest back.
    void removeOverlay(const std::shared_ptr<SMTileOverlay>& overlay, std::int64_t index);
    /// Adds a fresh copy of overlay (this view's language and box domain); overlay stays.
    void reAddOverlay(const std::shared_ptr<SMTileOverlay>& overlay);
    /// Whether a map-picture tile overlay is on the map (white backgrounds and custom layers
    /// do not count).
    bool hasSorvanOverlay() const;
    /// Inserts directly above the topmost tile overlay (or at the top when there is none).
    void addOverlay(const std::shared_ptr<map::Overlay>& overlay) override;
    /// Tile overlays get a tile renderer with the overlay's alpha.
    std::shared_ptr<map::OverlayRenderer> rendererForOverlay(
        map::MapView& mapView, const std::shared_ptr<map::Overlay>& overlay) override;
    /// Forwards data-template answers to dataDelegate (called on tile threads).
    void dataFromTile(const net::Data& data) override;
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
    /// A new tile overlay with the process-wide key and this view's box domain and language.
    std::shared_ptr<SMTileOverlay> newOverlay(std::vector<std::int64_t> modes);
    void placeCrosshair();
    /// The view of the user-location annotation, or nullptr when the engine is to draw its own
    /// default dot.
    std::shared_ptr<map::AnnotationView> userLocationAnnotationView(
        const std::shared_ptr<map::Annotation>& annotation);

    mutable std::mutex delegateMutex_;
    std::weak_ptr<SMSearchDelegate> searchDelegate_;  // guarded by delegateMutex_
    std::weak_ptr<SMTileDataDelegate> dataDelegate_;  // guarded by delegateMutex_
    std::int64_t language_ = 0;
    std::optional<net::URL> boxDomain_;
    std::shared_ptr<ui::ImageView> crosshair_;
    double storedZoom_ = 0.0;  // never written by the kit; setZoomLevel reads it
};

}  // namespace sorvan
