#include "sorvan/platform/map/map_view.hpp"

#include <cairo.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <numbers>
#include <optional>

#include "graphics/cairo_handles.hpp"
#include "map/annotation_layer.hpp"
#include "map/drawn_tile_cache.hpp"
#include "map/frame_compositor.hpp"
#include "map/frame_damage.hpp"
#include "map/tile_scheduler.hpp"
#include "map/viewport.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/ui/controls.hpp"

namespace sorvan::map {

// Delegate defaults: a delegate overrides only what it needs.
std::shared_ptr<AnnotationView> MapViewDelegate::viewForAnnotation(
    MapView&, const std::shared_ptr<Annotation>&) {
    return nullptr;
}
std::shared_ptr<OverlayRenderer> MapViewDelegate::rendererForOverlay(
    MapView&, const std::shared_ptr<Overlay>&) {
    return nullptr;
}
void MapViewDelegate::regionWillChangeAnimated(MapView&, bool) {}
void MapViewDelegate::regionDidChangeAnimated(MapView&, bool) {}
void MapViewDelegate::didSelectAnnotationView(MapView&, const std::shared_ptr<AnnotationView>&) {}
void MapViewDelegate::didDeselectAnnotationView(MapView&, const std::shared_ptr<AnnotationView>&) {}
void MapViewDelegate::calloutTapped(MapView&, const std::shared_ptr<AnnotationView>&) {}

namespace {

// Animated changes: short enough not to hold the user up, long enough to follow with the eye.
constexpr double kAnimationSeconds = 0.28;
constexpr double kFrameSeconds = 1.0 / 60;
// A fling's speed falls by a factor of e every kFlingTimeConstant seconds; the map stops once
// it is slower than kFlingStopSpeed. Faster than kFlingMaxSpeed is taken as that speed.
constexpr double kFlingTimeConstant = 0.325;
constexpr double kFlingStopSpeed = 15;   // points per second
constexpr double kFlingMaxSpeed = 8000;  // points per second

double easeOut(double t) {
    double u = 1 - t;
    return 1 - u * u * u;
}

// A camera a fraction e of the way from a to b: the centre the shorter way around the
// antimeridian, the zoom evenly in scale (each step zooms by the same factor), the heading the
// shorter way round.
detail::Camera between(const detail::Camera& a, const detail::Camera& b, double e) {
    detail::Camera c = a;
    double dx = b.center.x - a.center.x;
    if (dx > kMapWorldSize / 2 || dx < -kMapWorldSize / 2)
        dx -= std::round(dx / kMapWorldSize) * kMapWorldSize;
    c.center.x = a.center.x + dx * e;
    c.center.y = a.center.y + (b.center.y - a.center.y) * e;
    c.zoom = a.zoom * std::pow(b.zoom / a.zoom, e);
    c.heading = a.heading + std::remainder(b.heading - a.heading, 360.0) * e;
    return c;
}

// A callout bubble that opens near an edge moves the map until it shows whole, this far inside
// the bounds.
constexpr double kCalloutEdgeMargin = 8;

// How far to move the span [lo, hi) so that it lies within [min, max): not at all when it does,
// as little as it takes when it does not, and onto its start when it is longer.
double shiftInto(double lo, double hi, double min, double max) {
    if (hi - lo > max - min || lo < min)
        return min - lo;
    if (hi > max)
        return max - hi;
    return 0;
}

// The move (in the map view's points) that shows a callout whole: the bubble and its view when
// both fit, else the bubble alone (its top-left when it is larger than the bounds).
gfx::Point calloutShift(const detail::AnnotationLayer::CalloutPlacement& at, double width,
                        double height) {
    auto axis = [](double bubbleLo, double bubbleHi, double viewLo, double viewHi, double extent) {
        double min = kCalloutEdgeMargin, max = extent - kCalloutEdgeMargin;
        double lo = std::min(bubbleLo, viewLo), hi = std::max(bubbleHi, viewHi);
        return hi - lo <= max - min ? shiftInto(lo, hi, min, max)
                                    : shiftInto(bubbleLo, bubbleHi, min, max);
    };
    return {axis(at.bubble.minX(), at.bubble.maxX(), at.view.minX(), at.view.maxX(), width),
            axis(at.bubble.minY(), at.bubble.maxY(), at.view.minY(), at.view.maxY(), height)};
}

// The ground under the tiles.
gfx::Color groundColor(MapType type, bool replacedByTiles) {
    if (replacedByTiles)
        return {1.0, 1.0, 1.0, 1};
    if (type == MapType::MutedStandard)
        return {0.96, 0.953, 0.933, 1};
    return {0.914, 0.898, 0.863, 1};
}

}  // namespace

// Lifetime token for tasks posted to the main queue: they hold it weakly and do nothing once
// the map view is gone. Created and destroyed on the main queue.
struct Life {
    MapView* view;
    std::uint64_t progress = 0;
};

// The map view holds its parts together: the viewport (where the camera stands), the overlay
// list, the tile scheduler with its drawn-tile cache, and the annotation layer. Each part knows
// nothing of the others; the view feeds one's output to the next, announces region changes and
// asks its delegate on their behalf.
struct MapView::Impl final : detail::AnnotationLayer::Host {
    explicit Impl(MapView& v)
        : view(v),
          life(std::make_shared<Life>(Life{&v})),
          viewport(v.bounds().size),
          annotations(*this, std::make_shared<UserLocation>()),
          scheduler(drawn, [this] { noteProgress(); }) {}

