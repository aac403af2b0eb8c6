#include "map/annotation_layer.hpp"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <typeinfo>
#include <utility>

#include "map/user_location_view.hpp"

namespace sorvan::map::detail {

namespace {

// The views' parent: it routes their needs-display requests to the host, and notes that the
// kept picture of the views is out of date unless the request comes from the layer moving a
// view onto its point (the picture is kept for exactly those moves).
class Container : public ui::View {
  public:
    Container(AnnotationLayer::Host& host, std::uint64_t& content, const bool& placing)
        : host_(host), content_(content), placing_(placing) {}
    void setNeedsDisplay() override {
        if (!placing_)
            ++content_;
        host_.annotationsNeedDisplay();
    }

  private:
    AnnotationLayer::Host& host_;
    std::uint64_t& content_;
    const bool& placing_;
};

bool wholePixel(double v) {
    return std::abs(v - std::round(v)) <= 1e-6;
}

}  // namespace

AnnotationLayer::AnnotationLayer(Host& host, std::shared_ptr<UserLocation> user)
    : host_(host),
      user_(std::move(user)),
      container_(std::make_shared<Container>(host, content_, placing_)) {
    userEntry_.annotation = user_;
}

AnnotationLayer::~AnnotationLayer() = default;

// The list -----------------------------------------------------------------------------------

bool AnnotationLayer::userShown() const {
    return showsUser_ && user_->isUpdating();
}

AnnotationLayer::Entry* AnnotationLayer::entryFor(const Annotation* a) {
    return const_cast<Entry*>(std::as_const(*this).entryFor(a));
}

const AnnotationLayer::Entry* AnnotationLayer::entryFor(const Annotation* a) const {
    if (!a)
        return nullptr;
    if (a == user_.get() && userShown())
        return &userEntry_;
    auto it = index_.find(a);
    return it == index_.end() ? nullptr : &entries_[it->second];
}

bool AnnotationLayer::contains(const Annotation* a) const {
    return entryFor(a) != nullptr;
}

bool AnnotationLayer::add(const std::shared_ptr<Annotation>& annotation) {
    if (!annotation || contains(annotation.get()))
        return false;
    index_.emplace(annotation.get(), entries_.size());
    entries_.push_back({annotation, nullptr, {NAN, NAN}, {}});
    ++content_;
    host_.annotationsNeedDisplay();
    return true;
}

bool AnnotationLayer::remove(const std::shared_ptr<Annotation>& annotation) {
    if (!annotation)
        return false;
    auto it = index_.find(annotation.get());
    if (it == index_.end())
        return false;
    Entry& entry = entries_[it->second];
    index_.erase(it);
    // Moved out first: the view's removal may reach back into the layer.
    auto keep = std::move(entry.annotation);
    auto view = std::move(entry.view);
    ++dead_;
    if (view) {
        view->setSelected(false);
        view->removeFromSuperview();
    }
    if (selected_.lock() == annotation)
        selected_.reset();
    compact();
    ++content_;
    host_.annotationsNeedDisplay();
    return true;
}

void AnnotationLayer::compact() {
    // Removed entries stay as holes until they outnumber the live ones, so that removing
    // thousands of annotations one by one costs linear time, not quadratic.
    if (walking_ > 0 || dead_ < 64 || dead_ < index_.size())
        return;
    std::erase_if(entries_, [](const Entry& e) { return !e.annotation; });
    dead_ = 0;
    for (std::size_t i = 0; i < entries_.size(); ++i)
        index_[entries_[i].annotation.get()] = i;
}

std::vector<std::shared_ptr<Annotation>> AnnotationLayer::annotations() const {
    std::vector<std::shared_ptr<Annotation>> out;
    out.reserve(index_.size() + 1);
    for (auto& e : entries_)
        if (e.annotation)
            out.push_back(e.annotation);
    if (userShown())
        out.push_back(user_);
    return out;
}

std::size_t AnnotationLayer::count() const {
    return index_.size() + (userShown() ? 1 : 0);
}

void AnnotationLayer::setShowsUserLocation(bool shows) {
    if (shows == showsUser_)
        return;
    showsUser_ = shows;
    ++content_;
    if (!shows && userEntry_.view) {
        auto view = std::move(userEntry_.view);
        view->removeFromSuperview();
    }
    host_.annotationsNeedDisplay();
}

template <class Fn>
void AnnotationLayer::forEachEntry(Fn&& fn) {
    ++walking_;
    // Annotations added meanwhile wait for the next walk; entries_ may grow, so no references
    // are kept across calls.
    const std::size_t n = entries_.size();
    for (std::size_t i = 0; i < n && i < entries_.size(); ++i)
        if (entries_[i].annotation)
            fn(entries_[i]);
    if (userShown())
        fn(userEntry_);
    --walking_;
    compact();
}

MapPoint AnnotationLayer::pointOf(Entry& e) {
    Coordinate c = e.annotation->coordinate();
    if (!(c == e.coordinate)) {
        e.coordinate = c;
        e.point = mapPointForCoordinate(c);
        ++content_;
    }
    return e.point;
}

// Views --------------------------------------------------------------------------------------

std::shared_ptr<AnnotationView> AnnotationLayer::viewFor(const Annotation* a) const {
    const Entry* e = entryFor(a);
    if (!e && a == user_.get())
        e = &userEntry_;  // kept while the location is shown but not yet known
    return e ? e->view : nullptr;
}

std::shared_ptr<AnnotationView> AnnotationLayer::makeView(
    const std::shared_ptr<Annotation>& annotation, const Viewport& viewport) {
    auto view = host_.askViewForAnnotation(annotation);
    Entry* entry = entryFor(annotation.get());
    if (!entry)
        return nullptr;  // the host removed it meanwhile
    if (entry->view)
        return entry->view;
    if (!view) {
        if (annotation == user_)
            view = std::make_shared<UserLocationView>(annotation);
        else
            view = std::make_shared<PinAnnotationView>(annotation);
    }
    entry->view = view;
    ++content_;
    container_->addSubview(view);
    if (auto pin = std::dynamic_pointer_cast<PinAnnotationView>(view); pin && pin->animatesDrop()) {
        gfx::AffineTransform above;
        above.ty = -std::max(60.0, viewport.height() / 3);
        pin->setTransform(above);
        pin->animateTransform(gfx::AffineTransform::identity(), 0.3);
    }
    return view;
}

void AnnotationLayer::makeViewsNearScreen(const Viewport& viewport) {
    Projection project = viewport.projection();
    double right = viewport.width() + kViewMargin, bottom = viewport.height() + kViewMargin;
    forEachEntry([&](Entry& e) {
        if (e.view)
            return;
        gfx::Point p = project(pointOf(e));
        if (p.x >= -kViewMargin && p.y >= -kViewMargin && p.x <= right && p.y <= bottom) {
            auto annotation = e.annotation;  // e may move while the host is asked
            makeView(annotation, viewport);
        }
    });
}

bool AnnotationLayer::isAnimating() const {
    return container_->isAnimating();
}

// A frame ------------------------------------------------------------------------------------

void AnnotationLayer::setFrameOnPoint(AnnotationView& view, gfx::Rect frame) {
    placing_ = true;
    view.setFrame(frame);
    placing_ = false;
}

gfx::Rect AnnotationLayer::frameOnPoint(Entry& e, const AnnotationView& v,
                                        const Projection& project, double scale) {
    gfx::Point p = project(pointOf(e));
    gfx::Size s = v.frame().size;
    gfx::Point o = v.centerOffset();
    // On whole device pixels: crisp, and a straight copy for image views.
    return {{std::round((p.x + o.x - s.width / 2) * scale) / scale,
             std::round((p.y + o.y - s.height / 2) * scale) / scale},
            s};
}

bool AnnotationLayer::nearScreen(gfx::Rect f, double width, double height) {
    // A view's transform may carry it about as far as its own size.
    double reach = std::max(f.size.width, f.size.height);
    return !(f.maxX() + reach < 0 || f.maxY() + reach < 0 || f.minX() - reach > width ||
             f.minY() - reach > height);
}

void AnnotationLayer::place(const Viewport& viewport) {
    placedFor_ = viewport;
    placed_.clear();
    Projection project = viewport.projection();
    double width = viewport.width(), height = viewport.height();
    double scale = viewport.scale();
    std::size_t order = 0;
    bool sorted = true;
    // The selected view is placed wherever it is: its bubble may show while it does not (a
    // bubble larger than the map shows its top-left, its view far below).
    auto selected = selected_.lock();
    const Entry* selectedEntry = selected ? entryFor(selected.get()) : nullptr;
    forEachEntry([&](Entry& e) {
        ++order;
        AnnotationView* v = e.view.get();
        if (!v || v->isHidden())
            return;
        gfx::Rect f = frameOnPoint(e, *v, project, scale);
        if (!nearScreen(f, width, height) && &e != selectedEntry)
            return;
        setFrameOnPoint(*v, f);
        double z = v->zPosition();
        if (!placed_.empty() && z < placed_.back().z)
            sorted = false;
        placed_.push_back({e.view, z, order});
    });
    if (!sorted)
        std::sort(placed_.begin(), placed_.end(), [](const Placed& a, const Placed& b) {
            return a.z < b.z || (a.z == b.z && a.order < b.order);
        });
}

void AnnotationLayer::drawView(cairo_t* context, const cairo_matrix_t& base, DirectBlitter& blitter,
                               AnnotationView& view, bool& moved) {
    if (paintPlainImageView(context, base, blitter, view)) {
        moved = moved || !blitter.usable();
        return;
    }
    blitter.yield();
    if (moved)
        cairo_set_matrix(context, &base);
    moved = false;
    view.drawHierarchy(context);
}

void AnnotationLayer::draw(cairo_t* context) {
    ++frame_;
    cairo_matrix_t base;
    cairo_get_matrix(context, &base);
    DirectBlitter blitter(context);
    if (panPictureUsable(base, blitter)) {
        int dx = 0, dy = 0;
        if (!panOffset(dx, dy) || pan_.content != content_ ||
            std::memcmp(&pan_.base, &base, sizeof base) != 0) {
            drawPanPicture(base);
            dx = dy = 0;
        }
        int x0 = static_cast<int>(std::lround(base.x0)) - kPanMargin + dx;
        int y0 = static_cast<int>(std::lround(base.y0)) - kPanMargin + dy;
        blitter.over(pan_.image.get(), 0, 0, x0, y0, pan_.width, pan_.height);
    } else {
        pan_.valid = false;
        bool moved = false;  // the cairo fast path leaves device space in the context
        for (auto& p : placed_) {
            if (!p.view->isHidden())
                drawView(context, base, blitter, *p.view, moved);
        }
        blitter.yield();
        if (moved)
            cairo_set_matrix(context, &base);
    }
    blitter.yield();
    if (AnnotationView* v = calloutView())
        callout_.draw(context, calloutTip(*v));
    placed_.clear();
    // Surfaces of images no view showed this frame go; there are few images and many views.
    if (surfaces_.size() > 64)
        std::erase_if(surfaces_, [this](const auto& kv) { return kv.second.lastFrame != frame_; });
}

bool AnnotationLayer::panPictureUsable(const cairo_matrix_t& base,
                                       const DirectBlitter& blitter) const {
    // A turned map, moving views or a target that takes no straight blend draw view by view;
    // so do a few views, which cost less than one blend of the whole frame.
    double scale = placedFor_.scale();
    return placed_.size() >= kPanPictureMinViews && blitter.usable() &&
           placedFor_.camera().heading == 0 && !isAnimating() && base.xy == 0 && base.yx == 0 &&
           base.xx == scale && base.yy == scale && wholePixel(base.x0) && wholePixel(base.y0);
}

bool AnnotationLayer::panOffset(int& dx, int& dy) const {
    const Camera& now = placedFor_.camera();
    const Camera& then = pan_.camera;
    if (!pan_.valid || now.zoom != then.zoom || now.heading != then.heading ||
        !(placedFor_.size() == pan_.size) || placedFor_.scale() != pan_.scale)
        return false;
    double k = now.zoom * pan_.scale;
    double wx = then.center.x - now.center.x;
    if (wx > kMapWorldSize / 2 || wx < -kMapWorldSize / 2)
        wx -= std::round(wx / kMapWorldSize) * kMapWorldSize;
    double px = wx * k, py = (then.center.y - now.center.y) * k;
    // Only a move by whole device pixels keeps every view on the pixel it was drawn on.
    if (!wholePixel(px) || !wholePixel(py) || std::abs(px) > kPanMargin ||
        std::abs(py) > kPanMargin)
        return false;
    dx = static_cast<int>(std::lround(px));
    dy = static_cast<int>(std::lround(py));
    return true;
}

void AnnotationLayer::drawPanPicture(const cairo_matrix_t& base) {
    const double scale = placedFor_.scale();
    const int width = static_cast<int>(std::ceil(placedFor_.width() * scale)) + 2 * kPanMargin;
    const int height = static_cast<int>(std::ceil(placedFor_.height() * scale)) + 2 * kPanMargin;
    if (pan_.width != width || pan_.height != height || !pan_.image) {
        pan_.pixels.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0);
        pan_.image = pixmanImageOver(pan_.pixels.data(), width, height);
        pan_.width = width;
        pan_.height = height;
    } else {
        std::fill(pan_.pixels.begin(), pan_.pixels.end(), 0u);
    }

