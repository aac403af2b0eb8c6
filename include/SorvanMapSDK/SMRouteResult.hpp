// SMRouteResult: a route as the routing service describes it: the distances off the road
// network at both ends, the totals, and the steps. Made by routeFrom(); plain data.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "SorvanMapSDK/SMRouteGuide.hpp"
#include "sorvan/platform/export.hpp"

namespace sorvan {

class SORVAN_EXPORT SMRouteResult {
  public:
    SMRouteResult() = default;

    /// The service's "fdistance" (from the start to the road network).
    double fDistance() const { return fDistance_; }
    void setFDistance(double d) { fDistance_ = d; }
    /// The service's "tdistance" (from the road network to the destination).
    double tDistance() const { return tDistance_; }
    void setTDistance(double d) { tDistance_ = d; }
    const std::vector<std::shared_ptr<SMRouteGuide>>& guide() const { return guide_; }
    void setGuide(std::vector<std::shared_ptr<SMRouteGuide>> guide) { guide_ = std::move(guide); }
    std::int64_t distance() const { return distance_; }
    void setDistance(std::int64_t distance) { distance_ = distance; }
    std::int64_t interval() const { return interval_; }
    void setInterval(std::int64_t interval) { interval_ = interval; }

  private:
    double fDistance_ = 0.0;
    double tDistance_ = 0.0;
    std::vector<std::shared_ptr<SMRouteGuide>> guide_;
    std::int64_t distance_ = 0;
    std::int64_t interval_ = 0;
};

}  // namespace sorvan
