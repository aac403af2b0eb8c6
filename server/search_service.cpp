// The search and suggest services: "/mapsearch/json/search" and "/mapsearch/json/suggest".
#include <cmath>
#include <string>

#include <nlohmann/json.hpp>

#include "foundation/number_text.hpp"
#include "place_catalogue.hpp"
#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {
namespace {

constexpr std::size_t kMaxPage = 100;

std::optional<double> number(const Request& request, const std::string& name) {
    auto text = request.queryItem(name);
    return text ? text::parseDouble(*text) : std::nullopt;
}

std::size_t count(const Request& request, const std::string& name, std::size_t fallback) {
    auto text = request.queryItem(name);
    auto value = text ? text::parseInteger(*text, 0) : std::nullopt;
    if (!value) {
        return fallback;
    }
    return static_cast<std::size_t>(std::min<std::int64_t>(*value, 1000000));
}

double rounded(double value, double scale) {
    return std::round(value * scale) / scale;
}

Response search(const Request& request) {
    const bool english = request.queryItem("locale") == "en";
    PlaceCatalogue::Query query;
    query.keyword = request.queryItem("keyword").value_or("");
    query.latitude = number(request, "lat");
    query.longitude = number(request, "lon");
    if (auto span = request.queryItem("span")) {
        query.spanMeters = parseSpanMeters(*span);
    }
    query.offset = count(request, "offset", 0);
    query.limit = std::min(count(request, "limit", 20), kMaxPage);
    std::size_t total = 0;
    auto hits = PlaceCatalogue::builtin().search(query, &total);

    auto data = nlohmann::json::array();
    for (const auto& hit : hits) {
        const Place& p = *hit.place;
        nlohmann::json item = {
            {"id", p.id},
            {"name", english ? p.nameEn : p.nameTh},
            {"address", english ? p.addressEn : p.addressTh},
            {"icon", p.icon},
            {"lat", p.latitude},
            {"lon", p.longitude},
        };
        if (hit.distance) {
            item["distance"] = rounded(*hit.distance, 10);
        }
        data.push_back(std::move(item));
    }
    nlohmann::json body = {
        {"meta",
         {{"keyword", query.keyword},
          {"offset", query.offset},
          {"limit", query.limit},
          {"total", total},
          {"hasmore", query.offset + hits.size() < total}}},
        {"data", std::move(data)},
    };
    return Response::json(body.dump());
}

Response suggest(const Request& request) {
    auto keyword = request.queryItem("keyword").value_or("");
    auto words = PlaceCatalogue::builtin().suggest(keyword, count(request, "offset", 0),
                                                   std::min(count(request, "limit", 10), kMaxPage));
    auto data = nlohmann::json::array();
    for (auto& w : words) {
        data.push_back({{"w", std::move(w)}});
    }
    nlohmann::json body = {{"meta", {{"keyword", keyword}}}, {"data", std::move(data)}};
    return Response::json(body.dump());
}

}  // namespace

void installSearchRoutes(EmbeddedService& service) {
    service.route("/mapsearch/json/search", search);
    service.route("/mapsearch/json/suggest", suggest);
}

}  // namespace sorvan::server
