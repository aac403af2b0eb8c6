// SMRouteOptions: how routeFrom() asks for a route. Plain value object.
#pragma once

#include <cstdint>

#include "sorvan/platform/export.hpp"

namespace sorvan {

class SORVAN_EXPORT SMRouteOptions {
  public:
    SMRouteOptions() = default;

    /// Route mode: 1 and 2 select the service's modes "c" and "d"; every other value "t".
    std::int64_t mode() const { return mode_; }
    void setMode(std::int64_t mode) { mode_ = mode; }
    bool allowedTollway() const { return allowedTollway_; }
    void setAllowedTollway(bool allowed) { allowedTollway_ = allowed; }
    bool allowedFerry() const { return allowedFerry_; }
    void setAllowedFerry(bool allowed) { allowedFerry_ = allowed; }

  private:
    std::int64_t mode_ = 0;
    bool allowedTollway_ = true;
    bool allowedFerry_ = true;
};

}  // namespace sorvan
