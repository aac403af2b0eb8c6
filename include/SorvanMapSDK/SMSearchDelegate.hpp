// SMSearchDelegate: receives the results of the delegate-style search and suggest calls of
// SorvanMapView. The view holds it weakly. Both methods are called on the main queue, and only
// on success: a failed request is logged and the delegate hears nothing.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sorvan/platform/export.hpp"

namespace sorvan {

class SMPinAnnotation;

class SORVAN_EXPORT SMSearchDelegate {
  public:
    virtual ~SMSearchDelegate() = default;
    /// One pin per hit, in the service's order (possibly none).
    virtual void searchData(const std::vector<std::shared_ptr<SMPinAnnotation>>& pins) = 0;
    /// The suggested words, in the service's order (possibly none).
    virtual void suggestData(const std::vector<std::string>& words) = 0;
};

}  // namespace sorvan
