// A small retained view tree: frames in points, subviews drawn in order above their parent,
// alpha, hidden, z-position, an affine transform about the centre, and layout by constraints.
// Views are shared objects; main queue only.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/geometry.hpp"

typedef struct _cairo cairo_t;

namespace sorvan::ui {

class LayoutConstraint;

enum class ContentMode { ScaleToFill = 0, ScaleAspectFit = 1, ScaleAspectFill = 2, Center = 4 };

/// Autoresizing mask bits, with the values hosts pass (18 = flexible width | flexible height).
enum AutoresizingMask : unsigned {
    kFlexibleWidth = 1u << 1,
    kFlexibleHeight = 1u << 4,
};

class SORVAN_EXPORT View : public std::enable_shared_from_this<View> {
  public:
    explicit View(gfx::Rect frame = {});
    virtual ~View();

    gfx::Rect frame() const { return frame_; }
    virtual void setFrame(gfx::Rect frame);
    /// (0, 0, frame size).
    gfx::Rect bounds() const { return {{0, 0}, frame_.size}; }
    gfx::Point center() const { return {frame_.midX(), frame_.midY()}; }
    void setCenter(gfx::Point c);

    double alpha() const { return alpha_; }
    void setAlpha(double a) {
        alpha_ = a;
        setNeedsDisplay();
    }
    bool isHidden() const { return hidden_; }
    void setHidden(bool h) {
        hidden_ = h;
        setNeedsDisplay();
    }
    double zPosition() const { return zPosition_; }
    void setZPosition(double z) {
        zPosition_ = z;
        setNeedsDisplay();
    }
    gfx::Color backgroundColor() const { return background_; }
    void setBackgroundColor(gfx::Color c) {
        background_ = c;
        setNeedsDisplay();
    }
    ContentMode contentMode() const { return contentMode_; }
    void setContentMode(ContentMode m) {
        contentMode_ = m;
        setNeedsDisplay();
    }
    unsigned autoresizingMask() const { return autoresizingMask_; }
    void setAutoresizingMask(unsigned m) { autoresizingMask_ = m; }

    /// The transform applied about the view's centre. setTransform is immediate;
    /// animateTransform moves to it over a duration (the engine interpolates the rotation).
    gfx::AffineTransform transform() const;
    void setTransform(const gfx::AffineTransform& t);
    void animateTransform(const gfx::AffineTransform& t, double durationSeconds);
    /// The transform to target once any animation has finished.
    gfx::AffineTransform targetTransform() const;
    /// True while this view or one of its subviews has a transform animation running.
    bool isAnimating() const;

    const std::vector<std::shared_ptr<View>>& subviews() const { return subviews_; }
    std::shared_ptr<View> superview() const { return superview_.lock(); }
    void addSubview(std::shared_ptr<View> view);
    void removeFromSuperview();

    /// The size the view's content wants (a button's title on one line, an image view's
    /// image); none for views that have no content size of their own. Layout gives it to a
    /// view that opted out of autoresizing translation wherever its constraints leave the
    /// width or height free or satisfied by it. Subclasses that override call
    /// invalidateIntrinsicContentSize() when it changes.
    virtual std::optional<gfx::Size> intrinsicContentSize() const;
    void invalidateIntrinsicContentSize();
    bool translatesAutoresizingMaskIntoConstraints() const { return translatesMask_; }
    void setTranslatesAutoresizingMaskIntoConstraints(bool v) { translatesMask_ = v; }

    /// Lays out the subviews: applies active constraints, autoresizing; override hook.
    virtual void layoutSubviews();
    void setNeedsLayout();
    void layoutIfNeeded();

    /// Draws this view's own content into context (user space = this view's bounds).
    virtual void draw(cairo_t* context, gfx::Rect bounds);
    /// Draws the view and its subviews (transform, alpha, hidden and z order applied).
    void drawHierarchy(cairo_t* context);
    /// Marks the view dirty and tells the root's needs-display callback.
    virtual void setNeedsDisplay();

    /// Converts a point in this view's space to another view's space (same tree).
    gfx::Point convertPoint(gfx::Point p, const View* to) const;
    /// The topmost visible view at a point in this view's space (nullptr when none).
    std::shared_ptr<View> hitTest(gfx::Point p);

    /// Constraints installed on this view (activation installs a constraint on the nearest
    /// common ancestor of its items).
    const std::vector<std::shared_ptr<LayoutConstraint>>& constraints() const {
        return constraints_;
    }
    void addConstraint(std::shared_ptr<LayoutConstraint> c);
    void removeConstraint(const std::shared_ptr<LayoutConstraint>& c);

  private:
    void constraintsChanged();
    gfx::Rect frame_;
    double alpha_ = 1.0;
    bool hidden_ = false;
    double zPosition_ = 0;
    gfx::Color background_ = gfx::Color::clear();
    ContentMode contentMode_ = ContentMode::ScaleToFill;
    unsigned autoresizingMask_ = 0;
    bool translatesMask_ = true;
    bool needsLayout_ = true;
    struct TransformState;
    std::shared_ptr<TransformState> transform_;
    std::vector<std::shared_ptr<View>> subviews_;
    std::weak_ptr<View> superview_;
    std::vector<std::shared_ptr<LayoutConstraint>> constraints_;
};

}  // namespace sorvan::ui
