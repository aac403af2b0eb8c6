// Feeds the map engine's user location from a location manager, as a platform map view does
// when it shows the user. The manager listens to the given source (the process's shared one
// by default); it is made when the map starts showing the user, asks for authorisation then,
// and is dropped when the map stops, so a map that never shows the user opens no receiver.
//
// Main queue only, like the map that owns it.
#pragma once

#include <memory>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/location/location_manager.hpp"
#include "sorvan/platform/location/source.hpp"
#include "sorvan/platform/map/location_source.hpp"

namespace sorvan::location {

class SORVAN_EXPORT MapLocationSource : public map::LocationSource {
  public:
    /// source: nullptr for Source::shared() as it is when the map starts showing the user.
    explicit MapLocationSource(std::shared_ptr<Source> source = nullptr);
    ~MapLocationSource() override;

    void start(Listener listener) override;
    void stop() override;
    /// The manager while the map shows the user; nullptr otherwise.
    std::shared_ptr<LocationManager> manager() const { return manager_; }

  private:
    class Relay;
    std::shared_ptr<Source> source_;
    std::shared_ptr<Relay> relay_;
    std::shared_ptr<LocationManager> manager_;
};

}  // namespace sorvan::location
