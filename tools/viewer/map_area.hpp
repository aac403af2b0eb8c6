// The map's widget. It keeps the map's picture between frames, has the map redraw only what
// changed into it, and hands the picture to GTK as a grid of cells, each a render node of its
// own, of which only those the map redrew are made anew. GTK compares a frame's nodes with the
// last frame's: an unchanged cell is the very same node, so GTK repaints (and a GPU renderer
// uploads) only the changed cells. Main thread only.
#pragma once

#include <gtk/gtk.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "sorvan/platform/graphics/geometry.hpp"

namespace sorvan::viewer {

class MapArea {
  public:
    /// Draws what changed into the picture (user space: the map's points) and returns the
    /// rectangles redrawn, in points; draws everything when redrawAll.
    using Paint = std::function<std::vector<gfx::Rect>(cairo_t* context, bool redrawAll)>;
    /// Adds nodes over the map (in points), after the map's own.
    using Decorate = std::function<void(GtkSnapshot* snapshot, int width, int height)>;

    /// Side of a cell in device pixels: small enough that a moving dot or an arriving
    /// tile remakes a few cells, large enough that a frame has few nodes.
    static constexpr int kCell = 128;

    /// Told the widget's new size in points when GTK gives it one.
    using Resized = std::function<void(int width, int height)>;

    /// A new widget that owns its MapArea (freed with the widget).
    static GtkWidget* create(Paint paint, Decorate decorate, Resized resized);
    /// The area of a widget made by create().
    static MapArea& of(GtkWidget* widget);

    /// Brings the picture up to date with the map (a frame does so first).
    void update();
    /// The picture as the screen shows it after update(), in device pixels; null before the
    /// first frame.
    cairo_surface_t* picture() const { return picture_.get(); }
    /// The part of the picture the last frame made new cells for (0..1).
    double lastRemade() const { return lastRemade_; }

    MapArea(GtkWidget* widget, Paint paint, Decorate decorate, Resized resized);
    void snapshot(GtkSnapshot* snapshot);
    void sizeAllocated(int width, int height);

  private:
    struct Cell {
        GskRenderNode* node = nullptr;  // owned; holds a copy of the cell's pixels
        bool stale = true;
    };
    void resetCells(int columns, int rows);
    void markStale(const gfx::Rect& points);
    GskRenderNode* nodeOf(int column, int row) const;

    struct SurfaceFree {
        void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
    };

    GtkWidget* widget_;
    Paint paint_;
    Decorate decorate_;
    Resized resized_;
    std::unique_ptr<cairo_surface_t, SurfaceFree> picture_;
    int scale_ = 1;
    int columns_ = 0, rows_ = 0;
    std::vector<Cell> cells_;
    double lastRemade_ = 0;

  public:
    ~MapArea();
    MapArea(const MapArea&) = delete;
    MapArea& operator=(const MapArea&) = delete;
};

}  // namespace sorvan::viewer
