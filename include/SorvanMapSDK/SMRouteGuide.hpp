// SMRouteGuide: one step of a route: the road's name, the turn onto it, its length and time,
// and its geometry. Made by routeFrom(); plain data, not synchronised.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/map/overlay.hpp"

namespace sorvan {

class SORVAN_EXPORT SMRouteGuide {
  public:
    SMRouteGuide() = default;

    const std::string& name() const { return name_; }
    void setName(std::string name) { name_ = std::move(name); }
    /// The turn value (see turnForServiceCode); 6 when the service gave none the kit knows.
    std::int64_t turn() const { return turn_; }
    void setTurn(std::int64_t turn) { turn_ = turn; }
    /// As the service gives it; the kit converts no units.
    std::int64_t distance() const { return distance_; }
    void setDistance(std::int64_t distance) { distance_ = distance; }
    std::int64_t interval() const { return interval_; }
    void setInterval(std::int64_t interval) { interval_ = interval; }
    /// The step's geometry; a polyline without points when the route came without one.
    const std::shared_ptr<map::Polyline>& path() const { return path_; }
    void setPath(std::shared_ptr<map::Polyline> path) { path_ = std::move(path); }

    /// The kit's turn value for a service "turn" code 0..6 (0 1 2 3 4 5 6 -> 0 1 2 3 6 4 5);
    /// codes outside that range keep the default 6. The rotation of 4..6 is part of the
    /// contract with existing applications.
    static std::int64_t turnForServiceCode(std::int64_t code);

  private:
    std::string name_;
    std::int64_t turn_ = 6;
    std::int64_t distance_ = 0;
    std::int64_t interval_ = 0;
    std::shared_ptr<map::Polyline> path_ = std::make_shared<map::Polyline>();
};

}  // namespace sorvan