    // Every view that shows within the picture, placed as place() places them, in draw order.
    const double margin = kPanMargin / scale;
    const double right = placedFor_.width() + margin, bottom = placedFor_.height() + margin;
    Projection project = placedFor_.projection();
    std::vector<Placed> inPicture;
    std::size_t order = 0;
    forEachEntry([&](Entry& e) {
        ++order;
        AnnotationView* v = e.view.get();
        if (!v || v->isHidden())
            return;
        gfx::Point p = project(pointOf(e));
        gfx::Size s = v->frame().size;
        gfx::Point o = v->centerOffset();
        gfx::Rect f{{std::round((p.x + o.x - s.width / 2) * scale) / scale,
                     std::round((p.y + o.y - s.height / 2) * scale) / scale},
                    s};
        double reach = std::max(s.width, s.height);
        if (f.maxX() + reach < -margin || f.maxY() + reach < -margin || f.minX() - reach > right ||
            f.minY() - reach > bottom)
            return;
        setFrameOnPoint(*v, f);
        inPicture.push_back({e.view, v->zPosition(), order});
    });
    std::stable_sort(inPicture.begin(), inPicture.end(), [](const Placed& a, const Placed& b) {
        return a.z < b.z || (a.z == b.z && a.order < b.order);
    });

    gfx::SurfacePtr surface(
        cairo_image_surface_create_for_data(reinterpret_cast<unsigned char*>(pan_.pixels.data()),
                                            CAIRO_FORMAT_ARGB32, width, height, width * 4));
    gfx::ContextPtr cr(cairo_create(surface.get()));
    cairo_matrix_t pictureBase;
    cairo_matrix_init(&pictureBase, scale, 0, 0, scale, kPanMargin, kPanMargin);
    cairo_set_matrix(cr.get(), &pictureBase);
    cairo_rectangle(cr.get(), -margin, -margin, width / scale, height / scale);
    cairo_clip(cr.get());
    {
        DirectBlitter blitter(cr.get());
        bool moved = false;
        for (auto& p : inPicture)
            drawView(cr.get(), pictureBase, blitter, *p.view, moved);
        blitter.yield();
    }
    cairo_surface_flush(surface.get());

