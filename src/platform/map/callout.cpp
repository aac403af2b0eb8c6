#include "map/callout.hpp"

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "foundation/c_handle.hpp"
#include "graphics/cairo_handles.hpp"

namespace sorvan::map::detail {

namespace {

using LayoutPtr = CHandle<PangoLayout, g_object_unref>;
using PangoContextPtr = CHandle<PangoContext, g_object_unref>;
using FontPtr = CHandle<PangoFontDescription, pango_font_description_free>;

constexpr double kTitleSize = 14;
constexpr double kSubtitleSize = 12;
constexpr double kLineGap = 2;
constexpr double kRadius = 8;
constexpr double kPointerHalfWidth = 9;
constexpr double kMinWidth = 2 * (kRadius + kPointerHalfWidth);

// Fixed font options: the bubble looks the same whatever the desktop says, so frames can be
// compared with stored pictures.
void setFontOptions(PangoContext* pango) {
    gfx::FontOptionsPtr options(cairo_font_options_create());
    cairo_font_options_set_antialias(options.get(), CAIRO_ANTIALIAS_GRAY);
    cairo_font_options_set_hint_style(options.get(), CAIRO_HINT_STYLE_NONE);
    cairo_font_options_set_hint_metrics(options.get(), CAIRO_HINT_METRICS_OFF);
    pango_cairo_context_set_font_options(pango, options.get());
}

LayoutPtr makeLayout(PangoContext* pango, const std::string& text, double size, bool bold) {
    LayoutPtr layout(pango_layout_new(pango));
    FontPtr font(pango_font_description_new());
    pango_font_description_set_family(font.get(), "Sans");
    pango_font_description_set_weight(font.get(), bold ? PANGO_WEIGHT_BOLD : PANGO_WEIGHT_NORMAL);
    // Sizes are in points, the user units of the context drawn into.
    pango_font_description_set_absolute_size(font.get(), size * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), font.get());
    pango_layout_set_width(layout.get(), static_cast<int>(Callout::kMaxTextWidth * PANGO_SCALE));
    pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
    // A title of many lines would cover the map: three lines at most, then an ellipsis.
    pango_layout_set_height(layout.get(), -3);
    pango_layout_set_ellipsize(layout.get(), PANGO_ELLIPSIZE_END);
    pango_layout_set_text(layout.get(), text.c_str(), static_cast<int>(text.size()));
    return layout;
}

gfx::Size logicalSize(PangoLayout* layout) {
    PangoRectangle logical;
    pango_layout_get_extents(layout, nullptr, &logical);
    return {static_cast<double>(logical.width) / PANGO_SCALE,
            static_cast<double>(logical.height) / PANGO_SCALE};
}

}  // namespace

struct Callout::Text {
    PangoContextPtr context;
    LayoutPtr title, subtitle;
};

Callout::Callout() = default;
Callout::~Callout() = default;

void Callout::setText(const std::string& title, const std::string& subtitle) {
    if (text_ && title == title_ && subtitle == subtitle_)
        return;
    title_ = title;
    subtitle_ = subtitle;
    if (!text_) {
        text_ = std::make_unique<Text>();
        text_->context.reset(pango_font_map_create_context(pango_cairo_font_map_get_default()));
        setFontOptions(text_->context.get());
    }
    textWidth_ = titleHeight_ = subtitleHeight_ = 0;
    text_->title.reset();
    text_->subtitle.reset();
    if (!title_.empty()) {
        text_->title = makeLayout(text_->context.get(), title_, kTitleSize, true);
        gfx::Size s = logicalSize(text_->title.get());
        textWidth_ = s.width;
        titleHeight_ = s.height;
    }
    if (!subtitle_.empty()) {
        text_->subtitle = makeLayout(text_->context.get(), subtitle_, kSubtitleSize, false);
        gfx::Size s = logicalSize(text_->subtitle.get());
        textWidth_ = std::max(textWidth_, s.width);
        subtitleHeight_ = s.height;
    }
}

gfx::Rect Callout::frame(gfx::Point tip) const {
    double gap = titleHeight_ > 0 && subtitleHeight_ > 0 ? kLineGap : 0;
    double w = std::max(kMinWidth, std::ceil(textWidth_) + 2 * kPadding);
    double h = std::ceil(titleHeight_ + gap + subtitleHeight_) + 2 * kPadding;
    // Whole points, so that the box's edges are crisp on every screen scale.
    double x = std::round(tip.x - w / 2);
    double y = std::round(tip.y - kPointerHeight - h);
    return {{x, y}, {w, h}};
}

bool Callout::contains(gfx::Point p, gfx::Point tip) const {
    if (isEmpty())
        return false;
    gfx::Rect f = frame(tip);
    if (f.contains(p))
        return true;
    // The pointer, taken as its bounding box: a finger is wider than its slant.
    return p.y >= f.maxY() && p.y <= tip.y && std::abs(p.x - tip.x) <= kPointerHalfWidth;
}

void Callout::draw(cairo_t* cr, gfx::Point tip) const {
    if (isEmpty() || !text_)
        return;
    gfx::Rect f = frame(tip);
    const double x0 = f.minX(), y0 = f.minY(), x1 = f.maxX(), y1 = f.maxY();
    const double px =
        std::clamp(tip.x, x0 + kRadius + kPointerHalfWidth, x1 - kRadius - kPointerHalfWidth);
    constexpr double kPi = std::numbers::pi;
    auto outline = [&] {
        cairo_new_path(cr);
        cairo_arc(cr, x0 + kRadius, y0 + kRadius, kRadius, kPi, 1.5 * kPi);
        cairo_arc(cr, x1 - kRadius, y0 + kRadius, kRadius, 1.5 * kPi, 2 * kPi);
        cairo_arc(cr, x1 - kRadius, y1 - kRadius, kRadius, 0, 0.5 * kPi);
        cairo_line_to(cr, px + kPointerHalfWidth, y1);
        cairo_line_to(cr, tip.x, tip.y);
        cairo_line_to(cr, px - kPointerHalfWidth, y1);
        cairo_arc(cr, x0 + kRadius, y1 - kRadius, kRadius, 0.5 * kPi, kPi);
        cairo_close_path(cr);
    };
    cairo_save(cr);
    // A soft shadow a point and a half down, then the white body with a hairline rim.
    cairo_save(cr);
    cairo_translate(cr, 0, 1.5);
    outline();
    cairo_set_source_rgba(cr, 0, 0, 0, 0.18);
    cairo_fill(cr);
    cairo_restore(cr);
    outline();
    cairo_set_source_rgba(cr, 1, 1, 1, 1);
    cairo_fill_preserve(cr);
    cairo_set_line_width(cr, 1);
    cairo_set_source_rgba(cr, 0, 0, 0, 0.25);
    cairo_stroke(cr);

    double y = y0 + kPadding;
    if (text_->title) {
        cairo_move_to(cr, x0 + kPadding, y);
        cairo_set_source_rgba(cr, 0.1, 0.1, 0.12, 1);
        pango_cairo_update_layout(cr, text_->title.get());
        pango_cairo_show_layout(cr, text_->title.get());
        y += titleHeight_ + kLineGap;
    }
    if (text_->subtitle) {
        cairo_move_to(cr, x0 + kPadding, y);
        cairo_set_source_rgba(cr, 0.38, 0.38, 0.42, 1);
        pango_cairo_update_layout(cr, text_->subtitle.get());
        pango_cairo_show_layout(cr, text_->subtitle.get());
    }
    cairo_restore(cr);
}

}  // namespace sorvan::map::detail