    MapView& view;
    std::weak_ptr<MapViewDelegate> delegate;
    std::shared_ptr<Life> life;

    detail::Viewport viewport;
    std::vector<detail::LayerSource> overlays;
    detail::AnnotationLayer annotations;
    // Declared before the scheduler, whose threads hand their draws back to it.
    detail::DrawnTileCache drawn;
    detail::TileScheduler scheduler;

    std::shared_ptr<LocationSource> source;
    bool sourceRunning = false;

    MapType mapType = MapType::Standard;
    PointOfInterestFilter poiFilter;

    std::function<void()> needsDisplayCallback;
    bool displayPosted = false;
    detail::FrameDamage damage;  // what drawChanges drew last
    int renderDepth = 0;
    std::size_t lastPending = 0;  // the last frame's FramePlan::pending

    // An animated change on its way: the camera at each fraction of its time, and where it
    // ends. Stepped by a timer on the main run loop, on the run loop's clock.
    struct Motion {
        std::function<detail::Camera(double)> at;
        detail::Camera target;
        std::chrono::steady_clock::time_point start;
        double seconds = 0;
        std::shared_ptr<dispatch::Timer> timer;
    };
    std::optional<Motion> motion;

    // The one place a viewport change is applied and announced: every change posts one
    // regionWillChangeAnimated and, once complete, one regionDidChangeAnimated. A new change
    // ends a running animation where it stands; that animation is complete then.
    void moveTo(const detail::Camera& camera, bool animated) {
        if (animated) {
            detail::Camera target = viewport.normalized(camera);
            // Asking again for where the map is already going is no new change: the running
            // animation goes on. (A delegate that answers each completed change with an
            // animated one to the same place would otherwise restart it for ever.)
            if (motion && sameView(target, motion->target))
                return;
            stopMotion();
            detail::Camera from = viewport.camera();
            if (target == from)
                return;
            animate([from, target](double t) { return between(from, target, easeOut(t)); }, target,
                    kAnimationSeconds);
            return;
        }
        stopMotion();
        if (!viewport.moveTo(camera))
            return;
        postRegionChange(true, false);
        postRegionChange(false, false);
        view.setNeedsDisplay();
    }

    // Whether two cameras show the same picture, to a thousandth of a point.
    bool sameView(const detail::Camera& a, const detail::Camera& b) const {
        constexpr double kPoint = 1e-3;
        double reach = std::max(viewport.width(), viewport.height());
        double dx = std::remainder(a.center.x - b.center.x, kMapWorldSize) * a.zoom;
        double dy = (a.center.y - b.center.y) * a.zoom;
        double turn =
            std::abs(std::remainder(a.heading - b.heading, 360.0)) * std::numbers::pi / 180;
        return std::hypot(dx, dy) < kPoint && std::abs(a.zoom / b.zoom - 1) * reach < kPoint &&
               turn * reach < kPoint;
    }

