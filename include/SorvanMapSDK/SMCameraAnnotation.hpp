// SMCameraAnnotation: one traffic camera of the camera feed. The map view makes these when a
// feed arrives and adds them on the main queue; SorvanMapView::getVDOViewFromCameraData builds
// the view that shows one. Plain data, not synchronised: change it on the main queue only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "sorvan/platform/export.hpp"
#include "sorvan/platform/foundation/date_formatter.hpp"
#include "sorvan/platform/foundation/url.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "sorvan/platform/map/annotation.hpp"

namespace sorvan {

/// What a camera's url shows.
enum SMCameraFormat : std::int64_t {
    SMCameraFormatStill = 0,   // a still picture, shown as a web image
    SMCameraFormatMotion = 1,  // a moving picture a browser animates, shown as a web image
    SMCameraFormatLive = 2,    // a live video stream
};

class SORVAN_EXPORT SMCameraAnnotation : public map::Annotation {
  public:
    SMCameraAnnotation() = default;

    /// The feed's "camid".
    const std::optional<std::string>& cameraId() const { return cameraId_; }
    void setCameraId(std::optional<std::string> id) { cameraId_ = std::move(id); }
    /// The feed's "title".
    const std::optional<std::string>& cameraTitle() const { return cameraTitle_; }
    void setCameraTitle(std::optional<std::string> title) { cameraTitle_ = std::move(title); }
    /// A picture slot for the application; the feed does not fill it.
    const std::shared_ptr<gfx::Image>& icon() const { return icon_; }
    void setIcon(std::shared_ptr<gfx::Image> icon) { icon_ = std::move(icon); }
    /// "lastupdate" read as "yyyy-MM-dd HH:mm:ss" in the device's time zone; unset when the
    /// text is anything else (a date alone included).
    const std::optional<Date>& lastUpdate() const { return lastUpdate_; }
    void setLastUpdate(std::optional<Date> when) { lastUpdate_ = when; }
    /// The feed's "organization".
    const std::optional<std::string>& organization() const { return organization_; }
    void setOrganization(std::optional<std::string> who) { organization_ = std::move(who); }
    /// The feed's "sponsertext".
    const std::optional<std::string>& sponsorText() const { return sponsorText_; }
    void setSponsorText(std::optional<std::string> text) { sponsorText_ = std::move(text); }
    /// The sponsor's banner: the camera image server's "/feed/images/" + "overlay_file".
    const std::optional<net::URL>& sponsorImageURL() const { return sponsorImageURL_; }
    void setSponsorImageURL(std::optional<net::URL> url) { sponsorImageURL_ = std::move(url); }
    /// What the camera shows: "imgurl", "vdourl" or "hls_url", by format.
    const std::optional<net::URL>& url() const { return url_; }
    void setUrl(std::optional<net::URL> url) { url_ = std::move(url); }
    /// An SMCameraFormat; other values are shown like a still.
    std::int64_t format() const { return format_; }
    void setFormat(std::int64_t format) { format_ = format; }

    map::Coordinate coordinate() const override { return coordinate_; }
    void setCoordinate(map::Coordinate coordinate) { coordinate_ = coordinate; }

  private:
    std::optional<std::string> cameraId_;
    std::optional<std::string> cameraTitle_;
    std::shared_ptr<gfx::Image> icon_;
    std::optional<Date> lastUpdate_;
    std::optional<std::string> organization_;
    std::optional<std::string> sponsorText_;
    std::optional<net::URL> sponsorImageURL_;
    std::optional<net::URL> url_;
    std::int64_t format_ = SMCameraFormatStill;
    map::Coordinate coordinate_;
};

}  // namespace sorvan
