#include "mapview/view_hooks.hpp"

#include <map>
#include <mutex>

#include "SorvanMapSDK/SorvanMapView.hpp"

namespace sorvan::mapview {
namespace {

struct Registry {
    std::mutex mutex;
    // Ordered by feature name so every run walks them in the same order.
    std::map<std::string, ZoomBoundAnnotations> zoomBound;
    std::map<std::string, std::function<void(SorvanMapView&)>> regionFollowers;
    std::map<std::string, std::function<void(SorvanMapView&)>> languageFollowers;
    std::function<void(SorvanMapView&)> tagRebinder;
};

Registry& registry() {
    static Registry r;
    return r;
}

template <typename T>
std::vector<T> values(const std::map<std::string, T>& m) {
    std::vector<T> out;
    out.reserve(m.size());
    for (const auto& [name, value] : m) {
        out.push_back(value);
    }
    return out;
}

}  // namespace

void registerZoomBoundAnnotations(const std::string& feature, ZoomBoundAnnotations hooks) {
    std::lock_guard lock(registry().mutex);
    registry().zoomBound[feature] = std::move(hooks);
}

void registerRegionChangeFollower(const std::string& feature,
                                  std::function<void(SorvanMapView&)> follower) {
    std::lock_guard lock(registry().mutex);
    registry().regionFollowers[feature] = std::move(follower);
}

void registerLanguageChangeFollower(const std::string& feature,
                                    std::function<void(SorvanMapView&)> follower) {
    std::lock_guard lock(registry().mutex);
    registry().languageFollowers[feature] = std::move(follower);
}

void setTagRebinder(std::function<void(SorvanMapView&)> rebinder) {
    std::lock_guard lock(registry().mutex);
    registry().tagRebinder = std::move(rebinder);
}

std::vector<ZoomBoundAnnotations> zoomBoundAnnotations() {
    std::lock_guard lock(registry().mutex);
    return values(registry().zoomBound);
}

std::vector<std::function<void(SorvanMapView&)>> regionChangeFollowers() {
    std::lock_guard lock(registry().mutex);
    return values(registry().regionFollowers);
}

std::vector<std::function<void(SorvanMapView&)>> languageChangeFollowers() {
    std::lock_guard lock(registry().mutex);
    return values(registry().languageFollowers);
}

std::function<void(SorvanMapView&)> tagRebinder() {
    std::lock_guard lock(registry().mutex);
    return registry().tagRebinder;
}

}  // namespace sorvan::mapview
