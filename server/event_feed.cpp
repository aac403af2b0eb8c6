#include "event_feed.hpp"

#include <cmath>
#include <ctime>

#include <nlohmann/json.hpp>

#include "place_catalogue.hpp"
#include "road_network.hpp"
#include "tile_world.hpp"

namespace sorvan::server {
namespace {

constexpr std::uint64_t kFeedSeed = 0x5eed0fe7e47ull;
constexpr std::int64_t kLongestLife = 12;  // generations
constexpr double kReachMeters = 25000;     // around the city centre
constexpr std::int64_t kBangkokOffset = 7 * 3600;

struct Variant {
    const char* th;  // "%s" stands for the road's name
    const char* en;
};

struct Kind {
    const char* icon;
    std::int64_t type;
    const char* titleTh;
    const char* titleEn;
    std::vector<Variant> descriptions;
    std::int64_t minSeverity, maxSeverity;
    std::int64_t showlevel;
    std::int64_t minLife, maxLife;  // generations
    bool endKnown;
    double weight;
};

const std::vector<Kind>& kinds() {
    static const std::vector<Kind> all = {
        {"accident",
         1,
         "อุบัติเหตุ",
         "Accident",
         {{"รถชนกันบน%s ปิดช่องทางซ้าย", "Collision on %s; left lane closed"},
          {"รถจักรยานยนต์ล้มบน%s", "Motorcycle down on %s"},
          {"รถเสียขวางช่องทางบน%s", "Broken-down vehicle blocking a lane on %s"}},
         1,
         3,
         13,
         2,
         4,
         false,
         0.35},
        {"construction",
         2,
         "งานก่อสร้าง",
         "Road works",
         {{"ซ่อมผิวจราจรบน%s ปิด 1 ช่องทาง", "Resurfacing on %s; one lane closed"},
          {"ก่อสร้างรถไฟฟ้าบน%s", "Rail line construction on %s"}},
         1,
         2,
         14,
         6,
         12,
         true,
         0.20},
        {"flood",
         3,
         "น้ำท่วมขัง",
         "Flooding",
         {{"น้ำท่วมขังบน%s รถเล็กควรหลีกเลี่ยง", "Water on %s; small cars should avoid it"},
          {"ระบายน้ำไม่ทันบน%s", "Drains overflowing on %s"}},
         2,
         3,
         11,
         3,
         8,
         false,
         0.15},
        {"roadclosed",
         4,
         "ปิดถนน",
         "Road closed",
         {{"ปิดการจราจรบน%s ใช้เส้นทางเลี่ยง", "%s closed to traffic; use a detour"}},
         3,
         3,
         10,
         4,
         10,
         true,
         0.15},
        {"event",
         5,
         "กิจกรรม",
         "Event",
         {{"งานเทศกาลบริเวณ%s การจราจรหนาแน่น", "Festival near %s; heavy traffic"},
          {"ขบวนพาเหรดบน%s", "Parade along %s"}},
         1,
         1,
         12,
         4,
         8,
         true,
         0.15},
    };
    return all;
}

const std::vector<const char*>& contributors() {
    static const std::vector<const char*> all = {"ศูนย์ควบคุมการจราจร", "Traffic Police",
                                                 "สถานีวิทยุจราจร", "Sorvan Traffic", "ผู้ใช้งาน"};
    return all;
}

std::string fill(const char* pattern, const std::string& road) {
    std::string out = pattern;
    if (auto at = out.find("%s"); at != std::string::npos) {
        out.replace(at, 2, road);
    }
    return out;
}

std::int64_t pick(std::uint64_t h, std::int64_t lo, std::int64_t hi) {
    return lo + static_cast<std::int64_t>(h % static_cast<std::uint64_t>(hi - lo + 1));
}

const Kind& kindFor(std::uint64_t h) {
    double u = world::unit(h);
    for (const Kind& k : kinds()) {
        if (u < k.weight) {
            return k;
        }
        u -= k.weight;
    }
    return kinds().front();
}

std::int64_t eventsBorn(std::int64_t generation) {
    return pick(world::hash(generation, -1, kFeedSeed), 2, 5);
}

// A spot on a city road for the incident with seed h.
RoadSpot spotFor(std::uint64_t h) {
    const RoadNetwork& roads = RoadNetwork::builtin();
    RoadSpot best;
    for (std::int64_t attempt = 0; attempt < 64 && roads.edgeCount() > 0; ++attempt) {
        std::uint64_t g = world::hash(static_cast<std::int64_t>(h >> 1), attempt, kFeedSeed + 1);
        RoadSpot spot = roads.spotOnEdge(g % roads.edgeCount(), world::unit(g * 31 + 7));
        if (spot.ferry) {
            continue;
        }
        best = spot;
        if (distanceMeters(spot.at.lat, spot.at.lon, world::kBangkokLat, world::kBangkokLon) <=
            kReachMeters) {
            return spot;
        }
    }
    return best;
}

}  // namespace

const std::vector<std::string_view>& eventIconNames() {
    static const std::vector<std::string_view> names = [] {
        std::vector<std::string_view> out;
        for (const Kind& k : kinds()) {
            out.emplace_back(k.icon);
        }
        return out;
    }();
    return names;
}

std::string bangkokTimeText(std::chrono::system_clock::time_point t) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(t) + kBangkokOffset;
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

std::vector<FeedEvent> liveEvents(std::chrono::system_clock::time_point now) {
    using std::chrono::seconds;
    const std::int64_t unixNow =
        std::chrono::duration_cast<seconds>(now.time_since_epoch()).count();
    const std::int64_t length = kEventGeneration.count();
    const std::int64_t current =
        unixNow >= 0 ? unixNow / length : -((-unixNow + length - 1) / length);

    std::vector<FeedEvent> events;
    for (std::int64_t born = current - kLongestLife + 1; born <= current; ++born) {
        for (std::int64_t i = 0; i < eventsBorn(born); ++i) {
            std::uint64_t h = world::hash(born, i, kFeedSeed);
            const Kind& kind = kindFor(h);
            std::int64_t life = pick(h >> 7, kind.minLife, kind.maxLife);
            if (born + life <= current) {
                continue;
            }
            RoadSpot spot = spotFor(h);
            const Variant& text = kind.descriptions[(h >> 13) % kind.descriptions.size()];
            FeedEvent e;
            e.eid = std::to_string(born) + (i < 10 ? "0" : "") + std::to_string(i);
            e.titleTh = kind.titleTh;
            e.titleEn = kind.titleEn;
            e.descriptionTh = fill(text.th, spot.nameTh);
            e.descriptionEn = fill(text.en, spot.nameEn);
            e.icon = kind.icon;
            // Reported a little before it reached the feed.
            std::int64_t start = born * length - pick(h >> 17, 0, 600);
            e.start = bangkokTimeText(std::chrono::system_clock::time_point(seconds(start)));
            if (kind.endKnown) {
                std::int64_t stop = born * length + life * length + pick(h >> 23, 0, 3600);
                e.stop = bangkokTimeText(std::chrono::system_clock::time_point(seconds(stop)));
            }
            e.contributor = contributors()[(h >> 29) % contributors().size()];
            e.type = kind.type;
            e.severity = pick(h >> 31, kind.minSeverity, kind.maxSeverity);
            e.showlevel = kind.showlevel;
            // Off the lane's centre line by a few metres, so two incidents of one road part.
            e.latitude = spot.at.lat + (world::unit(h >> 3) - 0.5) * 0.0004;
            e.longitude = spot.at.lon + (world::unit(h >> 5) - 0.5) * 0.0004;
            events.push_back(std::move(e));
        }
    }
    return events;
}

std::string eventFeedJSON(std::chrono::system_clock::time_point now) {
    auto feed = nlohmann::json::array();
    for (const FeedEvent& e : liveEvents(now)) {
        feed.push_back({{"eid", e.eid},
                        {"title", e.titleTh},
                        {"title_en", e.titleEn},
                        {"description", e.descriptionTh},
                        {"description_en", e.descriptionEn},
                        {"icon", e.icon},
                        {"start", e.start},
                        {"stop", e.stop},
                        {"contributor", e.contributor},
                        {"type", e.type},
                        {"severity", e.severity},
                        {"showlevel", std::to_string(e.showlevel)},
                        {"latitude", e.latitude},
                        {"longitude", e.longitude}});
    }
    return feed.dump();
}

}  // namespace sorvan::server
