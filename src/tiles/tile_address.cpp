#include "tiles/tile_address.hpp"

#include <cmath>
#include <limits>

#include "sorvan/platform/foundation/crypto.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::tiles {
namespace {

// The tile and image ids are computed in wrapping 64-bit arithmetic: absurd paths must give
// an absurd address, never undefined behaviour.
std::int64_t wrappingIndex(std::int64_t x, std::int64_t y, std::int64_t res) {
    auto ux = static_cast<std::uint64_t>(x);
    auto uy = static_cast<std::uint64_t>(y);
    auto ur = static_cast<std::uint64_t>(res);
    return static_cast<std::int64_t>(ux + uy * ur);
}

// Truncation toward zero that saturates instead of overflowing.
long truncateToLong(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= static_cast<double>(std::numeric_limits<long>::max())) {
        return std::numeric_limits<long>::max();
    }
    if (value <= static_cast<double>(std::numeric_limits<long>::min())) {
        return std::numeric_limits<long>::min();
    }
    return static_cast<long>(value);
}

void replaceAll(std::string& text, std::string_view what, std::string_view with) {
    std::size_t at = 0;
    while ((at = text.find(what, at)) != std::string::npos) {
        text.replace(at, what.size(), with);
        at += with.size();
    }
}

std::string decimal(std::int64_t v) {
    return std::to_string(v);
}

constexpr double kDegreesPerRadian = 57.29577951308232;
constexpr double kRadiansPerDegree = 0.017453292519943295;
constexpr double kHalfWorldMetres = 20037508.342789244;

double latitudeOfRow(double twiceRow, double n) {
    return std::atan(std::sinh(M_PI * (1 - twiceRow / n))) * kDegreesPerRadian;
}

double mercatorY(double latitude) {
    return std::log(std::tan((latitude + 90) * M_PI / 360)) / kRadiansPerDegree * kHalfWorldMetres /
           180;
}

double mercatorX(double longitude) {
    return longitude * kHalfWorldMetres / 180;
}

}  // namespace

std::int64_t resolution(std::int64_t z) {
    // The server has always been sent this 32-bit value, wrap and all; it is part of the
    // address, so the disk cache and server logs depend on it staying exactly so.
    auto shift = static_cast<unsigned>((static_cast<std::uint64_t>(z) - 1) & 31u);
    auto value = static_cast<std::uint32_t>(2u << shift);
    return static_cast<std::int32_t>(value);
}

std::string modeString(std::int64_t mode, std::int64_t language) {
    bool english = language == 2;
    switch (mode) {
        case 0:
            return "base";
        case 1:
            return "gistda_spot5";
        case 2:
            return english ? "gray-en" : "gray";
        case 3:
            return "hydro";
        case 4:
            return "mapquest_osm";
        case 5:
            return english ? "normal-en" : "normal";
        case 6:
            return english ? "normalr-en" : "normalr";
        case 7:
            return "osm_opencycle";
        case 8:
            return "osm";
        case 9:
            return english ? "icons-en" : "icons";
        case 10:
            return english ? "politicalwhite-en" : "politicalwhite";
        case 11:
            return "politicalwhitenolabel";
        case 12:
            return "bluemarble_terrain";
        case 13:
        case 14:
            return "thaichote";
        case 15:
            return english ? "iconstransp-en" : "iconstransp";
        case 16:
            return "trafficoverlay";
        default:
            return "";
    }
}

std::string mapServerAddress(std::string_view base, std::string_view modeName,
                             const map::TilePath& path, std::string_view key) {
    std::int64_t res = resolution(path.z);
    std::int64_t n = wrappingIndex(path.x, path.y, res);
    // The image id is a double product, rounded as doubles round above 2^53; the server
    // expects exactly that rounded value.
    double imageId = static_cast<double>(n) * 923456789.0;
    return strformat("%.*s?c=1&proj=epsg3857&mode=%.*s&res=%ld&imgid=%.0f&key=%.*s&HD=1",
                     static_cast<int>(base.size()), base.data(), static_cast<int>(modeName.size()),
                     modeName.data(), static_cast<long>(res), imageId, static_cast<int>(key.size()),
                     key.data());
}