    pan_.camera = placedFor_.camera();
    pan_.size = placedFor_.size();
    pan_.scale = scale;
    pan_.base = base;
    pan_.content = content_;
    pan_.valid = true;
}

const AnnotationLayer::ImageSurface* AnnotationLayer::surfaceFor(
    const std::shared_ptr<gfx::Image>& image) {
    auto [it, made] = surfaces_.try_emplace(image.get());
    ImageSurface& s = it->second;
    if (made) {
        // Read in place: the image is immutable and kept alive with the surface.
        int w = image->pixelWidth(), h = image->pixelHeight();
        const std::uint32_t* px = image->pixels().data();
        s.image = image;
        s.surface.reset(cairo_image_surface_create_for_data(
            reinterpret_cast<unsigned char*>(const_cast<std::uint32_t*>(px)), CAIRO_FORMAT_ARGB32,
            w, h, w * 4));
        s.pixels = pixmanImageOver(px, w, h);
        // Icons are mostly margin: only the box that holds visible pixels is painted.
        int x0 = w, y0 = h, x1 = -1, y1 = -1;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                if (px[static_cast<std::size_t>(y) * w + x] >> 24) {
                    x0 = std::min(x0, x);
                    x1 = std::max(x1, x);
                    y0 = std::min(y0, y);
                    y1 = std::max(y1, y);
                }
            }
        }
        if (x1 >= 0)
            s.inkX = x0, s.inkY = y0, s.inkWidth = x1 - x0 + 1, s.inkHeight = y1 - y0 + 1;
    }
    s.lastFrame = frame_;
    return cairo_surface_status(s.surface.get()) == CAIRO_STATUS_SUCCESS && s.pixels ? &s : nullptr;
}

