#include "support/engine_fixtures.hpp"

#include <cairo.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>

#include "sorvan/platform/graphics/image.hpp"

namespace sorvan::test {

std::vector<std::uint8_t> GeneratedTileOverlay::tileData(const map::TilePath& path) const {
    int size = static_cast<int>(tileSize().width);
    cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, size, size);
    cairo_t* cr = cairo_create(s);
    if (style_ == Style::Solid) {
        // Neighbouring tiles get different colours: the pattern shows seams and misplacement.
        static const double palette[6][3] = {{0.55, 0.75, 0.55}, {0.55, 0.65, 0.85},
                                             {0.85, 0.75, 0.5},  {0.8, 0.55, 0.55},
                                             {0.65, 0.55, 0.8},  {0.5, 0.75, 0.8}};
        auto idx = static_cast<std::size_t>(((path.x % 3) + 3 * (path.y % 2) + path.z) % 6);
        cairo_set_source_rgb(cr, palette[idx][0], palette[idx][1], palette[idx][2]);
        cairo_paint(cr);
        cairo_set_source_rgb(cr, 0.2, 0.2, 0.25);
        cairo_set_line_width(cr, 4);
        cairo_rectangle(cr, 2, 2, size - 4, size - 4);
        cairo_stroke(cr);
        // A mark in the north-west corner shows orientation.
        cairo_rectangle(cr, 12, 12, size / 8.0, size / 16.0);
        cairo_fill(cr);
    } else {
        cairo_arc(cr, size / 2.0, size / 2.0, size / 4.0, 0, 2 * M_PI);
        cairo_set_source_rgba(cr, 0.9, 0.2, 0.1, 0.6);
        cairo_fill(cr);
    }
    cairo_destroy(cr);
    cairo_surface_flush(s);
    std::vector<std::uint32_t> px(static_cast<std::size_t>(size) * size);
    auto* data = cairo_image_surface_get_data(s);
    int stride = cairo_image_surface_get_stride(s);
    for (int y = 0; y < size; ++y)
        std::memcpy(&px[static_cast<std::size_t>(y) * size], data + y * stride, size * 4);
    cairo_surface_destroy(s);
    auto image = gfx::Image::fromPixels(size, size, std::move(px), 2.0);
    return image ? image->pngData() : std::vector<std::uint8_t>{};
}

void GeneratedTileOverlay::loadTileAtPath(const map::TilePath& path, TileResult result) {
    bool fail;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(path);
        fail = failing_.count({path.z, path.x, path.y}) > 0;
    }
    if (fail) {
        result({}, std::string("generated failure"));
        return;
    }
    result(tileData(path), std::nullopt);
}

std::vector<map::TilePath> GeneratedTileOverlay::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

std::size_t GeneratedTileOverlay::requestCount() const {
    std::lock_guard lock(mutex_);
    return requests_.size();
}

void GeneratedTileOverlay::failPaths(
    std::set<std::tuple<std::int64_t, std::int64_t, std::int64_t>> paths) {
    std::lock_guard lock(mutex_);
    failing_ = std::move(paths);
}

void CountingTileRenderer::drawMapRect(const map::MapRect& rect, double zoomScale,
                                       cairo_t* context) {
    int now = ++inside_;
    int seen = maxConcurrent_.load();
    while (now > seen && !maxConcurrent_.compare_exchange_weak(seen, now)) {
    }
    // Long enough for the draw threads to overlap when the engine runs them in parallel.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    map::TileOverlayRenderer::drawMapRect(rect, zoomScale, context);
    {
        std::lock_guard lock(mutex_);
        drawn_.push_back(tilePath(rect, zoomScale));
        scales_.push_back(zoomScale);
    }
    ++draws_;
    --inside_;
}

std::vector<map::TilePath> CountingTileRenderer::drawn() const {
    std::lock_guard lock(mutex_);
    return drawn_;
}

std::vector<double> CountingTileRenderer::zoomScales() const {
    std::lock_guard lock(mutex_);
    return scales_;
}

std::shared_ptr<map::AnnotationView> RecordingDelegate::viewForAnnotation(
    map::MapView&, const std::shared_ptr<map::Annotation>& annotation) {
    viewRequests.push_back(annotation.get());
    return makeView ? makeView(annotation) : nullptr;
}

std::shared_ptr<map::OverlayRenderer> RecordingDelegate::rendererForOverlay(
    map::MapView& mapView, const std::shared_ptr<map::Overlay>& overlay) {
    rendererRequests.push_back(overlay.get());
    overlaysWhenAsked = mapView.overlays().size();
    return makeRenderer ? makeRenderer(overlay) : nullptr;
}

void RecordingDelegate::regionWillChangeAnimated(map::MapView&, bool animated) {
    regionWillChanges.push_back(animated);
}

void RecordingDelegate::regionDidChangeAnimated(map::MapView&, bool animated) {
    regionChanges.push_back(animated);
}

void RecordingDelegate::calloutTapped(map::MapView&,
                                      const std::shared_ptr<map::AnnotationView>& view) {
    calloutTaps.push_back(view);
}

void RecordingDelegate::didSelectAnnotationView(map::MapView& mapView,
                                                const std::shared_ptr<map::AnnotationView>& view) {
    selected.push_back(view);
    if (onSelect)
        onSelect(mapView, view);
}

void RecordingDelegate::didDeselectAnnotationView(
    map::MapView&, const std::shared_ptr<map::AnnotationView>& view) {
    deselected.push_back(view);
}

void pumpMainQueue(double seconds) {
    auto& loop = dispatch::RunLoop::main();
    loop.runUntil([] { return false; }, std::chrono::duration<double>(seconds));
}

void showLevel(map::MapView& view, int z, map::MapPoint center) {
    // 256-pixel tiles cover 128 points: the world is 128 * 2^z points wide.
    double zoom = 128.0 * std::exp2(z) / map::kMapWorldSize;
    double w = view.bounds().size.width / zoom, h = view.bounds().size.height / zoom;
    view.setVisibleMapRect({{center.x - w / 2, center.y - h / 2}, {w, h}});
}

}  // namespace sorvan::test