std::string offlineGrayPath(const map::TilePath& path) {
    std::int64_t n = wrappingIndex(path.x, path.y, resolution(path.z));
    std::string key = strformat("%015.0f", static_cast<double>(n));
    auto group = [&](std::size_t at) { return at < key.size() ? key.substr(at, 3) : ""; };
    return strformat("grayproxy/%ld/grayproxy/%s/%s/%s/%s/%s.jpg", static_cast<long>(path.z),
                     group(0).c_str(), group(3).c_str(), group(6).c_str(), group(9).c_str(),
                     group(12).c_str());
}

std::string wmsAddress(std::string_view urlTemplate, std::int64_t format,
                       const map::TilePath& path) {
    auto has = [&](std::string_view k) { return urlTemplate.find(k) != std::string_view::npos; };
    double n = std::exp2(static_cast<double>(path.z));
    double x = static_cast<double>(path.x);
    double y = static_cast<double>(path.y);
    double north = latitudeOfRow(2 * y, n);
    double south = latitudeOfRow(2 * y + 2, n);
    double west = x / n * 360 - 180;
    double east = (x + 1) / n * 360 - 180;
    int code = 4326;
    if (format != 4) {
        code = 3857;
        north = mercatorY(north);
        south = mercatorY(south);
        west = mercatorX(west);
        east = mercatorX(east);
    }
    std::string address(urlTemplate);
    address += has("?") ? "&" : "?";
    address += strformat(
        "SERVICE=WMS&REQUEST=GetMap&VERSION=1.1.1&SRS=EPSG:%d&BBOX=%f,%f,%f,%f"
        "&EXCEPTIONS=BLANK&TILED=true",
        code, west, south, east, north);
    // A host template may carry its own values; only the missing ones get defaults, and they
    // follow TILED=true in this order.
    if (!has("FORMAT=")) {
        address += "&FORMAT=image/png";
    }
    if (!has("TRANSPARENT=")) {
        address += "&TRANSPARENT=true";
    }
    if (!has("WIDTH=")) {
        address += "&WIDTH=256";
    }
    if (!has("HEIGHT=")) {
        address += "&HEIGHT=256";
    }
    return address;
}

std::string xyzAddress(std::string_view urlTemplate, std::int64_t format,
                       const map::TilePath& path) {
    std::string address(urlTemplate);
    replaceAll(address, "{x}", decimal(path.x));
    replaceAll(address, "{z}", decimal(path.z));
    if (format == 2) {
        double row = std::exp2(static_cast<double>(path.z)) - static_cast<double>(path.y) - 1;
        replaceAll(address, "{y}", decimal(truncateToLong(row)));
    } else {
        replaceAll(address, "{y}", decimal(path.y));
    }
    return address;
}

std::string dataAddress(std::string_view urlTemplate, const map::TilePath& path) {
    std::string address(urlTemplate);
    replaceAll(address, "{u}", decimal(path.x));
    replaceAll(address, "{v}", decimal(path.y));
    replaceAll(address, "{z}", decimal(path.z));
    replaceAll(address, "{ux}", "false");
    replaceAll(address, "{w}",
               decimal(static_cast<std::int64_t>(20 - static_cast<std::uint64_t>(path.z))));
    return address;
}

std::string cacheName(std::string_view address) {
    // The address is hashed as a C string: bytes after a zero byte never count.
    address = address.substr(0, address.find('\0'));
    auto d = crypto::sha256(address);
    // Twelve spaces sit between the 15th and 16th byte of every name. Existing caches and
    // tile lists hold names of exactly this form, so it must never be "fixed".
    return strformat(
        "%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X            "
        "%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X",
        d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7], d[8], d[9], d[10], d[11], d[12], d[13],
        d[14], d[15], d[16], d[17], d[18], d[19], d[20], d[21], d[22], d[23], d[24], d[25], d[26],
        d[27], d[28], d[29], d[30], d[31]);
}

}  // namespace sorvan::tiles
