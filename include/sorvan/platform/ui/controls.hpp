// Image views, attributed text and buttons (and, for those who include only this header, the
// web view). Main queue only.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/ui/view.hpp"
#include "sorvan/platform/ui/web_view.hpp"

namespace sorvan::ui {

class SORVAN_EXPORT ImageView : public View {
  public:
    explicit ImageView(std::shared_ptr<gfx::Image> image = nullptr);
    std::shared_ptr<gfx::Image> image() const { return image_; }
    void setImage(std::shared_ptr<gfx::Image> image);
    /// The image's size in points; none without an image.
    std::optional<gfx::Size> intrinsicContentSize() const override;
    void draw(cairo_t* context, gfx::Rect bounds) override;

  private:
    std::shared_ptr<gfx::Image> image_;
};

enum class TextAlignment { Left = 0, Center = 1, Right = 2 };
enum class FontWeight { Regular, Bold };

struct SORVAN_EXPORT TextAttributes {
    std::string fontFamily = "Sans";  // Pango family; Thai falls back through fontconfig
    FontWeight weight = FontWeight::Regular;
    double size = 12.0;  // points
    gfx::Color foreground = gfx::Color::black();
    bool underline = false;
    TextAlignment alignment = TextAlignment::Left;
};

/// Text with runs of attributes.
class SORVAN_EXPORT AttributedString {
  public:
    AttributedString() = default;
    AttributedString(std::string text, TextAttributes attributes);
    void append(const AttributedString& other);
    std::string string() const;
    struct Run {
        std::string text;
        TextAttributes attributes;
    };
    const std::vector<Run>& runs() const { return runs_; }

  private:
    std::vector<Run> runs_;
};

/// Lays out and draws attributed text with Pango (Thai shaping included).
SORVAN_EXPORT gfx::Size measureText(const AttributedString& text, double maxWidth);
SORVAN_EXPORT void drawText(cairo_t* context, const AttributedString& text, gfx::Rect rect);

enum class ControlState : unsigned { Normal = 0, Highlighted = 1, Disabled = 2, Selected = 4 };
enum class ControlEvent : unsigned { TouchDown = 1, TouchUpInside = 64, ValueChanged = 4096 };

class SORVAN_EXPORT Button : public View {
  public:
    explicit Button(gfx::Rect frame = {});
    void setAttributedTitle(AttributedString title, ControlState state = ControlState::Normal);
    const AttributedString* attributedTitle(ControlState state = ControlState::Normal) const;
    /// Target-action: the action runs when the event is sent. Returns a token for removal.
    int addTarget(std::function<void()> action, ControlEvent event);
    void removeTarget(int token);
    /// Sends an event as a tap would.
    void sendActions(ControlEvent event);
    /// The normal title on one line, in whole points; none without a title.
    std::optional<gfx::Size> intrinsicContentSize() const override;
    void draw(cairo_t* context, gfx::Rect bounds) override;

  private:
    std::map<unsigned, AttributedString> titles_;
    struct Target {
        int token;
        ControlEvent event;
        std::function<void()> action;
    };
    std::vector<Target> targets_;
    int nextToken_ = 1;
};

}  // namespace sorvan::ui
