// Renderers draw overlays. drawMapRect() is called on draw threads, possibly several at once
// for different tiles; everything else on the main queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/graphics/geometry.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/overlay.hpp"
#include "sorvan/platform/map/tile_overlay.hpp"

typedef struct _cairo cairo_t;

namespace sorvan::map {

class MapView;
namespace detail {
class TileStore;
}

class SORVAN_EXPORT OverlayRenderer : public std::enable_shared_from_this<OverlayRenderer> {
  public:
    explicit OverlayRenderer(std::shared_ptr<Overlay> overlay);
    virtual ~OverlayRenderer() = default;

    std::shared_ptr<Overlay> overlay() const { return overlay_; }
    double alpha() const { return alpha_.load(); }
    void setAlpha(double a) { alpha_.store(a); }

    /// Draws the part of the overlay inside mapRect (one tile). The context's user space is in
    /// map points (already scaled and translated). zoomScale = tile size in pixels of a 2x
    /// display / tile width in map points, so a point is 2 / zoomScale map points and
    /// log2(zoomScale) + 19 is the level of a 512-pixel tile. Called on draw threads, possibly
    /// several at once; the engine keeps what was drawn and calls again only when the tile
    /// first shows at a level, when its data arrives, or after setNeedsDisplay / reloadData.
    /// Whatever it throws is caught and logged ("drawMapRect Error (<renderer class> <address>,
    /// tile <z>/<x>/<y>): <what>"); that tile stays blank until the next of those occasions.
    virtual void drawMapRect(const MapRect& mapRect, double zoomScale, cairo_t* context);
    /// Whether drawMapRect() has anything to draw now; tile renderers answer whether the tile
    /// is loaded. Called on draw threads.
    virtual bool canDrawMapRect(const MapRect& mapRect, double zoomScale);

    /// Asks the map to redraw the whole overlay (main queue).
    void setNeedsDisplay();
    void setNeedsDisplayInMapRect(const MapRect& rect);
    /// Bumped by every setNeedsDisplay; the engine redraws tiles drawn at an older value.
    std::uint64_t displayGeneration() const { return generation_.load(); }

    /// The map view that shows this renderer, if any (set by the engine).
    std::shared_ptr<MapView> mapView() const { return mapView_.lock(); }
    void attach(const std::weak_ptr<MapView>& view) { mapView_ = view; }

  private:
    std::shared_ptr<Overlay> overlay_;
    std::atomic<double> alpha_{1.0};
    std::atomic<std::uint64_t> generation_{0};
    std::weak_ptr<MapView> mapView_;
};

/// Draws a tile overlay's tiles. The base drawMapRect draws the tile image with alpha().
class SORVAN_EXPORT TileOverlayRenderer : public OverlayRenderer {
  public:
    explicit TileOverlayRenderer(std::shared_ptr<TileOverlay> overlay);
    std::shared_ptr<TileOverlay> tileOverlay() const;
    void drawMapRect(const MapRect& mapRect, double zoomScale, cairo_t* context) override;
    bool canDrawMapRect(const MapRect& mapRect, double zoomScale) override;
    /// Forgets loaded tiles and loads and draws every visible tile again (main queue).
    virtual void reloadData();

    /// The decoded picture of the tile that mapRect and zoomScale name, or nullptr while it is
    /// not loaded (or has no picture). Thread-safe; for drawMapRect overrides.
    std::shared_ptr<gfx::Image> tileImage(const MapRect& mapRect, double zoomScale) const;
    /// The tile path that mapRect and zoomScale name.
    TilePath tilePath(const MapRect& mapRect, double zoomScale) const;

    /// Set by the engine when the renderer goes on a map (and cleared when it leaves).
    void attachTileStore(std::shared_ptr<detail::TileStore> store);

  private:
    std::shared_ptr<detail::TileStore> store() const;
    mutable std::mutex storeMutex_;
    std::shared_ptr<detail::TileStore> store_;
};

/// Strokes a polyline.
class SORVAN_EXPORT PolylineRenderer : public OverlayRenderer {
  public:
    explicit PolylineRenderer(std::shared_ptr<Polyline> polyline);
    gfx::Color strokeColor() const;
    void setStrokeColor(gfx::Color c);
    double lineWidth() const;  // points
    void setLineWidth(double w);
    void drawMapRect(const MapRect& mapRect, double zoomScale, cairo_t* context) override;

  private:
    mutable std::mutex mutex_;
    gfx::Color strokeColor_{0.0, 0.45, 0.9, 0.85};
    double lineWidth_ = 5.0;
};

}  // namespace sorvan::map
