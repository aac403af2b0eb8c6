// SMTagAnnotation: one clustered point of interest (or one cluster of them) from the
// clustering service, for the tile zoom it was asked at. The map view makes these on the main
// queue from each answer and shows only those of the current zoom. Plain data, not
// synchronised: change it on the main queue only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "SorvanMapSDK/SMIcon.hpp"
#include "sorvan/platform/export.hpp"
#include "sorvan/platform/map/annotation.hpp"

namespace sorvan {

class SORVAN_EXPORT SMTagAnnotation : public map::Annotation {
  public:
    SMTagAnnotation() = default;

    /// The item's "name" (the place, or the cluster's description).
    const std::optional<std::string>& name() const { return name_; }
    void setName(std::optional<std::string> name) { name_ = std::move(name); }
    /// The item's "id", in its textual form (a number 12 reads "12").
    const std::optional<std::string>& poiid() const { return poiid_; }
    void setPoiid(std::optional<std::string> poiid) { poiid_ = std::move(poiid); }
    /// The binding it came from: a tag whose setId is not the bound renderer's is stale and
    /// is taken off the map when its view is asked for.
    std::int64_t setId() const { return setId_; }
    void setSetId(std::int64_t setId) { setId_ = setId; }
    /// The icon's file name without its four-character extension ("temple" for
    /// "temple.png"); unset when the item had no icon of at least five characters.
    const std::optional<std::string>& type() const { return type_; }
    void setType(std::optional<std::string> type) { type_ = std::move(type); }
    /// The zoom level of the tile whose request produced it.
    std::int64_t zoom() const { return zoom_; }
    void setZoom(std::int64_t zoom) { zoom_ = zoom; }
    /// Drawn instead of the service's icon, with its alpha and offset, when set.
    const std::shared_ptr<SMIcon>& customIcon() const { return customIcon_; }
    void setCustomIcon(std::shared_ptr<SMIcon> icon) { customIcon_ = std::move(icon); }

    map::Coordinate coordinate() const override { return coordinate_; }
    void setCoordinate(map::Coordinate coordinate) { coordinate_ = coordinate; }

  private:
    std::optional<std::string> name_;
    std::optional<std::string> poiid_;
    std::int64_t setId_ = 0;
    std::optional<std::string> type_;
    std::int64_t zoom_ = 0;
    std::shared_ptr<SMIcon> customIcon_;
    map::Coordinate coordinate_;
};

}  // namespace sorvan
