// Views that show annotations: an image (with its scale) centred on the annotation's point plus
// a centre offset, or a tinted pin. Main queue only.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/annotation.hpp"
#include "sorvan/platform/ui/view.hpp"

namespace sorvan::map {

class SORVAN_EXPORT AnnotationView : public ui::View {
  public:
    explicit AnnotationView(std::shared_ptr<Annotation> annotation,
                            std::string reuseIdentifier = "");

    std::shared_ptr<Annotation> annotation() const { return annotation_.lock(); }
    const std::string& reuseIdentifier() const { return reuseIdentifier_; }

    /// Setting an image sizes the view to the image's size in points.
    std::shared_ptr<gfx::Image> image() const { return image_; }
    void setImage(std::shared_ptr<gfx::Image> image);
    /// Offset of the view's centre from the annotation's point, in points.
    gfx::Point centerOffset() const { return centerOffset_; }
    void setCenterOffset(gfx::Point o) {
        centerOffset_ = o;
        setNeedsDisplay();
    }
    /// Whether selecting the view shows a callout bubble above it with the callout's title
    /// and subtitle (nothing shows when both are empty). A tap on the bubble reaches the map
    /// delegate's calloutTapped.
    bool canShowCallout() const { return canShowCallout_; }
    void setCanShowCallout(bool v) {
        canShowCallout_ = v;
        setNeedsDisplay();
    }
    /// The callout's text: what was set here, else the annotation's title and subtitle.
    std::optional<std::string> calloutTitle() const;
    void setCalloutTitle(std::optional<std::string> title);
    std::optional<std::string> calloutSubtitle() const;
    void setCalloutSubtitle(std::optional<std::string> subtitle);
    bool isSelected() const { return selected_; }
    void setSelected(bool s) {
        selected_ = s;
        setNeedsDisplay();
    }

    void draw(cairo_t* context, gfx::Rect bounds) override;

  private:
    std::weak_ptr<Annotation> annotation_;
    std::string reuseIdentifier_;
    std::shared_ptr<gfx::Image> image_;
    gfx::Point centerOffset_;
    bool canShowCallout_ = false;
    std::optional<std::string> calloutTitle_, calloutSubtitle_;
    bool selected_ = false;
};

/// A classic pin, tinted, with an optional drop animation when it first appears. The needle's
/// tip stands on the annotation's point (the view is 32 x 40 points, centre offset (0, -18)).
class SORVAN_EXPORT PinAnnotationView : public AnnotationView {
  public:
    explicit PinAnnotationView(std::shared_ptr<Annotation> annotation,
                               std::string reuseIdentifier = "");
    gfx::Color pinTintColor() const { return tint_; }
    void setPinTintColor(gfx::Color c) {
        tint_ = c;
        setNeedsDisplay();
    }
    bool animatesDrop() const { return animatesDrop_; }
    void setAnimatesDrop(bool v) { animatesDrop_ = v; }
    void draw(cairo_t* context, gfx::Rect bounds) override;

  private:
    gfx::Color tint_ = gfx::Color::red();
    bool animatesDrop_ = false;
};

}  // namespace sorvan::map
