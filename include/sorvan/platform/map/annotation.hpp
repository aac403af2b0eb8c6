// Annotations: points of interest placed on the map, shown by annotation views. Shared
// objects; the engine reads coordinate() on the main queue.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/map/geometry.hpp"

namespace sorvan::map {

class SORVAN_EXPORT Annotation : public std::enable_shared_from_this<Annotation> {
  public:
    virtual ~Annotation() = default;
    virtual Coordinate coordinate() const = 0;
    virtual std::optional<std::string> title() const { return std::nullopt; }
    virtual std::optional<std::string> subtitle() const { return std::nullopt; }
};

/// A plain annotation with a settable coordinate and title.
class SORVAN_EXPORT PointAnnotation : public Annotation {
  public:
    PointAnnotation() = default;
    explicit PointAnnotation(Coordinate c, std::optional<std::string> title = std::nullopt)
        : coordinate_(c), title_(std::move(title)) {}
    Coordinate coordinate() const override { return coordinate_; }
    void setCoordinate(Coordinate c) { coordinate_ = c; }
    std::optional<std::string> title() const override { return title_; }
    void setTitle(std::optional<std::string> t) { title_ = std::move(t); }

  private:
    Coordinate coordinate_;
    std::optional<std::string> title_;
};

/// The device's position as the map's location source reports it; one per map view.
class SORVAN_EXPORT UserLocation : public Annotation {
  public:
    Coordinate coordinate() const override { return coordinate_; }
    bool isUpdating() const { return updating_; }
    /// Last heading in degrees, if the source gives one.
    std::optional<double> heading() const { return heading_; }

    // Set by the engine.
    void update(Coordinate c, std::optional<double> heading) {
        coordinate_ = c;
        heading_ = heading;
        updating_ = true;
    }

  private:
    Coordinate coordinate_;
    std::optional<double> heading_;
    bool updating_ = false;
};

}  // namespace sorvan::map
