// The callout bubble of the selected annotation view: its title and subtitle in a rounded box
// with a pointer whose tip stands on a point above the view. The text is laid out once per
// change of text and reused frame after frame; geometry is in the map view's points.
//
// Main queue only.
#pragma once

#include <memory>
#include <string>

#include "sorvan/platform/graphics/geometry.hpp"

typedef struct _cairo cairo_t;
typedef struct _PangoLayout PangoLayout;

namespace sorvan::map::detail {

class Callout {
  public:
    /// Widest text line before wrapping, in points.
    static constexpr double kMaxTextWidth = 260;
    static constexpr double kPadding = 10;
    static constexpr double kPointerHeight = 9;

    Callout();
    ~Callout();
    Callout(const Callout&) = delete;
    Callout& operator=(const Callout&) = delete;

    /// Lays the text out again only when it differs from the last. An empty title and
    /// subtitle leave nothing to show.
    void setText(const std::string& title, const std::string& subtitle);
    bool isEmpty() const { return title_.empty() && subtitle_.empty(); }

    /// The box (pointer excluded) when the pointer's tip stands on tip.
    gfx::Rect frame(gfx::Point tip) const;
    /// Box or pointer.
    bool contains(gfx::Point p, gfx::Point tip) const;
    void draw(cairo_t* context, gfx::Point tip) const;

  private:
    struct Text;
    std::string title_, subtitle_;
    std::unique_ptr<Text> text_;
    double textWidth_ = 0, titleHeight_ = 0, subtitleHeight_ = 0;
};

}  // namespace sorvan::map::detail
