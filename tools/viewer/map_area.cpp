#include "map_area.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <utility>

// The widget type: a GtkWidget that draws through its MapArea.
struct SorvanMapArea {
    GtkWidget parent_instance;
    sorvan::viewer::MapArea* area;
};

struct SorvanMapAreaClass {
    GtkWidgetClass parent_class;
};

G_DEFINE_TYPE(SorvanMapArea, sorvan_map_area, GTK_TYPE_WIDGET)

namespace {

SorvanMapArea* asMapArea(gpointer p) {
    return G_TYPE_CHECK_INSTANCE_CAST(p, sorvan_map_area_get_type(), SorvanMapArea);
}

}  // namespace

static void sorvan_map_area_init(SorvanMapArea* self) {
    self->area = nullptr;
}

static void sorvan_map_area_finalize(GObject* object) {
    delete asMapArea(object)->area;
    G_OBJECT_CLASS(sorvan_map_area_parent_class)->finalize(object);
}

static void sorvan_map_area_class_init(SorvanMapAreaClass* klass) {
    G_OBJECT_CLASS(klass)->finalize = sorvan_map_area_finalize;
    GTK_WIDGET_CLASS(klass)->snapshot = +[](GtkWidget* widget, GtkSnapshot* snapshot) {
        if (auto* area = asMapArea(widget)->area) {
            area->snapshot(snapshot);
        }
    };
    GTK_WIDGET_CLASS(klass)->size_allocate =
        +[](GtkWidget* widget, int width, int height, int baseline) {
            auto* parent = GTK_WIDGET_CLASS(sorvan_map_area_parent_class);
            if (parent->size_allocate != nullptr) {
                parent->size_allocate(widget, width, height, baseline);
            }
            if (auto* area = asMapArea(widget)->area) {
                area->sizeAllocated(width, height);
            }
        };
}

namespace sorvan::viewer {

GtkWidget* MapArea::create(Paint paint, Decorate decorate, Resized resized) {
    GtkWidget* widget = GTK_WIDGET(g_object_new(sorvan_map_area_get_type(), nullptr));
    asMapArea(widget)->area =
        new MapArea(widget, std::move(paint), std::move(decorate), std::move(resized));
    return widget;
}

MapArea& MapArea::of(GtkWidget* widget) {
    return *asMapArea(widget)->area;
}

MapArea::MapArea(GtkWidget* widget, Paint paint, Decorate decorate, Resized resized)
    : widget_(widget),
      paint_(std::move(paint)),
      decorate_(std::move(decorate)),
      resized_(std::move(resized)) {}

void MapArea::sizeAllocated(int width, int height) {
    if (resized_) {
        resized_(width, height);
    }
}

MapArea::~MapArea() {
    resetCells(0, 0);
}

void MapArea::resetCells(int columns, int rows) {
    for (Cell& c : cells_) {
        if (c.node) {
            gsk_render_node_unref(c.node);
        }
    }
    columns_ = columns;
    rows_ = rows;
    cells_.assign(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows), Cell{});
}

void MapArea::markStale(const gfx::Rect& r) {
    // Device pixels, rounded out; a rectangle on a cell's edge stales the cell beyond it too,
    // which costs little and never leaves a redrawn pixel out.
    int x0 = std::max(0, static_cast<int>(std::floor(r.minX() * scale_)) / kCell);
    int y0 = std::max(0, static_cast<int>(std::floor(r.minY() * scale_)) / kCell);
    int x1 = std::min(columns_ - 1, static_cast<int>(std::ceil(r.maxX() * scale_)) / kCell);
    int y1 = std::min(rows_ - 1, static_cast<int>(std::ceil(r.maxY() * scale_)) / kCell);
    for (int y = y0; y <= y1; ++y) {
        for (int x = x0; x <= x1; ++x) {
            cells_[static_cast<std::size_t>(y * columns_ + x)].stale = true;
        }
    }
}

