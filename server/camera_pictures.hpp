// The pictures of the embedded camera service: a camera's still (a JPEG of its street at the
// service's clock), its moving picture (an animated PNG a browser plays in a loop) and the
// sponsors' banners (PNG). Thread-safe: each call paints into surfaces of its own.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace sorvan::server {

/// The camera's street at time now, with a Bangkok clock, as a 640 x 360 JPEG.
std::string cameraStillJPEG(const std::string& camid, std::chrono::system_clock::time_point now);
/// Eight pictures of the street a quarter of a second apart from time now, 320 x 180, as an
/// animated PNG that loops for ever.
std::string cameraMotionAPNG(const std::string& camid, std::chrono::system_clock::time_point now);
/// A banner of one of sponsorBanners() (PNG, 600 x 90); nullopt for any other name.
std::optional<std::string> sponsorBannerPNG(const std::string& name);

}  // namespace sorvan::server
