// Tile sources beside the map server: WMS GetMap, {z}/{x}/{y} and TMS templates and data
// tiles. Pictures come from the map painter, so a WMS box shows what the tiles under it show,
// and template tiles are answered from the painter's encoded-tile cache, so a client measuring
// itself against this service is not measuring the painter.
//
// Fault convention for every path here (the core's injectFault() works too): query item
// "status=N" answers status N, "delay=S" waits S seconds first, "garbage=1" answers 200 with
// bytes that are no picture. Tiles (not WMS boxes) carry their "style z/x/y" stamp with
// "stamp=1" or when the service stamps every tile.
#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>

#include "foundation/number_text.hpp"
#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"
#include "tile_cache.hpp"
#include "tile_painter.hpp"

namespace sorvan::server {
namespace {

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
    auto width = text::parseInteger(param("WIDTH"));
    auto height = text::parseInteger(param("HEIGHT"));
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
        auto v = text::parseDouble(
            bboxText.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (!v) {
            return badRequest("WMS: BBOX must be four numbers");
        }
        b[i] = *v;
        start = comma + 1;
    }
    MapBox box;
    box.srs = srs == "EPSG:4326" ? MapBox::SRS::Geographic4326 : MapBox::SRS::Mercator3857;
    box.minX = b[0];
    box.minY = b[1];
    box.maxX = b[2];
    box.maxY = b[3];
    if (!(box.maxX > box.minX) || !(box.maxY > box.minY)) {
        return badRequest("WMS: BBOX is empty");
    }
    // LAYERS names a map style (the painter's vocabulary); without one, the normal map.
    std::string style = param("LAYERS").empty() ? "normal" : param("LAYERS");
    auto image = paintMap(style, box, static_cast<int>(*width), static_cast<int>(*height));
    if (!image) {
        return Response::text(500, "WMS: painting failed\n");
    }
    auto png = image->pngData(tilePNGOptions());
    return Response::png(std::string(png.begin(), png.end()));
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
        auto n = text::parseInteger(
            rest.substr(start, slash == std::string::npos ? std::string::npos : slash - start));
        if (!n) {
            return std::nullopt;
        }
        v[i] = *n;
        start = slash + 1;
    }
    auto [z, x, y] = v;
    if (z < 0 || z > 24 || x < 0 || y < 0 || x >= (std::int64_t{1} << z) ||
        y >= (std::int64_t{1} << z)) {
        return std::nullopt;
    }
    return v;
}

Handler xyz(const EmbeddedService& service, std::string prefix, std::string style, bool tms) {
    return [&service, prefix, style, tms](const Request& request) {
        auto zxy = tilePath(request.path, prefix);
        if (!zxy) {
            return Response::text(404, "no such tile\n");
        }
        auto [z, x, y] = *zxy;
        if (tms) {
            y = (std::int64_t{1} << z) - y - 1;  // rows counted from the south
        }
        auto png = tilePNG(style, static_cast<int>(z), x, y, wantsStamp(request, &service));
        if (!png) {
            return Response::text(500, "painting failed\n");
        }
        return Response::png(*png);
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
    auto answer = [handler = std::move(handler)](const Request& request) {
        if (auto status = request.queryItem("status")) {
            if (auto code = text::parseInteger(*status); code && *code >= 100 && *code <= 599) {
                return Response::text(static_cast<int>(*code), "status on request\n");
            }
        }
        if (request.queryItem("garbage")) {
            Response r = Response::png("this is no picture");
            return r;
        }
        return handler(request);
    };
    // The delay is the answer's own, so that no worker sleeps through it and stopping ends it.
    return [answer = std::move(answer)](const Request& request) {
        Response response = answer(request);
        if (auto delay = request.queryItem("delay")) {
            if (auto seconds = text::parseDouble(*delay); seconds && *seconds > 0) {
                response.delaySeconds = std::min(*seconds, 600.0);
            }
        }
        return response;
    };
}

}  // namespace

void installTileRoutes(EmbeddedService& service) {
    service.route("/wms", withFaults(wms));
    service.route("/tiles/", withFaults(xyz(service, "/tiles/", "normal", false)));
    service.route("/overlay/", withFaults(xyz(service, "/overlay/", "iconstransp", false)));
    service.route("/tms/", withFaults(xyz(service, "/tms/", "normal", true)));
    service.route("/data/", withFaults(data));
}

}  // namespace sorvan::server
