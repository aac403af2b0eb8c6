#include "mapview/view_hooks.hpp"

#include <map>
#include <mutex>

#include "SorvanMapSDK/SorvanMapView.hpp"

namespace sorvan::mapview {
namespace {

struct Registry {
    std::mutex mutex;
    // Ordered by feature name so every run walks them in the same order.
    std::map<std::string, std::function<void(SorvanMapView&)>> regionFollowers;
};

Registry& registry() {
    static Registry r;
    return r;
}

}  // namespace

void registerRegionChangeFollower(const std::string& feature,
                                  std::function<void(SorvanMapView&)> follower) {
    std::lock_guard lock(registry().mutex);
    registry().regionFollowers[feature] = std::move(follower);
}

std::vector<std::function<void(SorvanMapView&)>> regionChangeFollowers() {
    std::lock_guard lock(registry().mutex);
    std::vector<std::function<void(SorvanMapView&)>> out;
    out.reserve(registry().regionFollowers.size());
    for (const auto& [name, follower] : registry().regionFollowers) {
        out.push_back(follower);
    }
    return out;
}

}  // namespace sorvan::mapview
