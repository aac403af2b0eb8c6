// SMTagDelegate: receives the tags a bound SMTileOverlayRenderer reads from the clustering
// service. The map view binds itself. Both methods may be called from any thread; the map
// view's own implementation hops to the main queue before it touches the map.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "sorvan/platform/export.hpp"

namespace sorvan {

class SMTagAnnotation;

class SORVAN_EXPORT SMTagDelegate {
  public:
    virtual ~SMTagDelegate() = default;
    /// The new tags of one answer (possibly none): the view adds them to the map in one call.
    virtual void tagData(const std::vector<std::shared_ptr<SMTagAnnotation>>& tags) = 0;
    /// The view takes every tag whose zoom differs from zoom off the map in one call. Nothing
    /// in the kit calls it; it is the application's.
    virtual void removeOldTagFromZoom(std::int64_t zoom) = 0;
};

}  // namespace sorvan
