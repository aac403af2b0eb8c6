// LocationControllerDelegate: hears what the shared LocationController's manager reports. The
// map view is one. Held weakly by the controller; called on the main queue.
#pragma once

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/location/location.hpp"

namespace sorvan {

class SORVAN_EXPORT LocationControllerDelegate {
  public:
    virtual ~LocationControllerDelegate() = default;
    /// The newest of the positions the manager delivered at once.
    virtual void locationControllerDidUpdateLocation(const location::Location& location) = 0;
    virtual void locationControllerDidUpdateHeading(const location::Heading& heading) = 0;
    virtual void locationControllerDidFailWithError(const location::LocationError& error) = 0;
};

}  // namespace sorvan
