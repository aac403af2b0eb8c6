#include "sorvan/platform/ui/view.hpp"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/ui/layout_constraint.hpp"
#include "ui/layout_solver.hpp"

namespace sorvan::ui {

namespace {

using Clock = std::chrono::steady_clock;

// Rotation, uniform scale and translation are what views animate; a general matrix is split
// into those parts so that a quarter turn passes through the intermediate angles instead of
// shrinking through a degenerate matrix.
struct Decomposed {
    double angle, scaleX, scaleY, tx, ty;
};

Decomposed decompose(const gfx::AffineTransform& t) {
    double sx = std::hypot(t.a, t.b);
    double sy = std::hypot(t.c, t.d);
    if (t.a * t.d - t.b * t.c < 0)
        sy = -sy;
    return {std::atan2(t.b, t.a), sx, sy, t.tx, t.ty};
}

gfx::AffineTransform compose(const Decomposed& d) {
    double s = std::sin(d.angle), c = std::cos(d.angle);
    return {c * d.scaleX, s * d.scaleX, -s * d.scaleY, c * d.scaleY, d.tx, d.ty};
}

}  // namespace

struct View::TransformState {
    gfx::AffineTransform from, to;
    Clock::time_point start;
    double duration = 0;

    bool animating(Clock::time_point now) const {
        return duration > 0 && now < start + std::chrono::duration_cast<Clock::duration>(
                                                 std::chrono::duration<double>(duration));
    }
    gfx::AffineTransform at(Clock::time_point now) const {
        if (!animating(now))
            return to;
        double f = std::chrono::duration<double>(now - start).count() / duration;
        f = std::clamp(f, 0.0, 1.0);
        Decomposed a = decompose(from), b = decompose(to);
        double turn = b.angle - a.angle;
        if (turn > std::numbers::pi)
            turn -= 2 * std::numbers::pi;
        if (turn < -std::numbers::pi)
            turn += 2 * std::numbers::pi;
        auto mix = [f](double x, double y) { return x + (y - x) * f; };
        return compose({a.angle + turn * f, mix(a.scaleX, b.scaleX), mix(a.scaleY, b.scaleY),
                        mix(a.tx, b.tx), mix(a.ty, b.ty)});
    }
};

View::View(gfx::Rect frame) : frame_(frame), transform_(std::make_shared<TransformState>()) {}

View::~View() = default;

void View::setFrame(gfx::Rect frame) {
    if (frame == frame_)
        return;
    gfx::Size old = frame_.size;
    frame_ = frame;
    double dw = frame.size.width - old.width, dh = frame.size.height - old.height;
    if (dw != 0 || dh != 0) {
        for (auto& sub : subviews_) {
            if (!sub->translatesMask_)
                continue;
            gfx::Rect f = sub->frame_;
            if (sub->autoresizingMask_ & kFlexibleWidth)
                f.size.width += dw;
            if (sub->autoresizingMask_ & kFlexibleHeight)
                f.size.height += dh;
            if (!(f == sub->frame_))
                sub->setFrame(f);
        }
        setNeedsLayout();
    }
    setNeedsDisplay();
}

void View::setCenter(gfx::Point c) {
    setFrame({{c.x - frame_.size.width / 2, c.y - frame_.size.height / 2}, frame_.size});
}

gfx::AffineTransform View::transform() const {
    return transform_->at(dispatch::RunLoop::main().now());
}

void View::setTransform(const gfx::AffineTransform& t) {
    transform_->from = transform_->to = t;
    transform_->duration = 0;
    setNeedsDisplay();
}

void View::animateTransform(const gfx::AffineTransform& t, double durationSeconds) {
    auto now = dispatch::RunLoop::main().now();
    // A new animation starts from wherever the running one is now, as on screen.
    transform_->from = transform_->at(now);
    transform_->to = t;
    transform_->start = now;
    transform_->duration = std::max(0.0, durationSeconds);
    setNeedsDisplay();
}

gfx::AffineTransform View::targetTransform() const {
    return transform_->to;
}

bool View::isAnimating() const {
    if (transform_->animating(dispatch::RunLoop::main().now()))
        return true;
    return std::any_of(subviews_.begin(), subviews_.end(),
                       [](const auto& v) { return v->isAnimating(); });
}

void View::addSubview(std::shared_ptr<View> view) {
    if (!view || view.get() == this)
        return;
    if (auto old = view->superview()) {
        if (old.get() == this) {
            // Re-adding brings the view to the front.
            auto it = std::find(subviews_.begin(), subviews_.end(), view);
            subviews_.erase(it);
            subviews_.push_back(std::move(view));
            setNeedsDisplay();
            return;
        }
        view->removeFromSuperview();
    }
    view->superview_ = weak_from_this();
    subviews_.push_back(std::move(view));
    setNeedsLayout();
}

void View::removeFromSuperview() {
    auto parent = superview();
    if (!parent)
        return;
    auto& subs = parent->subviews_;
    auto self = std::find_if(subs.begin(), subs.end(), [this](auto& v) { return v.get() == this; });
    if (self == subs.end())
        return;
    auto keep = *self;  // this view may be owned only by its parent's list
    subs.erase(self);
    superview_.reset();
    parent->setNeedsLayout();
}

void View::layoutSubviews() {
    detail::solveConstraints(*this);
}

void View::setNeedsLayout() {
    needsLayout_ = true;
    setNeedsDisplay();
}

std::optional<gfx::Size> View::intrinsicContentSize() const {
    return std::nullopt;
}

// The superview's constraints size this view, so it is the one to lay out again.
void View::invalidateIntrinsicContentSize() {
    if (auto parent = superview()) {
        parent->setNeedsLayout();
    } else {
        setNeedsLayout();
    }
}

void View::layoutIfNeeded() {
    if (needsLayout_) {
        needsLayout_ = false;
        layoutSubviews();
    }
    // Copy: a layoutSubviews override may add or remove subviews.
    auto subs = subviews_;
    for (auto& sub : subs)
        sub->layoutIfNeeded();
}

void View::draw(cairo_t* context, gfx::Rect bounds) {
    if (background_.a <= 0)
        return;
    cairo_set_source_rgba(context, background_.r, background_.g, background_.b, background_.a);
    cairo_rectangle(context, bounds.minX(), bounds.minY(), bounds.size.width, bounds.size.height);
    cairo_fill(context);
}

void View::drawHierarchy(cairo_t* context) {
    if (hidden_ || alpha_ <= 0)
        return;
    cairo_save(context);
    cairo_translate(context, frame_.origin.x, frame_.origin.y);
    gfx::AffineTransform t = transform();
    if (!t.isIdentity()) {
        double w = frame_.size.width / 2, h = frame_.size.height / 2;
        cairo_translate(context, w, h);
        cairo_matrix_t m{t.a, t.b, t.c, t.d, t.tx, t.ty};
        cairo_transform(context, &m);
        cairo_translate(context, -w, -h);
    }
    bool group = alpha_ < 1;
    if (group) {
        // The group's surface is as large as the clip: without one it would be the whole
        // target, which for many small see-through views (tags on a map) costs a full-size
        // surface each. The view draws within its bounds and its subviews within their
        // frames (turned, at most, about their centres).
        gfx::Rect extent = bounds();
        for (const auto& s : subviews_) {
            gfx::Rect f = s->frame();
            if (!s->transform().isIdentity()) {
                double reach = std::hypot(f.size.width, f.size.height);
                f = {{f.midX() - reach, f.midY() - reach}, {2 * reach, 2 * reach}};
            }
            double x0 = std::min(extent.minX(), f.minX()), y0 = std::min(extent.minY(), f.minY());
            double x1 = std::max(extent.maxX(), f.maxX()), y1 = std::max(extent.maxY(), f.maxY());
            extent = {{x0, y0}, {x1 - x0, y1 - y0}};
        }
        cairo_rectangle(context, extent.minX(), extent.minY(), extent.size.width,
                        extent.size.height);
        cairo_clip(context);
        cairo_push_group(context);
    }
    draw(context, bounds());
    if (!subviews_.empty()) {
        std::vector<View*> order;
        order.reserve(subviews_.size());
        for (auto& s : subviews_)
            order.push_back(s.get());
        std::stable_sort(order.begin(), order.end(),
                         [](View* a, View* b) { return a->zPosition_ < b->zPosition_; });
        for (View* s : order)
            s->drawHierarchy(context);
    }
    if (group) {
        cairo_pop_group_to_source(context);
        cairo_paint_with_alpha(context, alpha_);
    }
    cairo_restore(context);
}

void View::setNeedsDisplay() {
    if (auto parent = superview())
        parent->setNeedsDisplay();
}

namespace {

// Maps a point from a view's own space to its superview's space (transform about the centre).
gfx::Point toParent(const View& v, gfx::Point p) {
    gfx::Rect f = v.frame();
    gfx::AffineTransform t = v.transform();
    double w = f.size.width / 2, h = f.size.height / 2;
    double x = p.x - w, y = p.y - h;
    return {t.a * x + t.c * y + t.tx + w + f.origin.x, t.b * x + t.d * y + t.ty + h + f.origin.y};
}

gfx::Point fromParent(const View& v, gfx::Point p) {
    gfx::Rect f = v.frame();
    gfx::AffineTransform t = v.transform();
    double w = f.size.width / 2, h = f.size.height / 2;
    double x = p.x - f.origin.x - w - t.tx, y = p.y - f.origin.y - h - t.ty;
    double det = t.a * t.d - t.b * t.c;
    if (det == 0)
        return {NAN, NAN};
    return {(t.d * x - t.c * y) / det + w, (-t.b * x + t.a * y) / det + h};
}

}  // namespace

gfx::Point View::convertPoint(gfx::Point p, const View* to) const {
    if (to == this)
        return p;
    // Up to the root in window space, then down to the target.
    const View* v = this;
    while (v) {
        if (v == to)
            return p;
        auto parent = v->superview();
        if (!parent)
            break;
        p = toParent(*v, p);
        v = parent.get();
    }
    if (!to)
        return p;
    std::vector<const View*> chain;
    for (const View* t = to; t; t = t->superview().get())
        chain.push_back(t);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        if (!(*it)->superview())
            continue;  // the root's space is the shared space
        p = fromParent(**it, p);
    }
    return p;
}

