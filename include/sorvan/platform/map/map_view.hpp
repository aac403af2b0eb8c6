// The map engine's view: a headless, toolkit-free map with a viewport, overlays and their
// renderers, annotations and their views, a user location and subviews drawn on top. A front
// end (CLI renderer, interactive viewer) shows its frames and feeds it input.
//
// Main queue only, except where a method says otherwise. The delegate is held weakly and is
// called on the main queue. Tile overlays are loaded on the engine's tile threads and drawn on
// its draw threads.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/annotation.hpp"
#include "sorvan/platform/map/annotation_view.hpp"
#include "sorvan/platform/map/geometry.hpp"
#include "sorvan/platform/map/location_source.hpp"
#include "sorvan/platform/map/overlay.hpp"
#include "sorvan/platform/map/overlay_renderer.hpp"
#include "sorvan/platform/ui/view.hpp"

namespace sorvan::map {

class MapView;

class SORVAN_EXPORT MapViewDelegate {
  public:
    virtual ~MapViewDelegate() = default;
    /// Asked once, the first time the annotation is on screen; the view is kept.
    virtual std::shared_ptr<AnnotationView> viewForAnnotation(
        MapView& mapView, const std::shared_ptr<Annotation>& annotation);
    /// Asked synchronously when an overlay is added; the renderer is kept.
    virtual std::shared_ptr<OverlayRenderer> rendererForOverlay(
        MapView& mapView, const std::shared_ptr<Overlay>& overlay);
    /// Once as each viewport change starts (for an animated one, before its first frame).
    virtual void regionWillChangeAnimated(MapView& mapView, bool animated);
    /// Once per completed viewport change: a jump at once, an animation when it arrives or is
    /// interrupted (by a new change or a gesture), wherever it stands then.
    virtual void regionDidChangeAnimated(MapView& mapView, bool animated);
    virtual void didSelectAnnotationView(MapView& mapView,
                                         const std::shared_ptr<AnnotationView>& view);
    virtual void didDeselectAnnotationView(MapView& mapView,
                                           const std::shared_ptr<AnnotationView>& view);
    /// A tap on the callout bubble of the selected view (the whole bubble is its control).
    virtual void calloutTapped(MapView& mapView, const std::shared_ptr<AnnotationView>& view);
};

enum class MapType { Standard = 0, Satellite = 1, Hybrid = 2, MutedStandard = 5 };

/// Which of the base map's own points of interest are drawn (the engine draws none; kept as
/// a property for hosts).
struct SORVAN_EXPORT PointOfInterestFilter {
    bool includesAll = true;
    std::vector<std::string> categories;  // included categories when !includesAll
    static PointOfInterestFilter excludingAll() { return {false, {}}; }
};

class SORVAN_EXPORT MapView : public ui::View {
  public:
    explicit MapView(gfx::Rect frame = {0, 0, 320, 480});
    ~MapView() override;

    void setDelegate(std::weak_ptr<MapViewDelegate> delegate);
    std::shared_ptr<MapViewDelegate> delegate() const;

    // Viewport ---------------------------------------------------------------------------
    // A change with animated = true moves there over about a quarter of a second, stepped by
    // a timer on the main run loop (each step asks for a frame through the needs-display
    // callback); without, it is applied at once. Any later change or gesture ends a running
    // animation where it stands. render() does not wait for an animation: it jumps to its end.
    double screenScale() const;
    void setScreenScale(double scale);  // 1, 2 or 3; default 2
    Coordinate centerCoordinate() const;
    void setCenterCoordinate(Coordinate c, bool animated = false);
    CoordinateRegion region() const;
    void setRegion(const CoordinateRegion& region, bool animated = false);
    /// The region adjusted to the view's aspect ratio (never smaller than asked).
    CoordinateRegion regionThatFits(const CoordinateRegion& region) const;
    /// The map rect the (unrotated) viewport shows; its width / bounds width = zoom scale.
    MapRect visibleMapRect() const;
    void setVisibleMapRect(const MapRect& rect, bool animated = false);
    /// Camera heading in degrees clockwise from north (the map rotates by -heading), in
    /// [0, 360).
    double cameraHeading() const;
    void setCameraHeading(double degrees, bool animated = false);
    gfx::Point convertCoordinateToPoint(Coordinate c, const ui::View* toView) const;
    Coordinate convertPointToCoordinate(gfx::Point p, const ui::View* fromView) const;
    void setFrame(gfx::Rect frame) override;

    // Input from front ends; each completed change posts one regionDidChangeAnimated.
    /// Drags the map content by a distance in points (as a finger would).
    void panBy(double dxPoints, double dyPoints);
    /// Kinetic panning after a drag is let go with a velocity in points per second: the map
    /// keeps moving that way and slows down to a stop (about a second and a half from a
    /// brisk flick). Slower than 15 points per second does nothing.
    void fling(double vxPointsPerSecond, double vyPointsPerSecond);
    /// Zooms in by factor (> 1) or out (< 1), keeping the map under aboutPoint in place (all
    /// the way through when animated).
    void zoomBy(double factor, gfx::Point aboutPoint, bool animated = false);
    /// Ends a running animation or fling where it stands (a finger touching the map).
    void stopCameraAnimation();
    /// True while an animated change or a fling is running.
    bool isAnimatingCamera() const;
    /// Adds degrees to the camera heading.
    void rotateBy(double degrees);
    /// A tap: a button among the subviews gets TouchUpInside; otherwise a tap on the selected
    /// view's callout bubble goes to the delegate's calloutTapped; otherwise the topmost
    /// annotation view under the point is selected; a tap on bare map deselects.
    void tapAt(gfx::Point point);

