// The places the embedded search and suggest services know: a few hundred real places around
// Thailand with Thai and English names, read from data/places.tsv and data/areas.tsv.
// Immutable once built; thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvan::server {

struct Place {
    std::string id;
    std::string icon;  // "restaurant.png"
    double latitude = 0, longitude = 0;
    std::string nameTh, nameEn;
    std::string addressTh, addressEn;
};

/// Great-circle distance in metres.
double distanceMeters(double lat1, double lon1, double lat2, double lon2);

/// "5km", "500m", "1.5 km", "2000" (metres); nullopt for anything else (then no limit).
std::optional<double> parseSpanMeters(std::string_view span);

class PlaceCatalogue {
  public:
    /// The built-in catalogue, parsed once from the embedded data files.
    static const PlaceCatalogue& builtin();
    /// Tab-separated lines; '#' starts a comment line; malformed lines are skipped.
    static PlaceCatalogue parse(std::string_view placesTsv, std::string_view areasTsv);

    const std::vector<Place>& places() const { return places_; }

    struct Query {
        std::string keyword;  // case-insensitive substring, Thai or English; empty = any
        std::optional<double> latitude, longitude;  // with both, hits are nearest first
        std::optional<double> spanMeters;           // with a position: the search radius
        std::size_t offset = 0;
        std::size_t limit = 20;
    };
    struct Hit {
        const Place* place = nullptr;
        std::optional<double> distance;  // metres, when the query had a position
    };
    /// One page of hits; total receives the number of hits before paging.
    std::vector<Hit> search(const Query& query, std::size_t* total = nullptr) const;

    /// Names in either language that start with prefix, or one of whose words does
    /// (case-insensitive); whole-name matches first, no duplicates.
    std::vector<std::string> suggest(std::string_view prefix, std::size_t offset,
                                     std::size_t limit) const;

  private:
    std::vector<Place> places_;
};

}  // namespace sorvan::server
