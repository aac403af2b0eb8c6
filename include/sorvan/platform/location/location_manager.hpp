// The location manager: what an application asks for positions and compass headings. It
// listens to a Source (the process's shared one unless told otherwise), filters what it hears
// by the distance and heading filters, and tells its delegate on the main queue.
//
// Authorisation: the application's, one for the process. Asking for it, or starting updates
// without asking, grants it at once, unless the host installed an authorisation handler: then
// the handler decides (now or later, on any thread) when it is asked. Updates flow only while
// authorised; a denied manager that is asked to update reports ErrorCode::Denied instead.
// Every manager hears of each change of the status, before any report the change brings.
//
// Ownership: create() gives a shared manager; the delegate is held weakly. Threads: every
// method is thread-safe; the delegate is called on the main queue (RunLoop::main()) only, in
// the order the source reported. Reports that pile up while the main queue is busy are
// delivered together (several locations in one call); a live source's oldest ones are dropped
// beyond a few thousand, a replay waits instead. No delegate call happens after the manager
// is destroyed.
//
//   auto manager = location::LocationManager::create();
//   manager->setDelegate(myDelegate);
//   manager->requestWhenInUseAuthorization();
//   manager->startUpdatingLocation();
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/location/location.hpp"
#include "sorvan/platform/location/source.hpp"

namespace sorvan::location {

class LocationManager;

/// Called on the main queue.
class SORVAN_EXPORT LocationManagerDelegate {
  public:
    virtual ~LocationManagerDelegate() = default;
    /// Oldest first; never empty.
    virtual void didUpdateLocations(LocationManager& manager,
                                    const std::vector<Location>& locations);
    virtual void didUpdateHeading(LocationManager& manager, const Heading& heading);
    virtual void didFailWithError(LocationManager& manager, const LocationError& error);
    virtual void didChangeAuthorizationStatus(LocationManager& manager, AuthorizationStatus status);
    /// The source has nothing more to say (a replay reached the end of its track).
    virtual void didFinish(LocationManager& manager);
};

class SORVAN_EXPORT LocationManager : public std::enable_shared_from_this<LocationManager> {
  public:
    /// A manager listening to source (nullptr: Source::shared(), as it is now).
    static std::shared_ptr<LocationManager> create(std::shared_ptr<Source> source = nullptr);
    ~LocationManager();
    LocationManager(const LocationManager&) = delete;
    LocationManager& operator=(const LocationManager&) = delete;

    std::shared_ptr<LocationManagerDelegate> delegate() const;
    void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate);
    const std::shared_ptr<Source>& source() const;

    /// Metres, or kLocationAccuracyBest. Receivers here give what they have; the value is
    /// kept for the host.
    double desiredAccuracy() const;
    void setDesiredAccuracy(double metres);
    /// Metres a position must move from the last one delivered to be delivered, or
    /// kDistanceFilterNone.
    double distanceFilter() const;
    void setDistanceFilter(double metres);
    /// Degrees the heading must turn from the last one delivered to be delivered, or
    /// kHeadingFilterNone. A heading that becomes reliable or unreliable is always delivered.
    double headingFilter() const;
    void setHeadingFilter(double degrees);

    void requestWhenInUseAuthorization();
    static AuthorizationStatus authorizationStatus();
    /// Decides a request: called on the main queue with a function to call once with the
    /// answer (from any thread, at any time).
    using AuthorizationHandler = std::function<void(std::function<void(bool granted)> decide)>;
    /// nullptr: requests are granted at once.
    static void setAuthorizationHandler(AuthorizationHandler handler);
    /// Back to "not determined", without a handler.
    static void resetAuthorizationForTesting();

    void startUpdatingLocation();
    void stopUpdatingLocation();
    void startUpdatingHeading();
    void stopUpdatingHeading();

    /// The last location and heading delivered to the delegate.
    std::optional<Location> location() const;
    std::optional<Heading> heading() const;

  private:
    explicit LocationManager(std::shared_ptr<Source> source);
    struct Impl;
    friend struct Impl;
    static void authorizationChanged(AuthorizationStatus status);
    std::shared_ptr<Impl> impl_;
};

}  // namespace sorvan::location