void MapArea::update() {
    int width = gtk_widget_get_width(widget_), height = gtk_widget_get_height(widget_);
    if (width <= 0 || height <= 0) {
        return;
    }
    scale_ = std::max(1, gtk_widget_get_scale_factor(widget_));
    int pw = width * scale_, ph = height * scale_;
    bool fresh = !picture_ || cairo_image_surface_get_width(picture_.get()) != pw ||
                 cairo_image_surface_get_height(picture_.get()) != ph;
    if (fresh) {
        picture_.reset(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pw, ph));
        resetCells((pw + kCell - 1) / kCell, (ph + kCell - 1) / kCell);
    }
    {
        std::unique_ptr<cairo_t, void (*)(cairo_t*)> cr(cairo_create(picture_.get()),
                                                        cairo_destroy);
        cairo_scale(cr.get(), scale_, scale_);
        for (const gfx::Rect& r : paint_(cr.get(), fresh)) {
            markStale(r);
        }
    }
    cairo_surface_flush(picture_.get());
}

GskRenderNode* MapArea::nodeOf(int column, int row) const {
    int pw = cairo_image_surface_get_width(picture_.get());
    int ph = cairo_image_surface_get_height(picture_.get());
    int x = column * kCell, y = row * kCell;
    int w = std::min(kCell, pw - x), h = std::min(kCell, ph - y);
    // The cell's own copy: the node keeps it (a cairo node records what it is drawn from), and
    // the picture changes under it. Copied row by row into memory the heap hands back from
    // earlier cells, not into a new zeroed surface: a frame that moves the map remakes every
    // cell.
    int stride = cairo_format_stride_for_width(CAIRO_FORMAT_ARGB32, w);
    auto* data = static_cast<unsigned char*>(
        g_malloc(static_cast<std::size_t>(stride) * static_cast<std::size_t>(h)));
    int from = cairo_image_surface_get_stride(picture_.get());
    const unsigned char* source = cairo_image_surface_get_data(picture_.get()) +
                                  static_cast<std::size_t>(y) * static_cast<std::size_t>(from) +
                                  static_cast<std::size_t>(x) * 4;
    for (int k = 0; k < h; ++k) {
        std::memcpy(data + static_cast<std::size_t>(k) * static_cast<std::size_t>(stride),
                    source + static_cast<std::size_t>(k) * static_cast<std::size_t>(from),
                    static_cast<std::size_t>(w) * 4);
    }
    std::unique_ptr<cairo_surface_t, SurfaceFree> pixels(
        cairo_image_surface_create_for_data(data, CAIRO_FORMAT_ARGB32, w, h, stride));
    static cairo_user_data_key_t ownsData;
    if (cairo_surface_set_user_data(pixels.get(), &ownsData, data, g_free) !=
        CAIRO_STATUS_SUCCESS) {
        g_free(data);
        return nullptr;
    }
    auto at = [this](int v) { return static_cast<float>(v) / static_cast<float>(scale_); };
    graphene_rect_t bounds = GRAPHENE_RECT_INIT(at(x), at(y), at(w), at(h));
    GskRenderNode* node = gsk_cairo_node_new(&bounds);
    std::unique_ptr<cairo_t, void (*)(cairo_t*)> cr(gsk_cairo_node_get_draw_context(node),
                                                    cairo_destroy);
    // Node space is points; the copy is device pixels.
    cairo_translate(cr.get(), at(x), at(y));
    cairo_scale(cr.get(), 1.0 / scale_, 1.0 / scale_);
    cairo_set_source_surface(cr.get(), pixels.get(), 0, 0);
    cairo_paint(cr.get());
    return node;
}

void MapArea::snapshot(GtkSnapshot* snapshot) {
    update();
    if (!picture_) {
        return;
    }
    int pw = cairo_image_surface_get_width(picture_.get());
    int ph = cairo_image_surface_get_height(picture_.get());
    std::size_t remade = 0;
    for (int row = 0; row < rows_; ++row) {
        for (int column = 0; column < columns_; ++column) {
            Cell& cell = cells_[static_cast<std::size_t>(row * columns_ + column)];
            if (cell.stale || !cell.node) {
                if (cell.node) {
                    gsk_render_node_unref(cell.node);
                }
                cell.node = nodeOf(column, row);
                if (!cell.node) {
                    continue;
                }
                cell.stale = false;
                remade += static_cast<std::size_t>(std::min(kCell, pw - column * kCell)) *
                          static_cast<std::size_t>(std::min(kCell, ph - row * kCell));
            }
            gtk_snapshot_append_node(snapshot, cell.node);
        }
    }
    lastRemade_ = static_cast<double>(remade) / (static_cast<double>(pw) * ph);
    if (decorate_) {
        decorate_(snapshot, gtk_widget_get_width(widget_), gtk_widget_get_height(widget_));
    }
}

}  // namespace sorvan::viewer
