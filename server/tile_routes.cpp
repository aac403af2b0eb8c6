// Tile sources beside the map server: WMS GetMap, {z}/{x}/{y} and TMS templates, data tiles,
// and map-server-style partner and traffic paths. Pictures are painted from world
// coordinates, so neighbouring tiles join and a WMS box shows what the tiles under it show;
// each tile is painted once and then answered from memory, so a client measuring itself
// against this service is not measuring the painter.
//
// Fault convention for every path here (the core's injectFault() works too): query item
// "status=N" answers status N, "delay=S" waits S seconds first, "garbage=1" answers 200 with
// bytes that are no picture.
#include <cairo.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {
namespace {

constexpr double kHalfWorld = 20037508.342789244;  // metres, EPSG:3857

struct SurfaceDeleter {
    void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
};
struct ContextDeleter {
    void operator()(cairo_t* c) const { cairo_destroy(c); }
};

enum class Style { Base, Overlay, Traffic, Imagery };

struct Box {
    double minX, minY, maxX, maxY;  // metres
};

std::uint32_t mix(std::int64_t a, std::int64_t b, std::int64_t c) {
    std::uint64_t h = 0x9E3779B97F4A7C15ull;
    for (std::int64_t v : {a, b, c}) {
        h ^= static_cast<std::uint64_t>(v) + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
        h *= 0xBF58476D1CE4E5B9ull;
        h ^= h >> 31;
    }
    return static_cast<std::uint32_t>(h);
}

// Paints a box of the world. Grid lines (roads) and cells (blocks) sit at fixed world
// positions for a given level of detail, so the picture depends only on where the box is.
class Painter {
  public:
    Painter(const Box& box, int width, int height, Style style, bool transparent)
        : box_(box), w_(width), h_(height), style_(style), transparent_(transparent) {}