std::shared_ptr<View> View::hitTest(gfx::Point p) {
    if (hidden_ || alpha_ <= 0.01)
        return nullptr;
    if (!bounds().contains(p))
        return nullptr;
    std::vector<std::shared_ptr<View>> order = subviews_;
    std::stable_sort(order.begin(), order.end(),
                     [](auto& a, auto& b) { return a->zPosition_ < b->zPosition_; });
    for (auto it = order.rbegin(); it != order.rend(); ++it) {
        if (auto hit = (*it)->hitTest(fromParent(**it, p)))
            return hit;
    }
    return shared_from_this();
}

void View::addConstraint(std::shared_ptr<LayoutConstraint> c) {
    if (!c)
        return;
    if (std::find(constraints_.begin(), constraints_.end(), c) == constraints_.end())
        constraints_.push_back(std::move(c));
    constraintsChanged();
}

void View::removeConstraint(const std::shared_ptr<LayoutConstraint>& c) {
    auto it = std::find(constraints_.begin(), constraints_.end(), c);
    if (it == constraints_.end())
        return;
    constraints_.erase(it);
    constraintsChanged();
}

// A view's own constraints size it within its superview (a constant width or height lives on
// the view itself), so the superview lays out again too.
void View::constraintsChanged() {
    setNeedsLayout();
    if (auto parent = superview()) {
        parent->setNeedsLayout();
    }
}

}  // namespace sorvan::ui