bool AnnotationLayer::paintPlainImageView(cairo_t* cr, const cairo_matrix_t& base,
                                          DirectBlitter& blitter, AnnotationView& v) {
    // Only a view that draws exactly as the base class does, with nothing that needs the full
    // draw: no subclass drawing, subviews, background or transform. Its opacity is a fade of
    // its one picture (an opacity above 1 draws as 1, as the full draw does).
    if (typeid(v) != typeid(AnnotationView) || !v.subviews().empty() || !(v.alpha() > 0) ||
        v.backgroundColor().a > 0)
        return false;
    double alpha = std::min(v.alpha(), 1.0);
    auto image = v.image();
    if (!image || image->pixelWidth() <= 0 || image->pixelHeight() <= 0)
        return false;
    gfx::Rect f = v.frame();
    if (f.size.width <= 0 || f.size.height <= 0 || !v.transform().isIdentity())
        return false;
    // The image's pixels must land one to one on whole device pixels; else the full draw
    // filters them.
    cairo_matrix_t m = base;
    cairo_matrix_translate(&m, f.origin.x, f.origin.y);
    cairo_matrix_scale(&m, f.size.width / image->pixelWidth(),
                       f.size.height / image->pixelHeight());
    constexpr double kEps = 1e-9;
    if (std::abs(m.xx - 1) > kEps || std::abs(m.yy - 1) > kEps || m.xy != 0 || m.yx != 0)
        return false;
    double x0 = std::round(m.x0), y0 = std::round(m.y0);
    if (std::abs(m.x0 - x0) > 1e-6 || std::abs(m.y0 - y0) > 1e-6)
        return false;
    const ImageSurface* s = surfaceFor(image);
    if (!s)
        return false;
    if (s->inkWidth == 0)
        return true;  // nothing shows
    if (blitter.usable()) {
        blitter.over(s->pixels.get(), s->inkX, s->inkY, static_cast<int>(x0) + s->inkX,
                     static_cast<int>(y0) + s->inkY, s->inkWidth, s->inkHeight, alpha);
        return true;
    }
    cairo_matrix_t device;
    cairo_matrix_init_translate(&device, x0, y0);
    cairo_set_matrix(cr, &device);
    cairo_set_source_surface(cr, s->surface.get(), 0, 0);
    cairo_rectangle(cr, s->inkX, s->inkY, s->inkWidth, s->inkHeight);
    if (alpha < 1) {
        cairo_save(cr);
        cairo_clip(cr);
        cairo_paint_with_alpha(cr, alpha);
        cairo_restore(cr);
    } else {
        cairo_fill(cr);
    }
    return true;
}

