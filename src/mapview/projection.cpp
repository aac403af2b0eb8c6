// The pixel-space conversions. They are pure, so any thread may call them.
//
// The forward latitude conversion evaluates its sine and logarithm in single precision while
// every inverse stays in double. Tile addresses and cached names of existing installations
// were computed this way; a "more precise" forward step would move points by up to a few
// pixels at high zoom and break round trips that hosts already rely on.
#include <cmath>

#include "SorvanMapSDK/SorvanMapView.hpp"

namespace sorvan {
namespace {

constexpr double kPixelOrigin = 268435456.0;
constexpr double kPixelRadius = 85445659.44705395;
constexpr double kPi = 3.141592653589793;
constexpr double kHalfPi = 1.5707963267948966;

}  // namespace

double SorvanMapView::longitudeToPixelSpaceX(double longitude) {
    double x = longitude * kPixelRadius;
    x = x * kPi;
    x = x / 180.0;
    x = x + kPixelOrigin;
    return std::round(x);
}

double SorvanMapView::latitudeToPixelSpaceY(double latitude) {
    float a = static_cast<float>(latitude * kPi / 180.0);
    float s = std::sin(a);
    float q = (s + 1.0f) / (1.0f - s);
    double l = static_cast<double>(std::log(q));
    double y = l * -kPixelRadius;
    y = y * 0.5;
    y = y + kPixelOrigin;
    return std::round(y);
}

double SorvanMapView::pixelSpaceXToLongitude(double pixelX) {
    double t = std::round(pixelX) - kPixelOrigin;
    t = t / kPixelRadius;
    t = t * 180.0;
    return t / kPi;
}

double SorvanMapView::pixelSpaceYToLatitude(double pixelY) {
    double t = (std::round(pixelY) - kPixelOrigin) / kPixelRadius;
    double e = std::exp(t);
    return (kHalfPi - 2.0 * std::atan(e)) * 180.0 / kPi;
}

}  // namespace sorvan
