// The map view's annotations and their views: the ordered list (the user location, when shown,
// comes last), one view per annotation asked of the host the first time the annotation comes
// near the screen and kept until the annotation leaves the map, placement of the views on their
// points, draw order (z-position, then list order), hit testing and the one selection.
//
// Per frame the layer reads every annotation's coordinate (annotations announce no moves) but
// re-projects only those that moved, and places, sorts and draws only views near the screen;
// the frame's working lists keep their storage from frame to frame. Removal is amortised
// constant time, so thousands of annotations can come and go. Views are placed on whole
// device pixels, so that a plain image view (the common case: icons of tags, events, cameras)
// is painted as a straight blend of its pixels (only the part that shows), directly onto the
// frame's pixels where the target allows it.
//
// Panning: the views as drawn are kept in a picture of the viewport and a margin around it.
// While nothing about the views changes (no view asks to be redrawn, no annotation moves,
// comes or goes, nothing animates) and the camera only moves by whole device pixels within the
// margin, a frame blends that picture instead of every view, so thousands of icons cost about
// one blend of the frame. Any other frame draws the views (into a new picture when it can). A
// frame with fewer than kPanPictureMinViews views near the screen draws them one by one: that
// is cheaper than the blend, and a map without annotations keeps no picture at all.
//
// The selected view, when it can show a callout, gets a bubble with its callout text above
// it, drawn over every view (never into the kept picture, so a selection costs no redraw of
// the picture).
//
// Main queue only. The host is called synchronously and may add or remove annotations (or
// select and deselect) from inside its calls.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "graphics/cairo_handles.hpp"
#include "map/callout.hpp"
#include "map/direct_blitter.hpp"
#include "map/viewport.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/annotation.hpp"
#include "sorvan/platform/map/annotation_view.hpp"
#include "sorvan/platform/ui/view.hpp"

typedef struct _cairo cairo_t;

namespace sorvan::map::detail {

class AnnotationLayer {
  public:
    /// What the layer needs from its map view. Called on the main queue.
    class Host {
      public:
        virtual ~Host() = default;
        /// The delegate's view for an annotation, or null for the engine's default.
        virtual std::shared_ptr<AnnotationView> askViewForAnnotation(
            const std::shared_ptr<Annotation>& annotation) = 0;
        virtual void didSelectAnnotationView(const std::shared_ptr<AnnotationView>& view) = 0;
        virtual void didDeselectAnnotationView(const std::shared_ptr<AnnotationView>& view) = 0;
        /// A view or the list changed in a way that shows.
        virtual void annotationsNeedDisplay() = 0;
        /// A tap on the selected view's callout bubble.
        virtual void calloutTapped(const std::shared_ptr<AnnotationView>& /*view*/) {}
    };

    /// Views made beyond the bounds by this many points, so that they are ready when a pan
    /// brings them in.
    static constexpr double kViewMargin = 50;

    AnnotationLayer(Host& host, std::shared_ptr<UserLocation> user);
    ~AnnotationLayer();
    AnnotationLayer(const AnnotationLayer&) = delete;
    AnnotationLayer& operator=(const AnnotationLayer&) = delete;

    // The list ------------------------------------------------------------------------------
    /// False for null or an annotation already on the map.
    bool add(const std::shared_ptr<Annotation>& annotation);
    /// Drops the annotation and its view (deselected first). False when it was not in the
    /// list (the user location is not removed this way).
    bool remove(const std::shared_ptr<Annotation>& annotation);
    bool contains(const Annotation* annotation) const;
    /// In the order added; the user location last while shown and located.
    std::vector<std::shared_ptr<Annotation>> annotations() const;
    std::size_t count() const;

    const std::shared_ptr<UserLocation>& userLocation() const { return user_; }
    bool showsUserLocation() const { return showsUser_; }
    /// Hiding the user location drops its view.
    void setShowsUserLocation(bool shows);

    // Views ---------------------------------------------------------------------------------
    std::shared_ptr<AnnotationView> viewFor(const Annotation* annotation) const;
    /// Asks for the views of annotations within kViewMargin of the screen that have none.
    void makeViewsNearScreen(const Viewport& viewport);
    /// The view of an annotation on the map, asked for now if it has none; null when the host
    /// removed the annotation while asked.
    std::shared_ptr<AnnotationView> makeView(const std::shared_ptr<Annotation>& annotation,
                                             const Viewport& viewport);
    /// The parent of every annotation view (not one of the map view's subviews).
    ui::View& container() { return *container_; }
    bool isAnimating() const;

    // A frame -------------------------------------------------------------------------------
    /// Puts the shown views near the screen (and the selected one) on their points (centre
    /// offset applied) and orders them for drawing and hit testing. Views far off screen keep
    /// their last frame.
    void place(const Viewport& viewport);
    /// Draws the placed views, bottom first, in the map view's space, and lets them go: from
    /// the kept picture of the views when the frame is a pan of the last one, else view by
    /// view.
    void draw(cairo_t* context);
    /// Where a placed view may show pixels: its frame grown by its own size on every side,
    /// the reach its transform is allowed. The callout bubble has one too, with its text.
    struct Footprint {
        const void* id;
        gfx::Rect box;
        std::string text;
        bool operator==(const Footprint&) const = default;
    };
    /// The placed views' footprints, bottom first, then the bubble's; call after place().
    void footprints(std::vector<Footprint>& out);
    /// Counts the changes in what the views show that placing them does not explain: a view
    /// redrawn, resized or restyled, an annotation added or removed.
    std::uint64_t contentVersion() const { return content_; }