    void animate(std::function<detail::Camera(double)> at, const detail::Camera& target,
                 double seconds) {
        stopMotion();
        postRegionChange(true, true);
        auto& loop = dispatch::RunLoop::main();
        std::weak_ptr<Life> weak = life;
        auto timer = dispatch::Timer::scheduled(dispatch::Duration(kFrameSeconds), true,
                                                [weak](dispatch::Timer& t) {
                                                    auto l = weak.lock();
                                                    if (!l) {
                                                        t.invalidate();
                                                        return;
                                                    }
                                                    l->view->impl_->stepMotion();
                                                });
        motion = Motion{std::move(at), target, loop.now(), seconds, std::move(timer)};
    }

    void stepMotion() {
        if (!motion)
            return;
        std::chrono::duration<double> elapsed = dispatch::RunLoop::main().now() - motion->start;
        double t = elapsed.count() / motion->seconds;
        if (!(t < 1)) {
            finishMotion();
            return;
        }
        if (viewport.moveTo(motion->at(std::max(t, 0.0))))
            view.setNeedsDisplay();
    }

    // Jumps to where the running animation ends, completing it.
    void finishMotion() {
        if (!motion)
            return;
        viewport.moveTo(motion->target);
        stopMotion();
        view.setNeedsDisplay();
    }

    // Ends the running animation where it stands, completing it.
    void stopMotion() {
        if (!motion)
            return;
        auto timer = std::move(motion->timer);
        motion.reset();
        timer->invalidate();
        postRegionChange(false, true);
    }

    void postRegionChange(bool will, bool animated) {
        std::weak_ptr<Life> weak = life;
        dispatch::RunLoop::main().async([weak, will, animated] {
            auto l = weak.lock();
            if (!l)
                return;
            if (auto d = l->view->impl_->delegate.lock()) {
                if (will)
                    d->regionWillChangeAnimated(*l->view, animated);
                else
                    d->regionDidChangeAnimated(*l->view, animated);
            }
        });
    }

    // Moves the map so that the selected view's callout shows whole, judged where the map is
    // going when it is on its way (and then as a change of where it goes). The move is a
    // change like any other: one will and, once complete, one did.
    void revealCallout(bool animated) {
        detail::Viewport at = viewport;
        if (motion)
            at.moveTo(motion->target);
        auto placement = annotations.calloutPlacement(at);
        if (!placement)
            return;
        gfx::Point shift = calloutShift(*placement, at.width(), at.height());
        if (shift.x == 0 && shift.y == 0)
            return;
        moveTo(at.panned(shift.x, shift.y), animated);
    }

    // AnnotationLayer::Host
    std::shared_ptr<AnnotationView> askViewForAnnotation(
        const std::shared_ptr<Annotation>& annotation) override {
        if (auto d = delegate.lock())
            return d->viewForAnnotation(view, annotation);
        return nullptr;
    }
    void didSelectAnnotationView(const std::shared_ptr<AnnotationView>& v) override {
        if (auto d = delegate.lock())
            d->didSelectAnnotationView(view, v);
    }
    void didDeselectAnnotationView(const std::shared_ptr<AnnotationView>& v) override {
        if (auto d = delegate.lock())
            d->didDeselectAnnotationView(view, v);
    }
    // The frames' comparison finds which views changed.
    void annotationsNeedDisplay() override { requestFrame(); }
    void calloutTapped(const std::shared_ptr<AnnotationView>& v) override {
        if (auto d = delegate.lock())
            d->calloutTapped(view, v);
    }

    // Overlays ---------------------------------------------------------------------------
    std::ptrdiff_t indexOf(const Overlay* o) const {
        for (std::size_t i = 0; i < overlays.size(); ++i)
            if (overlays[i].overlay.get() == o)
                return static_cast<std::ptrdiff_t>(i);
        return -1;
    }