    // Overlays ---------------------------------------------------------------------------
    /// Bottom first.
    std::vector<std::shared_ptr<Overlay>> overlays() const;
    virtual void addOverlay(const std::shared_ptr<Overlay>& overlay);
    void insertOverlayAbove(const std::shared_ptr<Overlay>& overlay,
                            const std::shared_ptr<Overlay>& sibling);
    void insertOverlayAtIndex(const std::shared_ptr<Overlay>& overlay, std::size_t index);
    virtual void removeOverlay(const std::shared_ptr<Overlay>& overlay);
    virtual void removeOverlays(const std::vector<std::shared_ptr<Overlay>>& overlays);
    /// The renderer kept for an overlay on the map; nullptr otherwise.
    std::shared_ptr<OverlayRenderer> rendererForOverlay(const std::shared_ptr<Overlay>& o) const;

    // Annotations ------------------------------------------------------------------------
    std::vector<std::shared_ptr<Annotation>> annotations() const;
    void addAnnotation(const std::shared_ptr<Annotation>& annotation);
    void addAnnotations(const std::vector<std::shared_ptr<Annotation>>& annotations);
    void removeAnnotation(const std::shared_ptr<Annotation>& annotation);
    void removeAnnotations(const std::vector<std::shared_ptr<Annotation>>& annotations);
    /// The view kept for an annotation; nullptr when none was made yet or it is off the map.
    std::shared_ptr<AnnotationView> viewForAnnotation(
        const std::shared_ptr<Annotation>& annotation) const;
    std::vector<std::shared_ptr<Annotation>> selectedAnnotations() const;
    /// Selects an annotation on the map (deselecting any other). When its view shows a callout
    /// that would be cut off by the map's edge, the map moves (animated or not) until the
    /// bubble and the view show whole, or the bubble's top-left when it is larger than the map;
    /// the move announces itself as any region change does.
    void selectAnnotation(const std::shared_ptr<Annotation>& annotation, bool animated);
    void deselectAnnotation(const std::shared_ptr<Annotation>& annotation, bool animated);

    // User location ----------------------------------------------------------------------
    bool showsUserLocation() const;
    void setShowsUserLocation(bool shows);
    std::shared_ptr<UserLocation> userLocation() const;
    void setLocationSource(std::shared_ptr<LocationSource> source);

    // Appearance -------------------------------------------------------------------------
    MapType mapType() const;
    void setMapType(MapType type);
    PointOfInterestFilter pointOfInterestFilter() const;
    void setPointOfInterestFilter(PointOfInterestFilter filter);

    // Frames -----------------------------------------------------------------------------
    /// The current view as an image at the screen scale. Headless: waits (pumping the main
    /// queue) until visible tiles are loaded and drawn, or the timeout passes.
    std::shared_ptr<gfx::Image> render(
        std::chrono::duration<double> timeout = std::chrono::seconds(30));
    /// Called (on the main queue) when new tiles or view changes need a new frame.
    void setNeedsDisplayCallback(std::function<void()> callback);
    void setNeedsDisplay() override;
    /// Number of tile threads (default 4); set before the first overlay is added.
    void setTileThreadCount(int count);
    /// Size of the memory cache of loaded tiles (default 64 MB).
    void setTileCacheLimit(std::size_t bytes);
    std::size_t tileCacheBytes() const;
    /// Draws the current frame as it stands (tiles not yet drawn are left out or shown from a
    /// coarser level) into a context whose user space is this view's points; starts loading
    /// and drawing what is missing. For interactive front ends with their own surface.
    void drawFrame(cairo_t* context);
    /// For a front end that keeps the map's picture between frames: draws into context what
    /// changed since the last call, and returns the rectangles it redrew, in points on whole
    /// device pixels (none when nothing changed). The context's target must hold the
    /// picture the last call left, and its user space be this view's points. A tile that
    /// arrived or a view that moved redraws its own box; the first call, a call with
    /// redrawAll, and any after a move of the camera, a new size, a change of layers or a
    /// setNeedsDisplay redraw the whole view.
    std::vector<gfx::Rect> drawChanges(cairo_t* context, bool redrawAll = false);
    /// Visible tiles the last frame drew without (still loading or drawing); 0 before the
    /// first frame. A front end that saves what it shows waits for 0.
    std::size_t pendingTiles() const;

    void layoutSubviews() override;
    /// The map, its overlays and annotation views (subviews are drawn above by the caller).
    void draw(cairo_t* context, gfx::Rect bounds) override;

  protected:
    /// The base-class behaviour without the virtual dispatch, for subclasses that override.
    void baseAddOverlay(const std::shared_ptr<Overlay>& overlay);
    void baseRemoveOverlays(const std::vector<std::shared_ptr<Overlay>>& overlays);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sorvan::map
