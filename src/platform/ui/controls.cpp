#include "sorvan/platform/ui/controls.hpp"

#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>

#include "foundation/c_handle.hpp"
#include "ui/cairo_util.hpp"

namespace sorvan::ui {

namespace {

using LayoutPtr = CHandle<PangoLayout, g_object_unref>;
using FontPtr = CHandle<PangoFontDescription, pango_font_description_free>;
using AttrListPtr = CHandle<PangoAttrList, pango_attr_list_unref>;

std::uint16_t channel(double v) {
    return static_cast<std::uint16_t>(std::clamp(v, 0.0, 1.0) * 65535.0 + 0.5);
}

// Fixed font options keep text identical from run to run and machine to machine, whatever
// the desktop's settings say, so rendered frames can be compared with stored pictures.
void setFontOptions(PangoContext* pango) {
    gfx::FontOptionsPtr options(cairo_font_options_create());
    cairo_font_options_set_antialias(options.get(), CAIRO_ANTIALIAS_GRAY);
    cairo_font_options_set_hint_style(options.get(), CAIRO_HINT_STYLE_NONE);
    cairo_font_options_set_hint_metrics(options.get(), CAIRO_HINT_METRICS_OFF);
    pango_cairo_context_set_font_options(pango, options.get());
}

LayoutPtr makeLayout(cairo_t* cr, const AttributedString& text, double maxWidth) {
    LayoutPtr layout(pango_cairo_create_layout(cr));
    setFontOptions(pango_layout_get_context(layout.get()));
    pango_layout_context_changed(layout.get());
    std::string all = text.string();
    pango_layout_set_text(layout.get(), all.c_str(), static_cast<int>(all.size()));
    AttrListPtr attrs(pango_attr_list_new());
    guint start = 0;
    for (const auto& run : text.runs()) {
        guint end = start + static_cast<guint>(run.text.size());
        const TextAttributes& a = run.attributes;
        FontPtr font(pango_font_description_new());
        pango_font_description_set_family(font.get(), a.fontFamily.c_str());
        pango_font_description_set_weight(
            font.get(), a.weight == FontWeight::Bold ? PANGO_WEIGHT_BOLD : PANGO_WEIGHT_NORMAL);
        // Sizes are in points, which are the context's user units.
        pango_font_description_set_absolute_size(font.get(), a.size * PANGO_SCALE);
        auto add = [&](PangoAttribute* attr) {
            attr->start_index = start;
            attr->end_index = end;
            pango_attr_list_insert(attrs.get(), attr);
        };
        add(pango_attr_font_desc_new(font.get()));
        add(pango_attr_foreground_new(channel(a.foreground.r), channel(a.foreground.g),
                                      channel(a.foreground.b)));
        add(pango_attr_foreground_alpha_new(std::max<std::uint16_t>(1, channel(a.foreground.a))));
        if (a.underline)
            add(pango_attr_underline_new(PANGO_UNDERLINE_SINGLE));
        start = end;
    }
    pango_layout_set_attributes(layout.get(), attrs.get());
    if (maxWidth > 0)
        pango_layout_set_width(layout.get(), static_cast<int>(maxWidth * PANGO_SCALE));
    pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
    PangoAlignment align = PANGO_ALIGN_LEFT;
    if (!text.runs().empty()) {
        switch (text.runs().front().attributes.alignment) {
            case TextAlignment::Center:
                align = PANGO_ALIGN_CENTER;
                break;
            case TextAlignment::Right:
                align = PANGO_ALIGN_RIGHT;
                break;
            case TextAlignment::Left:
                break;
        }
    }
    pango_layout_set_alignment(layout.get(), align);
    return layout;
}

}  // namespace

// ImageView ---------------------------------------------------------------------------------

ImageView::ImageView(std::shared_ptr<gfx::Image> image) : image_(std::move(image)) {
    if (image_)
        setFrame({{0, 0}, image_->size()});
}

void ImageView::setImage(std::shared_ptr<gfx::Image> image) {
    image_ = std::move(image);
    invalidateIntrinsicContentSize();
    setNeedsDisplay();
}

std::optional<gfx::Size> ImageView::intrinsicContentSize() const {
    if (!image_) {
        return std::nullopt;
    }
    return image_->size();
}

void ImageView::draw(cairo_t* context, gfx::Rect bounds) {
    View::draw(context, bounds);
    if (!image_)
        return;
    gfx::Size is = image_->size();
    if (is.width <= 0 || is.height <= 0)
        return;
    double x = 0, y = 0, w = bounds.size.width, h = bounds.size.height;
    switch (contentMode()) {
        case ContentMode::ScaleToFill:
            break;
        case ContentMode::ScaleAspectFit:
        case ContentMode::ScaleAspectFill: {
            double sx = w / is.width, sy = h / is.height;
            double s =
                contentMode() == ContentMode::ScaleAspectFit ? std::min(sx, sy) : std::max(sx, sy);
            double iw = is.width * s, ih = is.height * s;
            x = (w - iw) / 2;
            y = (h - ih) / 2;
            w = iw;
            h = ih;
            break;
        }
        case ContentMode::Center:
            x = (w - is.width) / 2;
            y = (h - is.height) / 2;
            w = is.width;
            h = is.height;
            break;
    }
    // Aspect fill and centre may spill over the bounds; the view shows only its own area.
    cairo_save(context);
    cairo_rectangle(context, 0, 0, bounds.size.width, bounds.size.height);
    cairo_clip(context);
    detail::paintImage(context, *image_, x, y, w, h);
    cairo_restore(context);
}

// Attributed text ---------------------------------------------------------------------------

AttributedString::AttributedString(std::string text, TextAttributes attributes) {
    runs_.push_back({std::move(text), std::move(attributes)});
}

void AttributedString::append(const AttributedString& other) {
    for (const auto& r : other.runs_)
        if (!r.text.empty())
            runs_.push_back(r);
}

std::string AttributedString::string() const {
    std::string s;
    for (const auto& r : runs_)
        s += r.text;
    return s;
}

gfx::Size measureText(const AttributedString& text, double maxWidth) {
    detail::SurfacePtr surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1));
    detail::ContextPtr cr(cairo_create(surface.get()));
    LayoutPtr layout = makeLayout(cr.get(), text, maxWidth);
    PangoRectangle logical;
    pango_layout_get_extents(layout.get(), nullptr, &logical);
    return {static_cast<double>(logical.width) / PANGO_SCALE,
            static_cast<double>(logical.height) / PANGO_SCALE};
}