    void insert(const std::shared_ptr<Overlay>& overlay, std::size_t index) {
        if (!overlay || indexOf(overlay.get()) >= 0)
            return;
        index = std::min(index, overlays.size());
        overlays.insert(overlays.begin() + static_cast<std::ptrdiff_t>(index),
                        {overlay, nullptr, std::make_shared<std::atomic<bool>>(true)});
        // The delegate may change the overlay list while it is asked; look the entry up again.
        std::shared_ptr<OverlayRenderer> renderer;
        if (auto d = delegate.lock())
            renderer = d->rendererForOverlay(view, overlay);
        auto i = indexOf(overlay.get());
        if (i < 0)
            return;
        overlays[static_cast<std::size_t>(i)].renderer = renderer;
        if (renderer) {
            auto self = std::static_pointer_cast<MapView>(view.weak_from_this().lock());
            renderer->attach(self);
            if (auto tile = std::dynamic_pointer_cast<TileOverlayRenderer>(renderer))
                tile->attachTileStore(scheduler.store());
        }
        view.setNeedsDisplay();
    }

    void remove(const Overlay* overlay) {
        auto i = indexOf(overlay);
        if (i < 0)
            return;
        detail::LayerSource entry = overlays[static_cast<std::size_t>(i)];
        overlays.erase(overlays.begin() + i);
        entry.live->store(false);
        scheduler.forget(entry);
        if (entry.renderer) {
            // Another map may show the same renderer; only detach it from this one.
            auto mine = view.weak_from_this().lock();
            if (entry.renderer->mapView() == mine || !entry.renderer->mapView())
                entry.renderer->attach({});
        }
        view.setNeedsDisplay();
    }

    // Frames -----------------------------------------------------------------------------
    void noteProgress() {
        ++life->progress;
        requestFrame();
    }

    // Asks the host for a frame, once until it comes; what changed is found by comparing
    // frames (setNeedsDisplay also says that something they do not describe changed).
    void requestFrame() {
        // Placing annotation views while composing a frame is not news for the front end.
        if (renderDepth > 0 || displayPosted)
            return;
        displayPosted = true;
        std::weak_ptr<Life> weak = life;
        dispatch::RunLoop::main().async([weak] {
            auto l = weak.lock();
            if (!l)
                return;
            MapView& map = *l->view;
            map.impl_->displayPosted = false;
            map.layoutIfNeeded();
            map.impl_->annotations.makeViewsNearScreen(map.impl_->viewport);
            if (auto callback = map.impl_->needsDisplayCallback)
                callback();
        });
    }

    detail::FrameState frameState(const detail::FramePlan& fp) {
        detail::FrameState state;
        state.camera = viewport.camera();
        state.size = viewport.size();
        state.scale = viewport.scale();
        state.ground = groundColor(mapType, fp.replacesContent);
        for (const auto& layer : fp.layers)
            state.layers.emplace_back(layer.renderer.get(), layer.z);
        detail::shownTiles(viewport, fp, drawn, state.tiles);
        annotations.place(viewport);
        annotations.footprints(state.views);
        state.viewContent = annotations.contentVersion();
        state.viewsAnimating = annotations.isAnimating();
        return state;
    }

    void drawSubviews(cairo_t* context) {
        std::vector<std::shared_ptr<ui::View>> subs = view.subviews();
        std::stable_sort(subs.begin(), subs.end(),
                         [](auto& a, auto& b) { return a->zPosition() < b->zPosition(); });
        for (auto& s : subs)
            s->drawHierarchy(context);
    }

    const detail::FramePlan& plan() { return scheduler.plan(viewport, overlays); }

    void compose(cairo_t* cr, const detail::FramePlan& fp) {
        cairo_save(cr);
        cairo_rectangle(cr, 0, 0, viewport.width(), viewport.height());
        cairo_clip(cr);
        detail::composeTiles(cr, viewport, fp, drawn, groundColor(mapType, fp.replacesContent));
        annotations.place(viewport);
        annotations.draw(cr);
        cairo_restore(cr);
    }

    // User location ------------------------------------------------------------------------
    void startSource() {
        if (!source || sourceRunning || !annotations.showsUserLocation())
            return;
        sourceRunning = true;
        std::weak_ptr<Life> weak = life;
        LocationSource::Listener listener;
        listener.didUpdateLocation = [weak](const LocationFix& fix) {
            auto l = weak.lock();
            if (!l)
                return;
            auto& impl = *l->view->impl_;
            if (fix.horizontalAccuracy < 0)
                return;
            auto& user = impl.annotations.userLocation();
            user->update(fix.coordinate, user->heading());
            impl.requestFrame();
        };
        listener.didUpdateHeading = [weak](const HeadingFix& h) {
            auto l = weak.lock();
            if (!l)
                return;
            auto& impl = *l->view->impl_;
            auto& user = impl.annotations.userLocation();
            if (!user->isUpdating())
                return;
            std::optional<double> degrees;
            if (h.headingAccuracy > 0)
                degrees = h.trueHeading >= 0 ? h.trueHeading : h.magneticHeading;
            user->update(user->coordinate(), degrees);
            impl.requestFrame();
        };
        listener.didFail = [](const std::string&) {};
        source->start(std::move(listener));
    }