    /// The device pixels of margin the kept picture has around the viewport.
    static constexpr int kPanMargin = 256;
    /// The fewest views near the screen for which a frame uses the kept picture.
    static constexpr std::size_t kPanPictureMinViews = 100;
    /// The selected view when a tap at point lands on its callout bubble (as the placed views
    /// show it), else null. On a miss the placed views are kept for hitTest.
    std::shared_ptr<AnnotationView> calloutHitTest(gfx::Point point);
    /// The topmost placed view under a point (hidden and nearly transparent views do not
    /// count), or null; lets the placed views go.
    std::shared_ptr<AnnotationView> hitTest(gfx::Point point);

    // Selection -----------------------------------------------------------------------------
    /// The selected annotation while it is on the map.
    std::shared_ptr<Annotation> selected() const;
    /// Deselects any other annotation first; the selection is recorded before the host hears
    /// of it, so that the host may undo it.
    void select(const std::shared_ptr<Annotation>& annotation, const Viewport& viewport);
    void deselect(const std::shared_ptr<Annotation>& annotation);

    /// Where the selected view and its callout bubble would stand with viewport, in the map
    /// view's points.
    struct CalloutPlacement {
        gfx::Rect bubble;  // the box, pointer excluded (its tip is on the view's top edge)
        gfx::Rect view;
    };
    /// Null when no bubble would show: nothing selected, a view that cannot show a callout or
    /// has no callout text, a hidden or transparent view, or one far off the screen.
    std::optional<CalloutPlacement> calloutPlacement(const Viewport& viewport);

  private:
    struct Entry {
        std::shared_ptr<Annotation> annotation;  // null once removed, until compaction
        std::shared_ptr<AnnotationView> view;
        Coordinate coordinate{NAN, NAN};  // as last projected
        MapPoint point;
    };
    // Placed views are held strongly while drawn or hit: a view's draw may remove annotations.
    struct Placed {
        std::shared_ptr<AnnotationView> view;
        double z;
        std::size_t order;
    };

    // A cairo surface over an image's pixels, kept while views show the image.
    struct ImageSurface {
        std::shared_ptr<gfx::Image> image;  // keeps the pixels (and the key) alive
        gfx::SurfacePtr surface;
        PixmanImage pixels;
        int inkX = 0, inkY = 0, inkWidth = 0, inkHeight = 0;  // where any pixel shows
        std::uint64_t lastFrame = 0;
    };

    // The views as drawn for one camera, with kPanMargin device pixels around the viewport.
    struct PanPicture {
        std::vector<std::uint32_t> pixels;
        PixmanImage image;
        int width = 0, height = 0;
        Camera camera;
        gfx::Size size;
        double scale = 0;
        cairo_matrix_t base{};
        std::uint64_t content = 0;
        bool valid = false;
    };

    // The selected view among the placed ones when it shows a callout, its text laid out.
    AnnotationView* calloutView();
    static gfx::Point calloutTip(const AnnotationView& view);
    static gfx::Point calloutTip(gfx::Rect viewFrame);
    // The frame that puts a view's centre (offset applied) on its annotation's point, on whole
    // device pixels.
    gfx::Rect frameOnPoint(Entry& entry, const AnnotationView& view, const Projection& project,
                           double scale);
    // Whether a view with this frame may show on a screen of this size.
    static bool nearScreen(gfx::Rect frame, double width, double height);
    Entry* entryFor(const Annotation* annotation);
    // Moves a view to where its annotation shows, without counting that as a change of what
    // the views show.
    void setFrameOnPoint(AnnotationView& view, gfx::Rect frame);
    // Whether this frame may use (or make) the kept picture, and the pan since it was drawn.
    bool panPictureUsable(const cairo_matrix_t& base, const DirectBlitter& blitter) const;
    bool panOffset(int& dx, int& dy) const;
    void drawPanPicture(const cairo_matrix_t& base);
    void drawView(cairo_t* context, const cairo_matrix_t& base, DirectBlitter& blitter,
                  AnnotationView& view, bool& moved);
    // Paints a plain image view as a pixel copy; false when it needs its full draw.
    bool paintPlainImageView(cairo_t* context, const cairo_matrix_t& base, DirectBlitter& blitter,
                             AnnotationView& view);
    const ImageSurface* surfaceFor(const std::shared_ptr<gfx::Image>& image);
    const Entry* entryFor(const Annotation* annotation) const;
    bool userShown() const;
    MapPoint pointOf(Entry& entry);
    void compact();
    // Calls fn(entry) for the list's entries, then the user location's while it is shown.
    template <class Fn>
    void forEachEntry(Fn&& fn);

    Host& host_;
    std::shared_ptr<UserLocation> user_;
    bool showsUser_ = false;
    Entry userEntry_;
    std::vector<Entry> entries_;
    std::unordered_map<const Annotation*, std::size_t> index_;  // live entries' positions
    std::size_t dead_ = 0;
    int walking_ = 0;  // > 0 while entries_ is being walked: no compaction
    std::weak_ptr<Annotation> selected_;
    std::shared_ptr<ui::View> container_;
    std::vector<Placed> placed_;  // this frame's views near the screen, bottom first
    std::unordered_map<const gfx::Image*, ImageSurface> surfaces_;
    std::uint64_t frame_ = 0;
    // Bumped whenever what the views show may have changed: a view asked to be redrawn, an
    // annotation moved, came or went.
    std::uint64_t content_ = 1;
    bool placing_ = false;  // a view is being moved onto its point
    Viewport placedFor_;    // the viewport of the last place()
    PanPicture pan_;
    Callout callout_;
};

}  // namespace sorvan::map::detail
