// Fakes for map engine tests: a tile overlay serving generated tiles, a renderer that counts
// its draw calls, a delegate that records what the map tells it, and a replayable location.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <tuple>
#include <vector>

#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/map/map_view.hpp"
#include "sorvan/platform/map/tile_overlay.hpp"

namespace sorvan::test {

/// Serves a PNG per tile: a colour from the tile's address with a dark frame (Style::Solid),
/// or a translucent disc on a transparent ground (Style::Disc). Thread-safe.
class GeneratedTileOverlay : public map::TileOverlay {
  public:
    enum class Style { Solid, Disc };
    explicit GeneratedTileOverlay(Style style = Style::Solid) : style_(style) {}

    void loadTileAtPath(const map::TilePath& path, TileResult result) override;

    /// Every path asked for, in order.
    std::vector<map::TilePath> requests() const;
    std::size_t requestCount() const;
    /// Paths answered with an error instead of a picture.
    void failPaths(std::set<std::tuple<std::int64_t, std::int64_t, std::int64_t>> paths);

    /// The encoded tile for a path (what loadTileAtPath hands back).
    std::vector<std::uint8_t> tileData(const map::TilePath& path) const;

  private:
    Style style_;
    mutable std::mutex mutex_;
    std::vector<map::TilePath> requests_;
    std::set<std::tuple<std::int64_t, std::int64_t, std::int64_t>> failing_;
};

/// A tile renderer that counts its draw calls (per level/column/row). Thread-safe.
class CountingTileRenderer : public map::TileOverlayRenderer {
  public:
    using map::TileOverlayRenderer::TileOverlayRenderer;
    void drawMapRect(const map::MapRect& rect, double zoomScale, cairo_t* context) override;
    std::size_t drawCount() const { return draws_.load(); }
    std::vector<map::TilePath> drawn() const;
    std::vector<double> zoomScales() const;
    int maxConcurrent() const { return maxConcurrent_.load(); }

  private:
    std::atomic<std::size_t> draws_{0};
    std::atomic<int> inside_{0}, maxConcurrent_{0};
    mutable std::mutex mutex_;
    std::vector<map::TilePath> drawn_;
    std::vector<double> scales_;
};

/// Records delegate calls; optional hooks decide the answers.
class RecordingDelegate : public map::MapViewDelegate {
  public:
    std::function<std::shared_ptr<map::OverlayRenderer>(const std::shared_ptr<map::Overlay>&)>
        makeRenderer;
    std::function<std::shared_ptr<map::AnnotationView>(const std::shared_ptr<map::Annotation>&)>
        makeView;
    std::function<void(map::MapView&, const std::shared_ptr<map::AnnotationView>&)> onSelect;

    std::vector<bool> regionWillChanges, regionChanges;
    std::vector<std::shared_ptr<map::AnnotationView>> calloutTaps;
    std::vector<const map::Annotation*> viewRequests;
    std::vector<const map::Overlay*> rendererRequests;
    std::vector<std::shared_ptr<map::AnnotationView>> selected, deselected;
    /// Overlays on the map while the renderer was asked (to prove the call is synchronous).
    std::size_t overlaysWhenAsked = 0;

    std::shared_ptr<map::AnnotationView> viewForAnnotation(
        map::MapView& mapView, const std::shared_ptr<map::Annotation>& annotation) override;
    std::shared_ptr<map::OverlayRenderer> rendererForOverlay(
        map::MapView& mapView, const std::shared_ptr<map::Overlay>& overlay) override;
    void regionWillChangeAnimated(map::MapView& mapView, bool animated) override;
    void regionDidChangeAnimated(map::MapView& mapView, bool animated) override;
    void calloutTapped(map::MapView& mapView,
                       const std::shared_ptr<map::AnnotationView>& view) override;
    void didSelectAnnotationView(map::MapView& mapView,
                                 const std::shared_ptr<map::AnnotationView>& view) override;
    void didDeselectAnnotationView(map::MapView& mapView,
                                   const std::shared_ptr<map::AnnotationView>& view) override;
};

/// Runs the main queue for a while (or until it has nothing left to do right now).
void pumpMainQueue(double seconds = 0.05);

/// A 1-point-per-tile-pixel viewport: the map shows level z of 256-pixel tiles at scale 2
/// exactly, centred on a map point.
void showLevel(map::MapView& view, int z, map::MapPoint center);

}  // namespace sorvan::test
