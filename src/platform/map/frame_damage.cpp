#include "map/frame_damage.hpp"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "graphics/cairo_handles.hpp"

namespace sorvan::map::detail {

namespace {

bool sameSetting(const FrameState& a, const FrameState& b) {
    return a.camera == b.camera && a.size == b.size && a.scale == b.scale && a.ground == b.ground &&
           a.layers == b.layers && a.tiles.size() == b.tiles.size();
}

// The damage gathered in device pixels, clipped to the view.
class Region {
  public:
    Region(gfx::Size size, double scale)
        : region_(cairo_region_create()),
          scale_(scale),
          width_(static_cast<int>(std::ceil(size.width * scale))),
          height_(static_cast<int>(std::ceil(size.height * scale))) {}

    void add(const gfx::Rect& r) {
        int x0 = std::max(0, static_cast<int>(std::floor(r.minX() * scale_)));
        int y0 = std::max(0, static_cast<int>(std::floor(r.minY() * scale_)));
        int x1 = std::min(width_, static_cast<int>(std::ceil(r.maxX() * scale_)));
        int y1 = std::min(height_, static_cast<int>(std::ceil(r.maxY() * scale_)));
        if (x1 <= x0 || y1 <= y0)
            return;
        cairo_rectangle_int_t box{x0, y0, x1 - x0, y1 - y0};
        cairo_region_union_rectangle(region_.get(), &box);
    }

    std::vector<gfx::Rect> rects(std::size_t maxRects) const {
        std::vector<gfx::Rect> out;
        int n = cairo_region_num_rectangles(region_.get());
        cairo_rectangle_int_t box;
        if (static_cast<std::size_t>(n) > maxRects) {
            cairo_region_get_extents(region_.get(), &box);
            out.push_back(points(box));
            return out;
        }
        for (int i = 0; i < n; ++i) {
            cairo_region_get_rectangle(region_.get(), i, &box);
            out.push_back(points(box));
        }
        return out;
    }

  private:
    gfx::Rect points(const cairo_rectangle_int_t& b) const {
        return {b.x / scale_, b.y / scale_, b.width / scale_, b.height / scale_};
    }

    gfx::RegionPtr region_;
    double scale_;
    int width_, height_;
};

void addViews(Region& region, const std::vector<AnnotationLayer::Footprint>& views) {
    for (const auto& v : views)
        region.add(v.box);
}

}  // namespace

std::vector<gfx::Rect> FrameDamage::compare(FrameState next) {
    Region region(next.size, next.scale);
    if (whole_ || !last_ || !sameSetting(*last_, next)) {
        region.add({{0, 0}, next.size});
    } else {
        const FrameState& last = *last_;
        for (std::size_t i = 0; i < next.tiles.size(); ++i) {
            const ShownTile &was = last.tiles[i], &is = next.tiles[i];
            if (was.surface != is.surface || was.levelsUp != is.levelsUp)
                region.add(is.box);
        }
        if (last.viewContent != next.viewContent || last.viewsAnimating || next.viewsAnimating) {
            addViews(region, last.views);
            addViews(region, next.views);
        } else {
            std::unordered_map<const void*, const AnnotationLayer::Footprint*> before;
            before.reserve(last.views.size());
            for (const auto& v : last.views)
                before.emplace(v.id, &v);
            for (const auto& v : next.views) {
                auto it = before.find(v.id);
                if (it == before.end()) {
                    region.add(v.box);
                    continue;
                }
                if (!(*it->second == v)) {
                    region.add(it->second->box);
                    region.add(v.box);
                }
                before.erase(it);
            }
            for (const auto& [id, v] : before)
                region.add(v->box);
        }
    }
    whole_ = false;
    last_ = std::move(next);
    return region.rects(kMaxRects);
}

}  // namespace sorvan::map::detail
