#include "place_catalogue.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <set>

#include "embedded_data.hpp"
#include "tsv.hpp"

namespace sorvan::server {
namespace {

std::string lowerAscii(std::string_view s) {
    std::string out(s);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return out;
}

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

// Word starts: after a space, '(' or '-', as names are written in both languages.
bool aWordStartsWith(std::string_view lowered, std::string_view prefix) {
    for (std::size_t i = 1; i < lowered.size(); ++i) {
        char before = lowered[i - 1];
        if ((before == ' ' || before == '(' || before == '-') &&
            startsWith(lowered.substr(i), prefix)) {
            return true;
        }
    }
    return false;
}

}  // namespace

double distanceMeters(double lat1, double lon1, double lat2, double lon2) {
    constexpr double kEarthRadius = 6371008.8;
    constexpr double kRad = 3.14159265358979323846 / 180.0;
    double dLat = (lat2 - lat1) * kRad;
    double dLon = (lon2 - lon1) * kRad;
    double a =
        std::sin(dLat / 2) * std::sin(dLat / 2) +
        std::cos(lat1 * kRad) * std::cos(lat2 * kRad) * std::sin(dLon / 2) * std::sin(dLon / 2);
    return 2 * kEarthRadius * std::asin(std::min(1.0, std::sqrt(a)));
}

std::optional<double> parseSpanMeters(std::string_view span) {
    auto text = lowerAscii(span);
    std::string_view rest = text;
    while (!rest.empty() && rest.front() == ' ') {
        rest.remove_prefix(1);
    }
    double value = 0;
    auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
    if (ec != std::errc() || !std::isfinite(value) || value < 0) {
        return std::nullopt;
    }
    std::string_view unit(end, rest.data() + rest.size() - end);
    while (!unit.empty() && unit.front() == ' ') {
        unit.remove_prefix(1);
    }
    if (unit == "km") {
        return value * 1000.0;
    }
    if (unit == "m" || unit.empty()) {
        return value;
    }
    return std::nullopt;
}

const PlaceCatalogue& PlaceCatalogue::builtin() {
    static const PlaceCatalogue catalogue =
        parse(embeddedData("places.tsv"), embeddedData("areas.tsv"));
    return catalogue;
}

PlaceCatalogue PlaceCatalogue::parse(std::string_view placesTsv, std::string_view areasTsv) {
    std::map<std::string, std::pair<std::string, std::string>, std::less<>> areas;
    for (const auto& f : tsvRows(areasTsv)) {
        if (f.size() == 3) {
            areas[std::string(f[0])] = {std::string(f[1]), std::string(f[2])};
        }
    }
    PlaceCatalogue catalogue;
    for (const auto& f : tsvRows(placesTsv)) {
        if (f.size() != 7) {
            continue;
        }
        Place p;
        p.id = f[0];
        p.icon = f[1];
        auto lat = tsvDouble(f[2]);
        auto lon = tsvDouble(f[3]);
        if (!lat || !lon) {
            continue;
        }
        p.latitude = *lat;
        p.longitude = *lon;
        if (auto area = areas.find(f[4]); area != areas.end()) {
            p.addressTh = area->second.first;
            p.addressEn = area->second.second;
        }
        p.nameTh = f[5];
        p.nameEn = f[6];
        catalogue.places_.push_back(std::move(p));
    }
    return catalogue;
}

std::vector<PlaceCatalogue::Hit> PlaceCatalogue::search(const Query& query,
                                                        std::size_t* total) const {
    const std::string keyword = lowerAscii(query.keyword);
    const bool located = query.latitude && query.longitude;
    struct Ranked {
        Hit hit;
        int rank;
        std::size_t order;
    };
    std::vector<Ranked> ranked;
    for (std::size_t i = 0; i < places_.size(); ++i) {
        const Place& p = places_[i];
        auto th = lowerAscii(p.nameTh);
        auto en = lowerAscii(p.nameEn);
        auto type = lowerAscii(p.icon.substr(0, p.icon.rfind('.')));
        int rank;
        if (keyword.empty() || startsWith(th, keyword) || startsWith(en, keyword)) {
            rank = 0;
        } else if (th.find(keyword) != std::string::npos || en.find(keyword) != std::string::npos) {
            rank = 1;
        } else if (type == keyword) {
            rank = 2;
        } else if (lowerAscii(p.addressTh).find(keyword) != std::string::npos ||
                   lowerAscii(p.addressEn).find(keyword) != std::string::npos) {
            rank = 3;
        } else {
            continue;
        }
        Hit hit{&p, std::nullopt};
        if (located) {
            hit.distance =
                distanceMeters(*query.latitude, *query.longitude, p.latitude, p.longitude);
            if (query.spanMeters && *hit.distance > *query.spanMeters) {
                continue;
            }
        }
        ranked.push_back({hit, rank, i});
    }
    std::stable_sort(ranked.begin(), ranked.end(), [located](const Ranked& a, const Ranked& b) {
        if (located) {
            return *a.hit.distance < *b.hit.distance;
        }
        return a.rank != b.rank ? a.rank < b.rank : a.order < b.order;
    });
    if (total) {
        *total = ranked.size();
    }
    std::vector<Hit> page;
    for (std::size_t i = query.offset; i < ranked.size() && page.size() < query.limit; ++i) {
        page.push_back(ranked[i].hit);
    }
    return page;
}

std::vector<std::string> PlaceCatalogue::suggest(std::string_view prefix, std::size_t offset,
                                                 std::size_t limit) const {
    const std::string wanted = lowerAscii(prefix);
    std::vector<std::string> whole, partial;
    std::set<std::string> seen;
    if (wanted.empty()) {
        return {};
    }
    for (const Place& p : places_) {
        for (const std::string* name : {&p.nameTh, &p.nameEn}) {
            auto lowered = lowerAscii(*name);
            bool isWhole = startsWith(lowered, wanted);
            if (!isWhole && !aWordStartsWith(lowered, wanted)) {
                continue;
            }
            if (seen.insert(*name).second) {
                (isWhole ? whole : partial).push_back(*name);
            }
        }
    }
    whole.insert(whole.end(), partial.begin(), partial.end());
    std::vector<std::string> page;
    for (std::size_t i = offset; i < whole.size() && page.size() < limit; ++i) {
        page.push_back(whole[i]);
    }
    return page;
}

}  // namespace sorvan::server