void drawText(cairo_t* context, const AttributedString& text, gfx::Rect rect) {
    if (text.runs().empty())
        return;
    cairo_save(context);
    LayoutPtr layout = makeLayout(context, text, rect.size.width);
    cairo_move_to(context, rect.minX(), rect.minY());
    pango_cairo_show_layout(context, layout.get());
    cairo_restore(context);
}

// Button ------------------------------------------------------------------------------------

Button::Button(gfx::Rect frame) : View(frame) {}

void Button::setAttributedTitle(AttributedString title, ControlState state) {
    titles_[static_cast<unsigned>(state)] = std::move(title);
    invalidateIntrinsicContentSize();
    setNeedsDisplay();
}

// Rounded up: laid out in exactly its measured width, a title could wrap its last word.
std::optional<gfx::Size> Button::intrinsicContentSize() const {
    const AttributedString* title = attributedTitle(ControlState::Normal);
    if (!title || title->runs().empty()) {
        return std::nullopt;
    }
    gfx::Size size = measureText(*title, 0);
    return gfx::Size{std::ceil(size.width), std::ceil(size.height)};
}

const AttributedString* Button::attributedTitle(ControlState state) const {
    auto it = titles_.find(static_cast<unsigned>(state));
    if (it == titles_.end())
        it = titles_.find(static_cast<unsigned>(ControlState::Normal));
    return it == titles_.end() ? nullptr : &it->second;
}

int Button::addTarget(std::function<void()> action, ControlEvent event) {
    int token = nextToken_++;
    targets_.push_back({token, event, std::move(action)});
    return token;
}

void Button::removeTarget(int token) {
    std::erase_if(targets_, [token](const Target& t) { return t.token == token; });
}

void Button::sendActions(ControlEvent event) {
    // Copy first: an action may remove targets or release the button.
    std::vector<std::function<void()>> actions;
    for (auto& t : targets_)
        if (t.event == event)
            actions.push_back(t.action);
    for (auto& a : actions)
        if (a)
            a();
}

void Button::draw(cairo_t* context, gfx::Rect bounds) {
    View::draw(context, bounds);
    const AttributedString* title = attributedTitle(ControlState::Normal);
    if (!title)
        return;
    gfx::Size size = measureText(*title, bounds.size.width);
    double y = (bounds.size.height - size.height) / 2;
    cairo_save(context);
    cairo_rectangle(context, 0, 0, bounds.size.width, bounds.size.height);
    cairo_clip(context);
    drawText(context, *title, {0, y, bounds.size.width, size.height});
    cairo_restore(context);
}

}  // namespace sorvan::ui
