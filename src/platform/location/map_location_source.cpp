#include "sorvan/platform/location/map_location_source.hpp"

namespace sorvan::location {

class MapLocationSource::Relay : public LocationManagerDelegate {
  public:
    explicit Relay(Listener listener) : listener_(std::move(listener)) {}

    void didUpdateLocations(LocationManager&, const std::vector<Location>& locations) override {
        // The map shows where the user is now; the positions before the last are history.
        const Location& l = locations.back();
        map::LocationFix fix;
        fix.coordinate = l.coordinate;
        fix.horizontalAccuracy = l.horizontalAccuracy;
        if (l.course >= 0) {
            fix.course = l.course;
        }
        // Copied first: the listener may stop the source, and with it this relay.
        auto call = listener_.didUpdateLocation;
        if (call) {
            call(fix);
        }
    }

    void didUpdateHeading(LocationManager&, const Heading& h) override {
        auto call = listener_.didUpdateHeading;
        if (call) {
            call({h.magneticHeading, h.trueHeading, h.headingAccuracy});
        }
    }

    void didFailWithError(LocationManager&, const LocationError& error) override {
        auto call = listener_.didFail;
        if (call) {
            call(error.description);
        }
    }

  private:
    Listener listener_;
};

MapLocationSource::MapLocationSource(std::shared_ptr<Source> source) : source_(std::move(source)) {}

MapLocationSource::~MapLocationSource() {
    stop();
}

void MapLocationSource::start(Listener listener) {
    stop();
    relay_ = std::make_shared<Relay>(std::move(listener));
    manager_ = LocationManager::create(source_);
    manager_->setDelegate(relay_);
    manager_->requestWhenInUseAuthorization();
    manager_->startUpdatingLocation();
    manager_->startUpdatingHeading();
}

void MapLocationSource::stop() {
    manager_.reset();
    relay_.reset();
}

}  // namespace sorvan::location
