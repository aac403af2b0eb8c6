#include "sorvan/platform/map/annotation_view.hpp"

#include <cairo.h>

#include <numbers>

#include "graphics/cairo_handles.hpp"
#include "map/user_location_view.hpp"
#include "ui/cairo_util.hpp"

namespace sorvan::map {

AnnotationView::AnnotationView(std::shared_ptr<Annotation> annotation, std::string reuseIdentifier)
    : annotation_(annotation), reuseIdentifier_(std::move(reuseIdentifier)) {}

void AnnotationView::setImage(std::shared_ptr<gfx::Image> image) {
    image_ = std::move(image);
    if (image_)
        setFrame({frame().origin, image_->size()});
    setNeedsDisplay();
}

void AnnotationView::draw(cairo_t* context, gfx::Rect bounds) {
    View::draw(context, bounds);
    if (!image_)
        return;
    ui::detail::paintImage(context, *image_, bounds.minX(), bounds.minY(), bounds.size.width,
                           bounds.size.height);
}

std::optional<std::string> AnnotationView::calloutTitle() const {
    if (calloutTitle_)
        return calloutTitle_;
    auto a = annotation();
    return a ? a->title() : std::nullopt;
}

void AnnotationView::setCalloutTitle(std::optional<std::string> title) {
    calloutTitle_ = std::move(title);
    setNeedsDisplay();
}

std::optional<std::string> AnnotationView::calloutSubtitle() const {
    if (calloutSubtitle_)
        return calloutSubtitle_;
    auto a = annotation();
    return a ? a->subtitle() : std::nullopt;
}

void AnnotationView::setCalloutSubtitle(std::optional<std::string> subtitle) {
    calloutSubtitle_ = std::move(subtitle);
    setNeedsDisplay();
}

// PinAnnotationView ------------------------------------------------------------------------

namespace {
constexpr double kPinWidth = 32, kPinHeight = 40;
constexpr double kHeadX = 16, kHeadY = 10, kHeadRadius = 8;
constexpr double kTipY = 38;
}  // namespace

PinAnnotationView::PinAnnotationView(std::shared_ptr<Annotation> annotation,
                                     std::string reuseIdentifier)
    : AnnotationView(std::move(annotation), std::move(reuseIdentifier)) {
    setFrame({0, 0, kPinWidth, kPinHeight});
    setCenterOffset({0, kPinHeight / 2 - kTipY});
}

void PinAnnotationView::draw(cairo_t* context, gfx::Rect bounds) {
    View::draw(context, bounds);
    if (image()) {
        AnnotationView::draw(context, bounds);
        return;
    }
    cairo_save(context);
    // Needle: a thin grey steel line from under the head down to the tip.
    cairo_set_line_cap(context, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_width(context, 2.0);
    cairo_set_source_rgba(context, 0.45, 0.45, 0.47, 1);
    cairo_move_to(context, kHeadX, kHeadY + kHeadRadius - 1);
    cairo_line_to(context, kHeadX, kTipY);
    cairo_stroke(context);
    // Head: the tint, darker at the rim, with a highlight up and to the left.
    gfx::Color c = pinTintColor();
    gfx::PatternPtr shade(
        cairo_pattern_create_radial(kHeadX - 3, kHeadY - 3, 1, kHeadX, kHeadY, kHeadRadius));
    cairo_pattern_add_color_stop_rgba(shade.get(), 0, 1 - (1 - c.r) * 0.4, 1 - (1 - c.g) * 0.4,
                                      1 - (1 - c.b) * 0.4, c.a);
    cairo_pattern_add_color_stop_rgba(shade.get(), 0.6, c.r, c.g, c.b, c.a);
    cairo_pattern_add_color_stop_rgba(shade.get(), 1, c.r * 0.6, c.g * 0.6, c.b * 0.6, c.a);
    cairo_arc(context, kHeadX, kHeadY, kHeadRadius, 0, 2 * std::numbers::pi);
    cairo_set_source(context, shade.get());
    cairo_fill_preserve(context);
    cairo_set_line_width(context, 1.0);
    cairo_set_source_rgba(context, c.r * 0.5, c.g * 0.5, c.b * 0.5, c.a);
    cairo_stroke(context);
    cairo_restore(context);
}

// UserLocationView -------------------------------------------------------------------------

namespace detail {

UserLocationView::UserLocationView(std::shared_ptr<Annotation> annotation)
    : AnnotationView(std::move(annotation)) {
    setFrame({0, 0, 44, 44});
}

void UserLocationView::draw(cairo_t* context, gfx::Rect bounds) {
    double cx = bounds.midX(), cy = bounds.midY();
    cairo_save(context);
    cairo_arc(context, cx, cy, 22, 0, 2 * std::numbers::pi);
    cairo_set_source_rgba(context, 0.0, 0.48, 1.0, 0.15);
    cairo_fill(context);
    cairo_arc(context, cx, cy, 9, 0, 2 * std::numbers::pi);
    cairo_set_source_rgba(context, 1, 1, 1, 1);
    cairo_fill(context);
    cairo_arc(context, cx, cy, 6.5, 0, 2 * std::numbers::pi);
    cairo_set_source_rgba(context, 0.0, 0.48, 1.0, 1);
    cairo_fill(context);
    cairo_restore(context);
}

}  // namespace detail

}  // namespace sorvan::map