    std::optional<std::string> png() {
        std::unique_ptr<cairo_surface_t, SurfaceDeleter> surface(
            cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w_, h_));
        if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
            return std::nullopt;
        }
        std::unique_ptr<cairo_t, ContextDeleter> cr(cairo_create(surface.get()));
        if (cairo_status(cr.get()) != CAIRO_STATUS_SUCCESS) {
            return std::nullopt;
        }
        cr_ = cr.get();
        double bw = box_.maxX - box_.minX;
        level_ = static_cast<int>(std::floor(std::log2(std::max(bw, 1e-3) / 4)));
        spacing_ = std::exp2(level_);
        switch (style_) {
            case Style::Base:
                paintBase();
                break;
            case Style::Overlay:
                paintOverlay();
                break;
            case Style::Traffic:
                paintTraffic();
                break;
            case Style::Imagery:
                paintImagery();
                break;
        }
        cairo_surface_flush(surface.get());
        std::string out;
        auto status = cairo_surface_write_to_png_stream(
            surface.get(),
            [](void* closure, const unsigned char* data, unsigned int length) {
                static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data),
                                                           length);
                return CAIRO_STATUS_SUCCESS;
            },
            &out);
        if (status != CAIRO_STATUS_SUCCESS) {
            return std::nullopt;
        }
        return out;
    }

  private:
    double px(double x) const { return (x - box_.minX) * w_ / (box_.maxX - box_.minX); }
    double py(double y) const { return (box_.maxY - y) * h_ / (box_.maxY - box_.minY); }
    std::int64_t first(double min) const {
        return static_cast<std::int64_t>(std::floor(min / spacing_)) - 1;
    }
    std::int64_t last(double max) const {
        return static_cast<std::int64_t>(std::ceil(max / spacing_)) + 1;
    }
    void rgb(int r, int g, int b, double a = 1) {
        cairo_set_source_rgba(cr_, r / 255.0, g / 255.0, b / 255.0, a);
    }
    void cellRect(std::int64_t i, std::int64_t j, double inset) {
        double x0 = px(i * spacing_), x1 = px((i + 1) * spacing_);
        double y0 = py((j + 1) * spacing_), y1 = py(j * spacing_);
        cairo_rectangle(cr_, x0 + inset, y0 + inset, x1 - x0 - 2 * inset, y1 - y0 - 2 * inset);
    }
    void label(double x, double y, const std::string& text) {
        cairo_select_font_face(cr_, "Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
        cairo_set_font_size(cr_, 10);
        rgb(70, 70, 70);
        cairo_move_to(cr_, x, y);
        cairo_show_text(cr_, text.c_str());
    }

    void paintBase() {
        if (!transparent_) {
            rgb(242, 239, 233);
            cairo_paint(cr_);
        }
        for (auto i = first(box_.minX); i <= last(box_.maxX); ++i) {
            for (auto j = first(box_.minY); j <= last(box_.maxY); ++j) {
                std::uint32_t hsh = mix(i, j, level_);
                if (hsh % 7 == 0) {
                    rgb(170, 210, 240);
                } else if (hsh % 5 == 0) {
                    rgb(200, 230, 190);
                } else {
                    rgb(225, 218, 208);
                }
                cellRect(i, j, 6);
                cairo_fill(cr_);
            }
        }
        auto road = [&](bool vertical, std::int64_t k) {
            bool major = mix(k, vertical, level_) % 3 == 0;
            for (int pass = 0; pass < 2; ++pass) {
                cairo_set_line_width(cr_, (major ? 7 : 4) - pass * 2);
                pass == 0 ? rgb(190, 185, 175) : (major ? rgb(250, 220, 140) : rgb(255, 255, 255));
                if (vertical) {
                    cairo_move_to(cr_, px(k * spacing_), 0);
                    cairo_line_to(cr_, px(k * spacing_), h_);
                } else {
                    cairo_move_to(cr_, 0, py(k * spacing_));
                    cairo_line_to(cr_, w_, py(k * spacing_));
                }
                cairo_stroke(cr_);
            }
        };
        for (auto i = first(box_.minX); i <= last(box_.maxX); ++i) {
            road(true, i);
        }
        for (auto j = first(box_.minY); j <= last(box_.maxY); ++j) {
            road(false, j);
        }
        for (auto i = first(box_.minX); i <= last(box_.maxX); ++i) {
            for (auto j = first(box_.minY); j <= last(box_.maxY); ++j) {
                std::uint32_t hsh = mix(j, i, level_ + 100);
                if (hsh % 3 == 0) {
                    label(px(i * spacing_) + 9, py((j + 0.5) * spacing_),
                          "Soi " + std::to_string(hsh % 97));
                }
            }
        }
    }

    void paintOverlay() {
        for (auto i = first(box_.minX); i <= last(box_.maxX); ++i) {
            for (auto j = first(box_.minY); j <= last(box_.maxY); ++j) {
                std::uint32_t hsh = mix(i, j, level_ + 7);
                if (hsh % 4 != 0) {
                    continue;
                }
                double x = px((i + 0.3) * spacing_), y = py((j + 0.6) * spacing_);
                cairo_arc(cr_, x, y, 6, 0, 2 * M_PI);
                rgb(255, 255, 255);
                cairo_fill_preserve(cr_);
                static const int colours[4][3] = {
                    {220, 60, 50}, {40, 120, 220}, {40, 160, 80}, {230, 140, 30}};
                const int* c = colours[(hsh >> 4) % 4];
                rgb(c[0], c[1], c[2]);
                cairo_set_line_width(cr_, 3);
                cairo_stroke(cr_);
                label(x + 9, y + 4, "POI " + std::to_string(hsh % 211));
            }
        }
    }

    void paintTraffic() {
        static const int colours[3][3] = {{40, 180, 60}, {240, 190, 20}, {220, 40, 40}};
        cairo_set_line_width(cr_, 4);
        cairo_set_line_cap(cr_, CAIRO_LINE_CAP_BUTT);
        for (auto i = first(box_.minX); i <= last(box_.maxX); ++i) {
            if (mix(i, 1, level_) % 3 != 0) {
                continue;
            }
            for (auto j = first(box_.minY); j <= last(box_.maxY); ++j) {
                const int* c = colours[mix(i, j, level_ + 3) % 3];
                rgb(c[0], c[1], c[2], 0.9);
                cairo_move_to(cr_, px(i * spacing_), py(j * spacing_));
                cairo_line_to(cr_, px(i * spacing_), py((j + 1) * spacing_));
                cairo_stroke(cr_);
            }
        }
        for (auto j = first(box_.minY); j <= last(box_.maxY); ++j) {
            if (mix(j, 0, level_) % 3 != 0) {
                continue;
            }
            for (auto i = first(box_.minX); i <= last(box_.maxX); ++i) {
                const int* c = colours[mix(j, i, level_ + 5) % 3];
                rgb(c[0], c[1], c[2], 0.9);
                cairo_move_to(cr_, px(i * spacing_), py(j * spacing_));
                cairo_line_to(cr_, px((i + 1) * spacing_), py(j * spacing_));
                cairo_stroke(cr_);
            }
        }
    }

    void paintImagery() {
        double coarse = spacing_;
        spacing_ = coarse / 4;
        for (auto i = first(box_.minX); i <= last(box_.maxX); ++i) {
            for (auto j = first(box_.minY); j <= last(box_.maxY); ++j) {
                std::uint32_t hsh = mix(i, j, level_ + 11);
                int shade = static_cast<int>(hsh % 40);
                if (hsh % 6 == 0) {
                    rgb(150 + shade, 130 + shade, 100);
                } else {
                    rgb(70 + shade, 110 + shade, 60);
                }
                cellRect(i, j, 0);
                cairo_fill(cr_);
            }
        }
        spacing_ = coarse;
    }

    Box box_;
    int w_, h_;
    Style style_;
    bool transparent_;
    cairo_t* cr_ = nullptr;
    int level_ = 0;
    double spacing_ = 1;
};

