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

#include "SorvanMapSDK/LocationControllerDelegate.hpp"
#include "SorvanMapSDK/SMServiceTask.hpp"
#include "SorvanMapSDK/SMTagDelegate.hpp"
#include "sorvan/platform/export.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/url.hpp"
#include "sorvan/platform/foundation/url_session.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/map_view.hpp"
#include "sorvan/platform/ui/controls.hpp"

namespace sorvan {

class SMCameraAnnotation;
class SMLayer;
class SMTileOverlay;
class SMPinAnnotation;
class SMSearchOptions;
class SMSuggestOptions;
class SMSearchDelegate;
class SMRouteOptions;
class SMRouteResult;
class SMTagOptions;
class SMTagAnnotation;
class SMUserAnnotation;

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
/// Receives a fetched icon on the main queue: the picture, the kit's fallback after a failed
/// request, or nullptr when the answer was no picture.
using SMImageCompletion = std::function<void(const std::shared_ptr<gfx::Image>& image)>;

using SMPathResult =
    std::function<void(const std::optional<std::vector<std::shared_ptr<map::Polyline>>>& polylines,
                       const std::optional<net::Error>& error)>;

/// Also the data delegate of its own format-3 tile overlays (it forwards their answers to the
/// host's dataDelegate), the tag delegate of the renderer bound to tags and, once it draws the
/// user itself, the shared LocationController's delegate.
class SORVAN_EXPORT SorvanMapView : public map::MapView,
                                    public map::MapViewDelegate,
                                    public SMTileDataDelegate,
                                    public SMTagDelegate,
                                    public LocationControllerDelegate {
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

    // Tags: clustered points of interest ---------------------------------------------------
    // Tags are bound to the renderer of the topmost tile overlay (the process-wide tagOverlay):
    // every tile it draws at a zoom in the range asks the clustering service for that tile's
    // tags, which arrive as SMTagAnnotations on the main queue. A tag layer (mode 19) above it
    // carries the zoom range. Only the tags of the current zoom are shown.
    /// showTags(tags, nullptr).
    void showTags(const std::vector<std::string>& tags);
    /// Binds tags to the topmost tile overlay's renderer, removing earlier tags first. Nothing
    /// is bound without a tile overlay. Without options the tag layer spans zooms 1..22, with
    /// options location .. location + length (so default options give 1..23); the renderer's
    /// range is the options' (1, 22 without).
    void showTags(const std::optional<std::vector<std::string>>& tags,
                  const std::shared_ptr<SMTagOptions>& options);
    /// Re-binds the shown tags to the overlay that is now topmost, with the tag layer's range
    /// (1..22 when it is gone). Does nothing while no tags are shown.
    void reAddTag();
    /// Takes every tag off the map, unbinds the renderer and removes the tag layer.
    void removeAllTags();
    /// Adds the tags to the map in one call, on the main queue (callable from any thread).
    void tagData(const std::vector<std::shared_ptr<SMTagAnnotation>>& tags) override;
    /// Takes every tag of another zoom off the map in one call, on the main queue.
    void removeOldTagFromZoom(std::int64_t zoom) override;

    // Traffic events -------------------------------------------------------------------------
    // The event feed is loaded whole; a reload keeps the annotation of every event still in
    // the feed (by "eid", the first match), drops the others and adds the new ones. The
    // refresh timer (every 180 s) is process-wide: starting it on one view stops another's.
    bool showsEvents() const { return showsEvents_; }
    /// true: load now and refresh every 180 s. false: stop the refresh and take the events
    /// off the map.
    void setShowsEvents(bool shows);
    /// setShowsEvents(true).
    void showEvents();
    /// Takes the events off the map but leaves the refresh timer running, so its next tick
    /// shows them again.
    void removeEvents();
    /// Turns events on and requests the feed.
    void loadEvent();
    /// Takes every event off the map, on the main queue.
    void unloadEvent();

    // Traffic cameras ------------------------------------------------------------------------
    // The camera feed is loaded once each time cameras are switched on (no refresh). Loading
    // again without unloading first shows every camera once more, as each load adds what it
    // brought. A feed that fails is logged ("showCameras Error: ...") and adds nothing.
    bool showsCameras() const { return showsCameras_; }
    /// Stores the value, then loads (true) or unloads (false); true twice loads twice.
    void setShowsCameras(bool shows);
    /// setShowsCameras(true).
    void showCameras();
    /// setShowsCameras(false).
    void removeCameras();
    /// Requests the camera feed; its cameras are added on the main queue when it arrives, or
    /// dropped (and every camera taken off) if cameras were switched off meanwhile.
    void loadCamera();
    /// Takes every camera off the map, on the main queue (always later, never at once).
    void unloadCamera();
    /// A new view, zero frame and in no hierarchy, that shows the camera: a web picture for a
    /// still or moving picture, a live video filling it with the sponsor's banner at its
    /// bottom for a stream. The caller places and sizes it; a stream plays for as long as the
    /// view lives. The banner arrives later, on the main queue, and the video is fitted to
    /// the view's size one second after that.
    std::shared_ptr<ui::View> getVDOViewFromCameraData(
        const std::shared_ptr<SMCameraAnnotation>& camera);

    // Annotation views and icons -------------------------------------------------------------
    /// A new view for every annotation: the user's position (the kit's own drawing when the
    /// user annotation type is 1, else nullptr: the engine's dot), a pin or tag or event with
    /// the icon it names (fetched), a camera with the "camera" or "video" traffic icon, a stale tag
    /// removed from the map (an empty view), anything else a red pin.
    std::shared_ptr<map::AnnotationView> viewForAnnotation(
        map::MapView& mapView, const std::shared_ptr<map::Annotation>& annotation) override;
    /// Tags, events and cameras never stay selected.
    void didSelectAnnotationView(map::MapView& mapView,
                                 const std::shared_ptr<map::AnnotationView>& view) override;
    /// Fetches an icon: kind 0 a map icon ("reddot" without a type) at this view's screen
    /// scale, kind 1 a traffic icon ("information" without a type) at scale 2; any other kind
    /// fetches nothing and never completes. Answers come from the URL cache once cached. A
    /// failed request gives the kit's "reddot" or "information"; an answer that is no picture
    /// gives nullptr. completion runs on the main queue.
    void getImageFromType(const std::optional<std::string>& type, std::int64_t pinType,
                          SMImageCompletion completion);

    // The user's position ---------------------------------------------------------------------
    // With userAnnotationType 1 the kit draws the user itself: an SMUserAnnotation with a
    // marker and a heading arrow that turns with the compass and with the map's rotation,
    // following the shared LocationController. Any other value leaves the engine's own dot.
    // Where the user is comes from the map's location source (setShowsUserLocation).
    std::int64_t userAnnotationType() const { return userAnnotationType_; }
    /// Stores the type. 1 also makes this view the shared LocationController's delegate (which
    /// makes the controller, and starts its manager, on first use) and sets currentHeading to
    /// -1: no heading yet. Other values take nothing back: headings keep coming and are
    /// ignored.
    void setUserAnnotationType(std::int64_t type);
    std::shared_ptr<gfx::Image> userLocationImage() const { return userLocationImage_; }
    /// Stores the marker picture and shows it in the user drawing on the map, if there is one
    /// now; a drawing made later gets it (in a 32 x 40 frame, aspect-fit).
    void setUserLocationImage(std::shared_ptr<gfx::Image> image);
    std::shared_ptr<gfx::Image> userLocationArrow() const { return userLocationArrow_; }
    /// Stores the arrow picture and shows it in the user drawing on the map, if there is one
    /// now; a drawing made later gets it (aspect-fit).
    void setUserLocationArrow(std::shared_ptr<gfx::Image> image);
    /// Turns the arrow of the user drawing on the map to currentHeading against the camera's
    /// heading, over 0.1 s from no rotation; hides it while currentHeading is 0 or -1. Does
    /// nothing while the map has no user drawing.
    void setUserLocationHeading();
    /// Nothing: the map moves the user's annotation itself.
    void locationControllerDidUpdateLocation(const location::Location& location) override;
    /// With userAnnotationType 1: a reliable heading (accuracy above 0) sets currentHeading to
    /// its true heading, or to its magnetic heading when the true one is not above 0; an
    /// unreliable one sets -1. Then turns the arrow.
    void locationControllerDidUpdateHeading(const location::Heading& heading) override;
    /// Logs "Get location fail: DESCRIPTION".
    void locationControllerDidFailWithError(const location::LocationError& error) override;

    // Geodesy (pure; any thread) -------------------------------------------------------------
    /// "47P, 662367, 1521281" (band letter) or "47N, ..." (hemisphere) when !withZone.
    std::string UTMFrom(map::Coordinate coordinate, bool withZone) const;
    /// Throws std::invalid_argument for a text without three comma-separated parts.
    map::Coordinate coordinateFromUTM(const std::string& text) const;
    /// Square metres; throws std::invalid_argument for a shape with no points.
    double areaOfPolygon(const map::MultiPoint& polygon) const;

    // Search, suggest and routing -------------------------------------------------------------
    //
    // Each call returns at once after starting its request, with a task through which the host
    // may cancel it (SMServiceTask); dropping the task cancels nothing. Delegate-style results
    // (searchData, suggestData) reach the search delegate on the main queue; result blocks run
    // on the URL session's queue, so a block that touches the view must hop to the main queue
    // itself. A failure is logged and, for a result block, delivered as an error; a cancelled
    // call delivers and logs nothing.

    /// Searches around coordinate: the five-argument form with "20000km", 0 and 20.
    std::shared_ptr<SMServiceTask> searchWithKeyword(const std::string& keyword,
                                                     map::Coordinate coordinate);
    /// Span, offset and limit are accepted and not sent. Result: searchData on the delegate.
    std::shared_ptr<SMServiceTask> searchWithKeyword(const std::string& keyword,
                                                     map::Coordinate coordinate,
                                                     const std::string& span, std::int64_t offset,
                                                     std::int64_t limit);
    /// Result: suggestData on the delegate.
    std::shared_ptr<SMServiceTask> suggestWithKeyword(const std::string& keyword);
    /// options may be null: then only keyword, locale and key are sent.
    std::shared_ptr<SMServiceTask> searchKeyword(const std::string& keyword,
                                                 const std::shared_ptr<SMSearchOptions>& options,
                                                 SMSearchResult result);
    std::shared_ptr<SMServiceTask> suggestKeyword(const std::string& keyword,
                                                  const std::shared_ptr<SMSuggestOptions>& options,
                                                  SMSuggestResult result);

    /// The guide request, then the path request for its route; cancelling the task ends both.
    std::shared_ptr<SMServiceTask> routeFrom(map::Coordinate from, map::Coordinate to,
                                             const std::shared_ptr<SMRouteOptions>& options,
                                             SMRouteResultBlock result);
    std::shared_ptr<SMServiceTask> pathFrom(std::int64_t routeId, SMPathResult result);

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
    /// The kit's drawing inside the view the map has now for its user-location annotation.
    std::shared_ptr<SMUserAnnotation> userDrawing() const;

    /// Whether the annotation's view is deselected as soon as it is selected.
    static bool staysUnselected(const map::Annotation& annotation);

    mutable std::mutex delegateMutex_;
    std::weak_ptr<SMSearchDelegate> searchDelegate_;  // guarded by delegateMutex_
    std::weak_ptr<SMTileDataDelegate> dataDelegate_;  // guarded by delegateMutex_
    std::int64_t language_ = 0;
    std::optional<net::URL> boxDomain_;
    std::shared_ptr<ui::ImageView> crosshair_;
    double storedZoom_ = 0.0;  // never written by the kit; setZoomLevel reads it
    bool showsEvents_ = false;
    bool showsCameras_ = false;
    std::int64_t userAnnotationType_ = 0;
    std::shared_ptr<gfx::Image> userLocationImage_;
    std::shared_ptr<gfx::Image> userLocationArrow_;
};

}  // namespace sorvan
