// A map location source that replays a list of fixes at a fixed interval on the main queue,
// read from a list, an NMEA log or a GPX track: for engine tests and front ends that want a
// scripted user position. Applications use a LocationManager over a ReplaySource instead,
// which keeps the recorded pace and gives headings too.
//
// Main queue only: start() delivers the first fix on the main queue right away (as a posted
// task) and each next one an interval later; after the last fix it stops (or starts over when
// looping). stop() cancels what is pending.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/map/location_source.hpp"

namespace sorvan::location {

class SORVAN_EXPORT ReplayLocationSource : public map::LocationSource {
  public:
    explicit ReplayLocationSource(std::vector<map::LocationFix> fixes,
                                  dispatch::Duration interval = std::chrono::seconds(1),
                                  std::vector<map::HeadingFix> headings = {});
    ~ReplayLocationSource() override;

    /// Reads an NMEA log or a GPX file (told apart by content). nullptr, with a reason in
    /// *error, when the file cannot be read or holds no valid fix.
    static std::shared_ptr<ReplayLocationSource> fromFile(const std::string& path,
                                                          dispatch::Duration interval,
                                                          std::string* error = nullptr);

    /// One fix per epoch of an NMEA log (RMC and GGA sentences); sentences with a bad checksum,
    /// a void status or broken fields are skipped.
    static std::vector<map::LocationFix> parseNMEA(std::string_view text);
    /// The track points of a GPX document (its route points when it has no track); nothing for
    /// a document that is not XML.
    static std::vector<map::LocationFix> parseGPX(std::string_view text);

    void setLoops(bool loops) { loops_ = loops; }
    const std::vector<map::LocationFix>& fixes() const { return fixes_; }

    void start(Listener listener) override;
    void stop() override;

  private:
    void deliver(std::size_t index, std::uint64_t run);

    std::vector<map::LocationFix> fixes_;
    std::vector<map::HeadingFix> headings_;
    dispatch::Duration interval_;
    bool loops_ = false;
    Listener listener_;
    std::shared_ptr<std::uint64_t> run_ = std::make_shared<std::uint64_t>(0);
};

}  // namespace sorvan::location