gfx::Point AnnotationLayer::calloutTip(const AnnotationView& view) {
    return calloutTip(view.frame());
}

gfx::Point AnnotationLayer::calloutTip(gfx::Rect viewFrame) {
    return {viewFrame.midX(), viewFrame.minY()};
}

AnnotationView* AnnotationLayer::calloutView() {
    auto selected = selected_.lock();
    auto view = selected ? viewFor(selected.get()) : nullptr;
    if (!view || !view->canShowCallout())
        return nullptr;
    for (auto& p : placed_) {
        AnnotationView* v = p.view.get();
        if (v != view.get())
            continue;
        if (!(v->alpha() > 0.01))
            return nullptr;
        callout_.setText(v->calloutTitle().value_or(""), v->calloutSubtitle().value_or(""));
        return callout_.isEmpty() ? nullptr : v;
    }
    return nullptr;
}

void AnnotationLayer::footprints(std::vector<Footprint>& out) {
    out.clear();
    out.reserve(placed_.size() + 1);
    for (const auto& p : placed_) {
        gfx::Rect f = p.view->frame();
        double reach = std::max(f.size.width, f.size.height);
        out.push_back({p.view.get(),
                       {f.minX() - reach, f.minY() - reach, f.size.width + 2 * reach,
                        f.size.height + 2 * reach},
                       {}});
    }
    if (AnnotationView* v = calloutView()) {
        gfx::Point tip = calloutTip(*v);
        gfx::Rect b = callout_.frame(tip);
        // The pointer below the box, the shadow under both, the antialiased rim around.
        double below = tip.y - b.maxY() + 3;
        std::string text = v->calloutTitle().value_or("");
        text += '\n';
        text += v->calloutSubtitle().value_or("");
        out.push_back({&callout_,
                       {b.minX() - 2, b.minY() - 2, b.size.width + 4, b.size.height + 2 + below},
                       std::move(text)});
    }
}

