// SorvanMapView's routing calls: thin forwarders to services::RouteClient.
#include <memory>

#include "SorvanMapSDK/SMServiceTask.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "services/service_client.hpp"

namespace sorvan {
namespace {

services::RouteClient routeClientOf(const SorvanMapView& view) {
    return services::RouteClient(services::ServiceSettings::forView(
        view.boxDomain(), view.language(), ServiceConfig::current().routeService));
}

}  // namespace

std::shared_ptr<SMServiceTask> SorvanMapView::routeFrom(
    map::Coordinate from, map::Coordinate to, const std::shared_ptr<SMRouteOptions>& options,
    SMRouteResultBlock result) {
    return routeClientOf(*this).routeFrom(from, to, options.get(), std::move(result));
}

std::shared_ptr<SMServiceTask> SorvanMapView::pathFrom(std::int64_t routeId, SMPathResult result) {
    return routeClientOf(*this).pathFrom(routeId, std::move(result));
}

}  // namespace sorvan
