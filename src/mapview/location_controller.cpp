// The process's one location controller.
#include "SorvanMapSDK/LocationController.hpp"

namespace sorvan {

std::shared_ptr<LocationController> LocationController::sharedController() {
    // Concurrent first calls make one controller. It lives for the process, as its manager
    // does: never destroyed, so no exit-time destructor races the manager's last reports.
    static std::mutex mutex;
    static std::shared_ptr<LocationController>* shared = nullptr;
    std::lock_guard lock(mutex);
    if (!shared) {
        shared = new std::shared_ptr<LocationController>(new LocationController());
        (*shared)->init();
    }
    return *shared;
}

void LocationController::init() {
    manager_ = location::LocationManager::create();
    manager_->setDelegate(weak_from_this());
    manager_->setDesiredAccuracy(location::kLocationAccuracyBest);
    manager_->setHeadingFilter(5.0);
    manager_->setDistanceFilter(location::kDistanceFilterNone);
    manager_->requestWhenInUseAuthorization();
    manager_->startUpdatingLocation();
    manager_->startUpdatingHeading();
}

std::optional<location::Location> LocationController::location() const {
    std::lock_guard lock(mutex_);
    return location_;
}

void LocationController::setLocation(std::optional<location::Location> location) {
    std::lock_guard lock(mutex_);
    location_ = std::move(location);
}

std::shared_ptr<LocationControllerDelegate> LocationController::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

void LocationController::setDelegate(std::weak_ptr<LocationControllerDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

void LocationController::didUpdateLocations(location::LocationManager&,
                                            const std::vector<location::Location>& locations) {
    if (auto d = delegate(); d && !locations.empty()) {
        d->locationControllerDidUpdateLocation(locations.back());
    }
}

void LocationController::didUpdateHeading(location::LocationManager&,
                                          const location::Heading& heading) {
    if (auto d = delegate()) {
        d->locationControllerDidUpdateHeading(heading);
    }
}

void LocationController::didFailWithError(location::LocationManager&,
                                          const location::LocationError& error) {
    if (auto d = delegate()) {
        d->locationControllerDidFailWithError(error);
    }
}

void LocationController::didChangeAuthorizationStatus(location::LocationManager& manager,
                                                      location::AuthorizationStatus) {
    manager.startUpdatingLocation();
    manager.startUpdatingHeading();
}

}  // namespace sorvan
