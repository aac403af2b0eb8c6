// The view's geodetic methods: the pure functions of SMGeodesy, offered on the view. They read
// no state of the view, so any thread may call them.
#include "SorvanMapSDK/SMGeodesy.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"

namespace sorvan {

std::string SorvanMapView::UTMFrom(map::Coordinate coordinate, bool withZone) const {
    return geodesy::UTMFrom(coordinate, withZone);
}

map::Coordinate SorvanMapView::coordinateFromUTM(const std::string& text) const {
    return geodesy::coordinateFromUTM(text);
}

double SorvanMapView::areaOfPolygon(const map::MultiPoint& polygon) const {
    return geodesy::areaOfPolygon(polygon);
}

}  // namespace sorvan