std::shared_ptr<AnnotationView> AnnotationLayer::calloutHitTest(gfx::Point point) {
    AnnotationView* v = calloutView();
    if (!v || !callout_.contains(point, calloutTip(*v)))
        return nullptr;
    auto hit = std::static_pointer_cast<AnnotationView>(v->shared_from_this());
    placed_.clear();
    return hit;
}

std::shared_ptr<AnnotationView> AnnotationLayer::hitTest(gfx::Point point) {
    std::shared_ptr<AnnotationView> hit;
    for (auto it = placed_.rbegin(); it != placed_.rend(); ++it) {
        auto& v = it->view;
        if (v->isHidden() || v->alpha() <= 0.01)
            continue;
        gfx::Point local = container_->convertPoint(point, v.get());
        if (v->bounds().contains(local)) {
            hit = v;
            break;
        }
    }
    placed_.clear();
    return hit;
}

// Selection ----------------------------------------------------------------------------------

std::shared_ptr<Annotation> AnnotationLayer::selected() const {
    auto s = selected_.lock();
    return s && contains(s.get()) ? s : nullptr;
}

void AnnotationLayer::select(const std::shared_ptr<Annotation>& annotation,
                             const Viewport& viewport) {
    if (!annotation || !contains(annotation.get()))
        return;
    if (selected_.lock() == annotation)
        return;
    if (auto previous = selected_.lock())
        deselect(previous);
    auto view = viewFor(annotation.get());
    if (!view)
        view = makeView(annotation, viewport);
    if (!view)
        return;
    selected_ = annotation;
    view->setSelected(true);
    host_.didSelectAnnotationView(view);
}

std::optional<AnnotationLayer::CalloutPlacement> AnnotationLayer::calloutPlacement(
    const Viewport& viewport) {
    auto selected = selected_.lock();
    Entry* e = selected ? entryFor(selected.get()) : nullptr;
    AnnotationView* v = e ? e->view.get() : nullptr;
    // The same conditions as a drawn bubble's (calloutView), for a frame not placed yet.
    if (!v || v->isHidden() || !(v->alpha() > 0.01) || !v->canShowCallout())
        return std::nullopt;
    callout_.setText(v->calloutTitle().value_or(""), v->calloutSubtitle().value_or(""));
    if (callout_.isEmpty())
        return std::nullopt;
    gfx::Rect f = frameOnPoint(*e, *v, viewport.projection(), viewport.scale());
    // An annotation selected far away brings no bubble into view.
    if (!nearScreen(f, viewport.width(), viewport.height()))
        return std::nullopt;
    return CalloutPlacement{callout_.frame(calloutTip(f)), f};
}

void AnnotationLayer::deselect(const std::shared_ptr<Annotation>& annotation) {
    if (!annotation || selected_.lock() != annotation)
        return;
    selected_.reset();
    auto view = viewFor(annotation.get());
    if (!view)
        return;
    view->setSelected(false);
    host_.didDeselectAnnotationView(view);
}

}  // namespace sorvan::map::detail