Box tileBox(std::int64_t z, std::int64_t x, std::int64_t y) {
    double size = 2 * kHalfWorld / std::exp2(static_cast<double>(z));
    return {-kHalfWorld + x * size, kHalfWorld - (y + 1) * size, -kHalfWorld + (x + 1) * size,
            kHalfWorld - y * size};
}

// Painted tiles, kept encoded. Bounded: when full it starts over (cheap, and a client never
// sees a difference except in time).
class TileMemo {
  public:
    std::optional<std::string> get(Style style, std::int64_t z, std::int64_t x, std::int64_t y) {
        std::string key = std::to_string(static_cast<int>(style)) + "/" + std::to_string(z) + "/" +
                          std::to_string(x) + "/" + std::to_string(y);
        {
            std::lock_guard lock(mutex_);
            if (auto it = tiles_.find(key); it != tiles_.end()) {
                return it->second;
            }
        }
        auto png = Painter(tileBox(z, x, y), 256, 256, style, false).png();
        if (png) {
            std::lock_guard lock(mutex_);
            if (tiles_.size() >= kMaxTiles) {
                tiles_.clear();
            }
            tiles_.emplace(key, *png);
        }
        return png;
    }

  private:
    static constexpr std::size_t kMaxTiles = 8192;
    std::mutex mutex_;
    std::map<std::string, std::string> tiles_;
};

std::string upper(std::string s) {
    for (char& c : s) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return s;
}

// WMS parameter names are case-insensitive.
std::map<std::string, std::string> wmsParameters(const Request& request) {
    std::map<std::string, std::string> out;
    for (const auto& [k, v] : request.queryItems()) {
        out.emplace(upper(k), v);
    }
    return out;
}

std::optional<long long> parseInteger(const std::string& text) {
    if (text.empty() || text.size() > 18) {
        return std::nullopt;
    }
    std::size_t at = text[0] == '-' ? 1 : 0;
    if (at == text.size()) {
        return std::nullopt;
    }
    for (std::size_t i = at; i < text.size(); ++i) {
        if (!std::isdigit(static_cast<unsigned char>(text[i]))) {
            return std::nullopt;
        }
    }
    return std::stoll(text);
}

