// LocationController: the process's one location manager and the delegate it reports to. Made
// on the first sharedController() call (one instance even when several threads ask at once),
// it starts the manager at once (best accuracy, a heading filter of 5 degrees, no distance
// filter, when-in-use authorisation, positions and headings) and keeps it running for the
// rest of the process. The manager listens to the process's shared location source
// (location::Source::shared(): the host's choice, else SORVAN_LOCATION, else gpsd on
// localhost).
//
// Threads: sharedController() and the accessors are thread-safe; the manager's callbacks,
// and so the delegate's, run on the main queue. The delegate is held weakly.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "SorvanMapSDK/LocationControllerDelegate.hpp"
#include "sorvan/platform/export.hpp"
#include "sorvan/platform/location/location_manager.hpp"

namespace sorvan {

class SORVAN_EXPORT LocationController : public location::LocationManagerDelegate,
                                         public std::enable_shared_from_this<LocationController> {
  public:
    /// The one instance; never destroyed.
    static std::shared_ptr<LocationController> sharedController();

    std::shared_ptr<location::LocationManager> locationManager() const { return manager_; }
    /// Kept for the host; the controller never writes it.
    std::optional<location::Location> location() const;
    void setLocation(std::optional<location::Location> location);
    std::shared_ptr<LocationControllerDelegate> delegate() const;
    void setDelegate(std::weak_ptr<LocationControllerDelegate> delegate);

    // The manager's callbacks (main queue).
    /// Passes the last of the positions on.
    void didUpdateLocations(location::LocationManager& manager,
                            const std::vector<location::Location>& locations) override;
    void didUpdateHeading(location::LocationManager& manager,
                          const location::Heading& heading) override;
    void didFailWithError(location::LocationManager& manager,
                          const location::LocationError& error) override;
    /// Whatever the new status, starts positions and headings again.
    void didChangeAuthorizationStatus(location::LocationManager& manager,
                                      location::AuthorizationStatus status) override;

  private:
    LocationController() = default;
    /// Configures and starts the manager.
    void init();

    std::shared_ptr<location::LocationManager> manager_;  // constant after init()
    mutable std::mutex mutex_;
    std::optional<location::Location> location_;          // guarded by mutex_
    std::weak_ptr<LocationControllerDelegate> delegate_;  // guarded by mutex_
};

}  // namespace sorvan
