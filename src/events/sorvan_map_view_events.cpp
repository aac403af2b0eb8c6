// The map view's traffic events: loading the feed, merging it into the events on the map and
// the process-wide refresh timer. Main queue only; the feed's answer is parsed on the URL
// session's queue and merged on the main queue.
#include <memory>
#include <stdexcept>

#include "SorvanMapSDK/SMEventAnnotation.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "SorvanMapSDK/SorvanMapView.hpp"
#include "events/event_merge.hpp"
#include "foundation/json_access.hpp"
#include "mapview/globals.hpp"
#include "mapview/live_feed.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan {
namespace {

constexpr dispatch::Duration kEventRefreshInterval{180.0};

void logEventError(const std::string& description) {
    log::error("showEvents Error: %s", description.c_str());
}

void stopEventRefresh() {
    if (auto timer = globals::eventTimer()) {
        timer->invalidate();
    }
}

}  // namespace

void SorvanMapView::setShowsEvents(bool shows) {
    stopEventRefresh();
    if (!shows) {
        showsEvents_ = false;
        unloadEvent();
        return;
    }
    showEvents();
}

void SorvanMapView::showEvents() {
    stopEventRefresh();
    loadEvent();
    // One timer for the whole process: starting it here replaced (and stopped) any other
    // view's.
    std::weak_ptr<SorvanMapView> self = weakSelf();
    globals::setEventTimer(
        dispatch::Timer::scheduled(kEventRefreshInterval, true, [self](dispatch::Timer&) {
            if (auto view = self.lock()) {
                view->loadEvent();
            }
        }));
}

// Unlike setShowsEvents(false), the timer is left running on purpose: its next tick loads the
// events and turns them on again.
void SorvanMapView::removeEvents() {
    showsEvents_ = false;
    unloadEvent();
}

void SorvanMapView::loadEvent() {
    bool wereShown = showsEvents_;
    showsEvents_ = true;

    std::weak_ptr<SorvanMapView> self = weakSelf();
    mapview::fetchFeed(
        ServiceConfig::current().eventFeed, logEventError, [self, wereShown](json::Value feed) {
            std::shared_ptr<DateFormatter> dates;
            try {
                dates = std::make_shared<DateFormatter>("yyyy-MM-dd HH:mm:ss", "en_US");
            } catch (const std::invalid_argument& e) {
                logEventError(e.what());
                return;
            }
            dispatch::RunLoop::main().async([self, wereShown, token = mapview::beginLiveRequest(),
                                             feed = std::move(feed), dates = std::move(dates)] {
                auto view = self.lock();
                if (!view) {
                    return;
                }
                std::vector<std::shared_ptr<SMEventAnnotation>> onMap;
                for (const auto& annotation : view->annotations()) {
                    if (auto event = std::dynamic_pointer_cast<SMEventAnnotation>(annotation)) {
                        onMap.push_back(std::move(event));
                    }
                }
                // Everything is read before anything changes: a feed of the wrong shape
                // leaves the events on the map as they are.
                events::FeedMerge merge;
                try {
                    merge = events::mergeFeed(feed, onMap, wereShown, view->language(), *dates);
                } catch (const json::StructureError& e) {
                    logEventError(e.reason());
                    return;
                }
                for (const auto& gone : merge.removed) {
                    view->removeAnnotation(gone);
                }
                for (const auto& fresh : merge.added) {
                    view->addAnnotation(fresh);
                }
                // Switched off while the feed was on its way: what it added goes again.
                if (!view->showsEvents_) {
                    view->unloadEvent();
                }
            });
        });
}

void SorvanMapView::unloadEvent() {
    mapview::removeAnnotationsOf<SMEventAnnotation>(weakSelf());
}

}  // namespace sorvan