std::optional<double> parseNumber(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size() || !std::isfinite(v)) {
        return std::nullopt;
    }
    return v;
}

Response badRequest(const std::string& why) {
    return Response::text(400, why + "\n");
}

Response wms(const Request& request) {
    auto p = wmsParameters(request);
    auto param = [&](const char* k) -> std::string {
        auto it = p.find(k);
        return it == p.end() ? std::string() : it->second;
    };
    if (upper(param("SERVICE")) != "WMS") {
        return badRequest("WMS: SERVICE must be WMS");
    }
    if (upper(param("REQUEST")) != "GETMAP") {
        return badRequest("WMS: only REQUEST=GetMap is served");
    }
    std::string srs = upper(param("SRS").empty() ? param("CRS") : param("SRS"));
    if (srs != "EPSG:4326" && srs != "EPSG:3857" && srs != "EPSG:900913") {
        return badRequest("WMS: SRS must be EPSG:4326 or EPSG:3857");
    }
    std::string format = param("FORMAT");
    if (!format.empty() && format.rfind("image/png", 0) != 0) {
        return badRequest("WMS: FORMAT must be image/png");
    }
    auto width = parseInteger(param("WIDTH"));
    auto height = parseInteger(param("HEIGHT"));
    if (!width || !height || *width < 1 || *height < 1 || *width > 4096 || *height > 4096) {
        return badRequest("WMS: WIDTH and HEIGHT must be 1..4096");
    }
    std::string bboxText = param("BBOX");
    double b[4];
    std::size_t start = 0;
    for (int i = 0; i < 4; ++i) {
        std::size_t comma = bboxText.find(',', start);
        if ((i < 3) == (comma == std::string::npos)) {
            return badRequest("WMS: BBOX must be four numbers");
        }
        auto v = parseNumber(
            bboxText.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (!v) {
            return badRequest("WMS: BBOX must be four numbers");
        }
        b[i] = *v;
        start = comma + 1;
    }
    Box box{b[0], b[1], b[2], b[3]};
    if (srs == "EPSG:4326") {
        auto mercY = [](double lat) {
            lat = std::clamp(lat, -85.0511287798, 85.0511287798);
            return std::log(std::tan((lat + 90) * M_PI / 360)) * kHalfWorld / M_PI;
        };
        box = {b[0] * kHalfWorld / 180, mercY(b[1]), b[2] * kHalfWorld / 180, mercY(b[3])};
    }
    if (!(box.maxX > box.minX) || !(box.maxY > box.minY)) {
        return badRequest("WMS: BBOX is empty");
    }
    bool transparent = upper(param("TRANSPARENT")) == "TRUE";
    auto png =
        Painter(box, static_cast<int>(*width), static_cast<int>(*height), Style::Base, transparent)
            .png();
    if (!png) {
        return Response::text(500, "WMS: painting failed\n");
    }
    return Response::png(std::move(*png));
}

// "/prefix/{z}/{x}/{y}[.ext]" -> z, x, y
std::optional<std::array<std::int64_t, 3>> tilePath(const std::string& path,
                                                    const std::string& prefix) {
    std::string rest = path.substr(prefix.size());
    if (auto dot = rest.rfind('.');
        dot != std::string::npos && rest.find('/', dot) == std::string::npos) {
        rest.resize(dot);
    }
    std::array<std::int64_t, 3> v{};
    std::size_t start = 0;
    for (int i = 0; i < 3; ++i) {
        std::size_t slash = rest.find('/', start);
        if ((i < 2) == (slash == std::string::npos)) {
            return std::nullopt;
        }
        auto n = parseInteger(
            rest.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
        if (!n) {
            return std::nullopt;
        }
        v[i] = *n;
        start = slash + 1;
    }
    auto [z, x, y] = v;
    if (z < 0 || z > 30 || x < 0 || y < 0 || x >= (std::int64_t{1} << z) ||
        y >= (std::int64_t{1} << z)) {
        return std::nullopt;
    }
    return v;
}

Handler xyz(std::shared_ptr<TileMemo> memo, std::string prefix, Style style, bool tms) {
    return [memo, prefix, style, tms](const Request& request) {
        auto zxy = tilePath(request.path, prefix);
        if (!zxy) {
            return Response::text(404, "no such tile\n");
        }
        auto [z, x, y] = *zxy;
        if (tms) {
            y = (std::int64_t{1} << z) - y - 1;  // rows counted from the south
        }
        auto png = memo->get(style, z, x, y);
        if (!png) {
            return Response::text(500, "painting failed\n");
        }
        return Response::png(std::move(*png));
    };
}

// Map-server-style requests (c=1&proj=epsg3857&mode=...&res=...&imgid=...&key=...&HD=1) at
// the partner and traffic paths: the tile is recovered from res and the image id.
Handler mapServerStyle(std::shared_ptr<TileMemo> memo) {
    return [memo](const Request& request) {
        auto mode = request.queryItem("mode").value_or("");
        auto res = parseInteger(request.queryItem("res").value_or(""));
        auto imgid = parseNumber(request.queryItem("imgid").value_or(""));
        if (!res || !imgid || *res < 0 || *imgid < 0) {
            return Response::text(400, "res and imgid are required\n");
        }
        std::int64_t z = 0, x = 0, y = 0;
        if (*res > 0) {
            z = static_cast<std::int64_t>(std::llround(std::log2(static_cast<double>(*res))));
            auto n = static_cast<std::int64_t>(std::llround(*imgid / 923456789.0));
            x = n % *res;
            y = n / *res;
        }
        if (z > 30 || (std::int64_t{1} << z) != *res || y >= *res) {
            return Response::text(404, "no such tile\n");
        }
        Style style = mode == "trafficoverlay" ? Style::Traffic
                      : mode == "thaichote"    ? Style::Imagery
                                               : Style::Base;
        auto png = memo->get(style, z, x, y);
        if (!png) {
            return Response::text(500, "painting failed\n");
        }
        return Response::png(std::move(*png));
    };
}

Response data(const Request& request) {
    auto escape = [](const std::string& s) {
        std::string out;
        for (char c : s) {
            if (c == '"' || c == '\\') {
                out += '\\';
            }
            if (static_cast<unsigned char>(c) < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
                continue;
            }
            out += c;
        }
        return out;
    };
    return Response::json("{\"path\":\"" + escape(request.path) + "\",\"query\":\"" +
                          escape(request.query) + "\"}");
}

// The query-driven fault convention of this file's paths.
Handler withFaults(Handler handler) {
    return [handler = std::move(handler)](const Request& request) {
        if (auto delay = request.queryItem("delay")) {
            if (auto seconds = parseNumber(*delay); seconds && *seconds > 0) {
                std::this_thread::sleep_for(
                    std::chrono::duration<double>(std::min(*seconds, 600.0)));
            }
        }
        if (auto status = request.queryItem("status")) {
            if (auto code = parseInteger(*status); code && *code >= 100 && *code <= 599) {
                return Response::text(static_cast<int>(*code), "status on request\n");
            }
        }
        if (request.queryItem("garbage")) {
            Response r = Response::png("this is no picture");
            return r;
        }
        return handler(request);
    };
}

}  // namespace

void installTileRoutes(EmbeddedService& service) {
    auto memo = std::make_shared<TileMemo>();
    service.route("/wms", withFaults(wms));
    service.route("/tiles/", withFaults(xyz(memo, "/tiles/", Style::Base, false)));
    service.route("/overlay/", withFaults(xyz(memo, "/overlay/", Style::Overlay, false)));
    service.route("/tms/", withFaults(xyz(memo, "/tms/", Style::Base, true)));
    service.route("/data/", withFaults(data));
    service.route("/partner/map/msn-server/img.php", withFaults(mapServerStyle(memo)));
    service.route("/traffic/map/msn-server/img.php", withFaults(mapServerStyle(memo)));
}

}  // namespace sorvan::server
