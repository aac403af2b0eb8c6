// Recorded tracks as the location replay reads them: NMEA logs line by line (fuzz_nmea) and GPX
// documents (fuzz_gpx), and the times they carry. Every position read must be on the globe.
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <variant>
#include <vector>

#include "fuzz_support.hpp"
#include "location/track_readers.hpp"

using namespace sorvan;
using location::TrackEvent;

namespace {

void check(const std::vector<TrackEvent>& events) {
    for (const auto& event : events) {
        if (const auto* at = std::get_if<location::Location>(&event.report)) {
            const auto& c = at->coordinate;
            if (!(std::abs(c.latitude) <= 90) || !(std::abs(c.longitude) <= 180)) {
                std::abort();
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text = fuzz::textOf(data, size);
    std::vector<TrackEvent> events;
    if (SORVAN_FUZZ_TRACK_NMEA) {
        location::NmeaReader reader(std::chrono::sys_days(std::chrono::days(20415)));
        std::size_t start = 0;
        while (start < text.size()) {
            auto end = text.find('\n', start);
            auto line = text.substr(start, end == std::string_view::npos ? end : end - start);
            (void)reader.feed(line, events);
            start = end == std::string_view::npos ? text.size() : end + 1;
        }
        reader.finish(events);
    } else {
        std::string error;
        std::vector<std::string> problems;
        events = location::readGPX(text, location::Timestamp(std::chrono::seconds(1'763'856'000)),
                                   error, problems);
        (void)location::parseISO8601(text.substr(0, 64));
    }
    check(events);
    return 0;
}
