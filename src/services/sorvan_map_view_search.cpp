// SorvanMapView's search and suggest calls: thin forwarders to services::SearchClient.
#include <memory>

#include "SorvanMapSDK/SMSearchDelegate.hpp"
#include "SorvanMapSDK/SMServiceTask.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "services/service_client.hpp"

namespace sorvan {
namespace {

services::SearchClient searchClientOf(SorvanMapView& view) {
    auto settings = services::ServiceSettings::forView(view.boxDomain(), view.language(),
                                                       ServiceConfig::current().searchService);
    // The centre is read at call time, on the main queue.
    return services::SearchClient(std::move(settings), [&view] { return view.centerCoordinate(); });
}

}  // namespace

std::shared_ptr<SMServiceTask> SorvanMapView::searchWithKeyword(const std::string& keyword,
                                                                map::Coordinate coordinate) {
    return searchWithKeyword(keyword, coordinate, "20000km", 0, 20);
}

std::shared_ptr<SMServiceTask> SorvanMapView::searchWithKeyword(const std::string& keyword,
                                                                map::Coordinate coordinate,
                                                                const std::string& /*span*/,
                                                                std::int64_t /*offset*/,
                                                                std::int64_t /*limit*/) {
    // Span, offset and limit are accepted and never sent: this form has always asked the
    // service for its default page around the coordinate.
    std::weak_ptr<SorvanMapView> weak = weakSelf();
    return searchClientOf(*this).searchWithKeyword(
        keyword, coordinate, [weak](const services::Pins& pins) {
            // The delegate is looked up when the answer
            // arrives, not when the call was made.
            if (auto view = weak.lock()) {
                if (auto delegate = view->searchDelegate()) {
                    delegate->searchData(pins);
                }
            }
        });
}

std::shared_ptr<SMServiceTask> SorvanMapView::suggestWithKeyword(const std::string& keyword) {
    std::weak_ptr<SorvanMapView> weak = weakSelf();
    return searchClientOf(*this).suggestWithKeyword(keyword, [weak](const services::Words& words) {
        if (auto view = weak.lock()) {
            if (auto delegate = view->searchDelegate()) {
                delegate->suggestData(words);
            }
        }
    });
}

std::shared_ptr<SMServiceTask> SorvanMapView::searchKeyword(
    const std::string& keyword, const std::shared_ptr<SMSearchOptions>& options,
    SMSearchResult result) {
    return searchClientOf(*this).searchKeyword(keyword, options.get(), std::move(result));
}

std::shared_ptr<SMServiceTask> SorvanMapView::suggestKeyword(
    const std::string& keyword, const std::shared_ptr<SMSuggestOptions>& options,
    SMSuggestResult result) {
    return searchClientOf(*this).suggestKeyword(keyword, options.get(), std::move(result));
}

}  // namespace sorvan
