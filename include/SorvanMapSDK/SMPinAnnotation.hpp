// SMPinAnnotation: a point of interest the host may put on the map; search hits arrive as pins.
// Every field starts empty or zero. The map shows it with the icon named by type() from the
// icon service. Plain data: not synchronised; hand it to the main queue before changing it
// while the map shows it.
#pragma once

#include <any>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "SorvanMapSDK/SMIcon.hpp"
#include "sorvan/platform/export.hpp"
#include "sorvan/platform/map/annotation.hpp"

namespace sorvan {

class SORVAN_EXPORT SMPinAnnotation : public map::Annotation {
  public:
    SMPinAnnotation() = default;

    /// Identifier of the point of interest the pin stands for.
    const std::optional<std::string>& poiid() const { return poiid_; }
    void setPoiid(std::optional<std::string> poiid) { poiid_ = std::move(poiid); }
    const std::optional<std::string>& name() const { return name_; }
    void setName(std::optional<std::string> name) { name_ = std::move(name); }
    const std::optional<std::string>& address() const { return address_; }
    void setAddress(std::optional<std::string> address) { address_ = std::move(address); }

    map::Coordinate coordinate() const override { return coordinate_; }
    void setCoordinate(map::Coordinate coordinate) { coordinate_ = coordinate; }

    /// Carried for the host; the pin's own view does not draw it.
    const std::shared_ptr<SMIcon>& icon() const { return icon_; }
    void setIcon(std::shared_ptr<SMIcon> icon) { icon_ = std::move(icon); }
    /// A free slot for the host.
    const std::any& userData() const { return userData_; }
    void setUserData(std::any userData) { userData_ = std::move(userData); }
    /// Icon name on the icon service ("restaurant" for restaurant.png); unset means "reddot".
    const std::optional<std::string>& type() const { return type_; }
    void setType(std::optional<std::string> type) { type_ = std::move(type); }

  private:
    std::optional<std::string> poiid_;
    std::optional<std::string> name_;
    std::optional<std::string> address_;
    map::Coordinate coordinate_;
    std::shared_ptr<SMIcon> icon_;
    std::any userData_;
    std::optional<std::string> type_;
};

}  // namespace sorvan
