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
        if (c.texture) {
            g_object_unref(c.texture);
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

GdkTexture* MapArea::textureOf(int column, int row) const {
    int pw = cairo_image_surface_get_width(picture_.get());
    int ph = cairo_image_surface_get_height(picture_.get());
    int x = column * kCell, y = row * kCell;
    int w = std::min(kCell, pw - x), h = std::min(kCell, ph - y);
    int stride = cairo_image_surface_get_stride(picture_.get());
    const unsigned char* from = cairo_image_surface_get_data(picture_.get()) +
                                static_cast<std::size_t>(y) * static_cast<std::size_t>(stride) +
                                static_cast<std::size_t>(x) * 4;
    std::size_t row_bytes = static_cast<std::size_t>(w) * 4;
    auto* pixels = static_cast<unsigned char*>(g_malloc(row_bytes * static_cast<std::size_t>(h)));
    for (int k = 0; k < h; ++k) {
        std::memcpy(pixels + row_bytes * static_cast<std::size_t>(k),
                    from + static_cast<std::size_t>(k) * static_cast<std::size_t>(stride),
                    row_bytes);
    }
    GBytes* bytes = g_bytes_new_take(pixels, row_bytes * static_cast<std::size_t>(h));
    // Cairo's ARGB32 is premultiplied BGRA in memory on this byte order: GDK's default.
    GdkTexture* texture = gdk_memory_texture_new(w, h, GDK_MEMORY_DEFAULT, bytes, row_bytes);
    g_bytes_unref(bytes);
    return texture;
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
            if (cell.stale || !cell.texture) {
                if (cell.texture) {
                    g_object_unref(cell.texture);
                }
                cell.texture = textureOf(column, row);
                cell.stale = false;
                remade += static_cast<std::size_t>(gdk_texture_get_width(cell.texture)) *
                          static_cast<std::size_t>(gdk_texture_get_height(cell.texture));
            }
            graphene_rect_t bounds =
                GRAPHENE_RECT_INIT(static_cast<float>(column * kCell) / static_cast<float>(scale_),
                                   static_cast<float>(row * kCell) / static_cast<float>(scale_),
                                   static_cast<float>(gdk_texture_get_width(cell.texture)) /
                                       static_cast<float>(scale_),
                                   static_cast<float>(gdk_texture_get_height(cell.texture)) /
                                       static_cast<float>(scale_));
            gtk_snapshot_append_texture(snapshot, cell.texture, &bounds);
        }
    }
    lastRemade_ = static_cast<double>(remade) / (static_cast<double>(pw) * ph);
    if (decorate_) {
        decorate_(snapshot, gtk_widget_get_width(widget_), gtk_widget_get_height(widget_));
    }
}

}  // namespace sorvan::viewer