    void stopSource() {
        if (source && sourceRunning)
            source->stop();
        sourceRunning = false;
    }
};

// MapView ----------------------------------------------------------------------------------

MapView::MapView(gfx::Rect frame) : ui::View(frame), impl_(std::make_unique<Impl>(*this)) {}

MapView::~MapView() {
    if (impl_->motion)
        impl_->motion->timer->invalidate();
    impl_->stopSource();
    impl_->life.reset();
}

void MapView::setDelegate(std::weak_ptr<MapViewDelegate> delegate) {
    impl_->delegate = std::move(delegate);
}

std::shared_ptr<MapViewDelegate> MapView::delegate() const {
    return impl_->delegate.lock();
}

double MapView::screenScale() const {
    return impl_->viewport.scale();
}

void MapView::setScreenScale(double scale) {
    if (!impl_->viewport.setScale(scale))
        return;
    impl_->drawn.clear();
    setNeedsDisplay();
}

Coordinate MapView::centerCoordinate() const {
    return coordinateForMapPoint(impl_->viewport.camera().center);
}

void MapView::setCenterCoordinate(Coordinate c, bool animated) {
    detail::Camera camera = impl_->viewport.camera();
    camera.center = mapPointForCoordinate(c);
    impl_->moveTo(camera, animated);
}

CoordinateRegion MapView::region() const {
    return impl_->viewport.region();
}

CoordinateRegion MapView::regionThatFits(const CoordinateRegion& region) const {
    return impl_->viewport.regionThatFits(region);
}

void MapView::setRegion(const CoordinateRegion& region, bool animated) {
    if (!std::isfinite(region.center.latitude) || !std::isfinite(region.center.longitude) ||
        !std::isfinite(region.span.latitudeDelta) || !std::isfinite(region.span.longitudeDelta))
        return;
    impl_->moveTo(impl_->viewport.showing(region), animated);
}

MapRect MapView::visibleMapRect() const {
    return impl_->viewport.visibleRect();
}

void MapView::setVisibleMapRect(const MapRect& rect, bool animated) {
    impl_->moveTo(impl_->viewport.showing(rect), animated);
}

double MapView::cameraHeading() const {
    return impl_->viewport.camera().heading;
}

void MapView::setCameraHeading(double degrees, bool animated) {
    if (!std::isfinite(degrees))
        return;
    detail::Camera camera = impl_->viewport.camera();
    camera.heading = degrees;
    impl_->moveTo(camera, animated);
}

gfx::Point MapView::convertCoordinateToPoint(Coordinate c, const ui::View* toView) const {
    gfx::Point p = impl_->viewport.pointFromMap(mapPointForCoordinate(c));
    return toView ? convertPoint(p, toView) : p;
}

Coordinate MapView::convertPointToCoordinate(gfx::Point p, const ui::View* fromView) const {
    if (fromView && fromView != this)
        p = fromView->convertPoint(p, this);
    MapPoint m = impl_->viewport.mapFromPoint(p);
    m.x = std::fmod(m.x, kMapWorldSize);
    if (m.x < 0)
        m.x += kMapWorldSize;
    return coordinateForMapPoint(m);
}

void MapView::setFrame(gfx::Rect frame) {
    ui::View::setFrame(frame);
    // A new size shows another region even when the camera stays where it is.
    if (impl_->viewport.setSize(frame.size)) {
        impl_->postRegionChange(true, false);
        impl_->postRegionChange(false, false);
    }
}

void MapView::panBy(double dx, double dy) {
    impl_->moveTo(impl_->viewport.panned(dx, dy), false);
}

void MapView::fling(double vx, double vy) {
    impl_->stopMotion();
    double speed = std::hypot(vx, vy);
    if (!std::isfinite(speed) || !(speed > kFlingStopSpeed))
        return;
    if (speed > kFlingMaxSpeed) {
        vx *= kFlingMaxSpeed / speed;
        vy *= kFlingMaxSpeed / speed;
        speed = kFlingMaxSpeed;
    }
    // The speed falls as exp(-t / tau): it reaches the stop speed after tau * ln(v / stop),
    // having carried the map tau * v * (1 - exp(-t / tau)) by time t.
    const double tau = kFlingTimeConstant;
    const double seconds = tau * std::log(speed / kFlingStopSpeed);
    const detail::Viewport from = impl_->viewport;
    auto at = [from, vx, vy, tau, seconds](double f) {
        double k = tau * (1 - std::exp(-f * seconds / tau));
        return from.panned(vx * k, vy * k);
    };
    detail::Camera target = from.normalized(at(1.0));
    if (target == from.camera())
        return;
    impl_->animate(std::move(at), target, seconds);
}

void MapView::stopCameraAnimation() {
    impl_->stopMotion();
}

bool MapView::isAnimatingCamera() const {
    return impl_->motion.has_value();
}

void MapView::zoomBy(double factor, gfx::Point about, bool animated) {
    if (!(factor > 0) || !std::isfinite(factor))
        return;
    if (!animated) {
        impl_->moveTo(impl_->viewport.zoomed(factor, about), false);
        return;
    }
    // Zoomed by a growing part of the factor, so that the map under the point stays there
    // all the way, not only at the end.
    const detail::Viewport from = impl_->viewport;
    detail::Camera target = from.normalized(from.zoomed(factor, about));
    if (target == from.camera())
        return;
    impl_->animate([from, factor,
                    about](double t) { return from.zoomed(std::pow(factor, easeOut(t)), about); },
                   target, kAnimationSeconds);
}

void MapView::rotateBy(double degrees) {
    if (!std::isfinite(degrees))
        return;
    impl_->moveTo(impl_->viewport.rotated(degrees), false);
}

void MapView::tapAt(gfx::Point point) {
    // A finger on the map stops it.
    impl_->stopMotion();
    // Furniture above the map takes the tap first; only buttons act on it.
    std::vector<std::shared_ptr<ui::View>> subs = subviews();
    std::stable_sort(subs.begin(), subs.end(),
                     [](auto& a, auto& b) { return a->zPosition() < b->zPosition(); });
    for (auto it = subs.rbegin(); it != subs.rend(); ++it) {
        auto hit = (*it)->hitTest(convertPoint(point, it->get()));
        for (auto v = hit; v; v = v->superview()) {
            if (v.get() == this)
                break;
            if (auto button = std::dynamic_pointer_cast<ui::Button>(v)) {
                button->sendActions(ui::ControlEvent::TouchUpInside);
                return;
            }
        }
    }
    auto& layer = impl_->annotations;
    layer.makeViewsNearScreen(impl_->viewport);
    layer.place(impl_->viewport);
    if (auto bubble = layer.calloutHitTest(point)) {
        impl_->calloutTapped(bubble);
        return;
    }
    if (auto hit = layer.hitTest(point)) {
        if (auto a = hit->annotation()) {
            selectAnnotation(a, true);
            return;
        }
    }
    if (auto s = layer.selected())
        deselectAnnotation(s, true);
}

// Overlays ---------------------------------------------------------------------------------

std::vector<std::shared_ptr<Overlay>> MapView::overlays() const {
    std::vector<std::shared_ptr<Overlay>> out;
    out.reserve(impl_->overlays.size());
    for (auto& e : impl_->overlays)
        out.push_back(e.overlay);
    return out;
}

void MapView::addOverlay(const std::shared_ptr<Overlay>& overlay) {
    baseAddOverlay(overlay);
}

void MapView::baseAddOverlay(const std::shared_ptr<Overlay>& overlay) {
    impl_->insert(overlay, impl_->overlays.size());
}

void MapView::insertOverlayAbove(const std::shared_ptr<Overlay>& overlay,
                                 const std::shared_ptr<Overlay>& sibling) {
    auto i = impl_->indexOf(sibling.get());
    impl_->insert(overlay, i < 0 ? impl_->overlays.size() : static_cast<std::size_t>(i) + 1);
}

void MapView::insertOverlayAtIndex(const std::shared_ptr<Overlay>& overlay, std::size_t index) {
    impl_->insert(overlay, index);
}

void MapView::removeOverlay(const std::shared_ptr<Overlay>& overlay) {
    baseRemoveOverlays({overlay});
}

void MapView::removeOverlays(const std::vector<std::shared_ptr<Overlay>>& overlays) {
    baseRemoveOverlays(overlays);
}

void MapView::baseRemoveOverlays(const std::vector<std::shared_ptr<Overlay>>& overlays) {
    for (auto& o : overlays)
        if (o)
            impl_->remove(o.get());
}

std::shared_ptr<OverlayRenderer> MapView::rendererForOverlay(
    const std::shared_ptr<Overlay>& o) const {
    auto i = impl_->indexOf(o.get());
    return i < 0 ? nullptr : impl_->overlays[static_cast<std::size_t>(i)].renderer;
}

// Annotations ------------------------------------------------------------------------------

std::vector<std::shared_ptr<Annotation>> MapView::annotations() const {
    return impl_->annotations.annotations();
}

void MapView::addAnnotation(const std::shared_ptr<Annotation>& annotation) {
    impl_->annotations.add(annotation);
}

void MapView::addAnnotations(const std::vector<std::shared_ptr<Annotation>>& annotations) {
    for (auto& a : annotations)
        impl_->annotations.add(a);
}

void MapView::removeAnnotation(const std::shared_ptr<Annotation>& annotation) {
    impl_->annotations.remove(annotation);
}

void MapView::removeAnnotations(const std::vector<std::shared_ptr<Annotation>>& annotations) {
    for (auto& a : annotations)
        impl_->annotations.remove(a);
}

std::shared_ptr<AnnotationView> MapView::viewForAnnotation(
    const std::shared_ptr<Annotation>& annotation) const {
    return impl_->annotations.viewFor(annotation.get());
}

std::vector<std::shared_ptr<Annotation>> MapView::selectedAnnotations() const {
    if (auto s = impl_->annotations.selected())
        return {s};
    return {};
}

void MapView::selectAnnotation(const std::shared_ptr<Annotation>& annotation, bool animated) {
    auto& layer = impl_->annotations;
    if (annotation && layer.selected() == annotation)
        return;
    layer.select(annotation, impl_->viewport);
    // The delegate has heard of the selection: it may have undone it, or changed the callout.
    if (annotation && layer.selected() == annotation)
        impl_->revealCallout(animated);
}

void MapView::deselectAnnotation(const std::shared_ptr<Annotation>& annotation, bool) {
    impl_->annotations.deselect(annotation);
}

// User location ----------------------------------------------------------------------------

bool MapView::showsUserLocation() const {
    return impl_->annotations.showsUserLocation();
}

void MapView::setShowsUserLocation(bool shows) {
    if (shows == impl_->annotations.showsUserLocation())
        return;
    impl_->annotations.setShowsUserLocation(shows);
    if (shows)
        impl_->startSource();
    else
        impl_->stopSource();
}

std::shared_ptr<UserLocation> MapView::userLocation() const {
    return impl_->annotations.userLocation();
}

void MapView::setLocationSource(std::shared_ptr<LocationSource> source) {
    impl_->stopSource();
    impl_->source = std::move(source);
    impl_->startSource();
}

// Appearance -------------------------------------------------------------------------------

MapType MapView::mapType() const {
    return impl_->mapType;
}

void MapView::setMapType(MapType type) {
    impl_->mapType = type;
    setNeedsDisplay();
}

PointOfInterestFilter MapView::pointOfInterestFilter() const {
    return impl_->poiFilter;
}

void MapView::setPointOfInterestFilter(PointOfInterestFilter filter) {
    impl_->poiFilter = std::move(filter);
}

// Frames -----------------------------------------------------------------------------------

void MapView::setNeedsDisplayCallback(std::function<void()> callback) {
    impl_->needsDisplayCallback = std::move(callback);
}

void MapView::setNeedsDisplay() {
    if (impl_->renderDepth > 0)
        return;
    impl_->damage.invalidate();
    impl_->requestFrame();
}

void MapView::setTileThreadCount(int count) {
    impl_->scheduler.setLoadThreadCount(count);
}

void MapView::setTileCacheLimit(std::size_t bytes) {
    impl_->scheduler.store()->setLimit(bytes);
}

std::size_t MapView::tileCacheBytes() const {
    return impl_->scheduler.store()->bytes();
}

void MapView::layoutSubviews() {
    ui::View::layoutSubviews();
}

void MapView::draw(cairo_t* context, gfx::Rect) {
    ++impl_->renderDepth;
    const detail::FramePlan& fp = impl_->plan();
    impl_->lastPending = fp.pending;
    impl_->compose(context, fp);
    impl_->drawn.trim();
    --impl_->renderDepth;
}

std::size_t MapView::pendingTiles() const {
    return impl_->lastPending;
}

void MapView::drawFrame(cairo_t* context) {
    layoutIfNeeded();
    impl_->annotations.makeViewsNearScreen(impl_->viewport);
    draw(context, bounds());
    ++impl_->renderDepth;
    impl_->drawSubviews(context);
    --impl_->renderDepth;
}

std::vector<gfx::Rect> MapView::drawChanges(cairo_t* context, bool redrawAll) {
    layoutIfNeeded();
    impl_->annotations.makeViewsNearScreen(impl_->viewport);
    ++impl_->renderDepth;
    const detail::FramePlan& fp = impl_->plan();
    impl_->lastPending = fp.pending;
    if (redrawAll)
        impl_->damage.invalidate();
    std::vector<gfx::Rect> rects = impl_->damage.compare(impl_->frameState(fp));
    for (const gfx::Rect& r : rects) {
        cairo_save(context);
        cairo_rectangle(context, r.minX(), r.minY(), r.size.width, r.size.height);
        cairo_clip(context);
        impl_->compose(context, fp);
        impl_->drawSubviews(context);
        cairo_restore(context);
    }
    impl_->drawn.trim();
    --impl_->renderDepth;
    return rects;
}

std::shared_ptr<gfx::Image> MapView::render(std::chrono::duration<double> timeout) {
    using Clock = std::chrono::steady_clock;
    // A timeout beyond a century (or no number) would overflow the clock: a century it is.
    double seconds = std::isnan(timeout.count()) ? 0.0 : timeout.count();
    seconds = std::clamp(seconds, 0.0, 100.0 * 365 * 24 * 3600);
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(seconds));
    auto& loop = dispatch::RunLoop::main();
    // A render shows where the map is going, not a frame on the way.
    impl_->finishMotion();
    layoutIfNeeded();
    impl_->annotations.makeViewsNearScreen(impl_->viewport);
    for (;;) {
        ++impl_->renderDepth;
        std::size_t pending = impl_->plan().pending;
        --impl_->renderDepth;
        bool animating = isAnimating() || impl_->annotations.isAnimating();
        if (pending == 0 && !animating)
            break;
        auto now = Clock::now();
        if (now >= deadline)
            break;
        std::uint64_t before = impl_->life->progress;
        std::chrono::duration<double> wait = deadline - now;
        if (animating)
            wait = std::min(wait, std::chrono::duration<double>(1.0 / 60));
        auto life = impl_->life;
        loop.runUntil([life, before] { return life->progress != before; }, wait);
        impl_->finishMotion();  // one a delegate started meanwhile
        layoutIfNeeded();
        impl_->annotations.makeViewsNearScreen(impl_->viewport);
    }
    double scale = impl_->viewport.scale();
    int w = static_cast<int>(std::ceil(impl_->viewport.width() * scale));
    int h = static_cast<int>(std::ceil(impl_->viewport.height() * scale));
    w = std::max(w, 1);
    h = std::max(h, 1);
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h));
    {
        gfx::SurfacePtr surface(cairo_image_surface_create_for_data(
            reinterpret_cast<unsigned char*>(pixels.data()), CAIRO_FORMAT_ARGB32, w, h, w * 4));
        gfx::ContextPtr cr(cairo_create(surface.get()));
        cairo_scale(cr.get(), scale, scale);
        drawFrame(cr.get());
        cairo_surface_flush(surface.get());
    }
    return gfx::Image::fromPixels(w, h, std::move(pixels), scale);
}

}  // namespace sorvan::map
