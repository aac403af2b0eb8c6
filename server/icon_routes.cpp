// The icon services: map icons at "/tvmap/images/icons{,_2x,_3x}/NAME.png" (1, 2 and 3 pixels
// per point) and traffic signs at "/sites/all/modules/traffic/images/icon_NAME-l.png". An
// unknown name is answered 404. Pictures are drawn once per name and scale and kept.
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "icon_painter.hpp"
#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {
namespace {

constexpr std::string_view kMapIcons = "/tvmap/images/icons";
constexpr std::string_view kTrafficIcons = "/sites/all/modules/traffic/images/icon_";

// Finitely many names and scales exist, so the cache needs no bound.
class IconCache {
  public:
    template <typename Paint>
    std::shared_ptr<const std::string> get(const std::string& key, Paint&& paint) {
        {
            std::lock_guard lock(mutex_);
            if (auto it = pngs_.find(key); it != pngs_.end()) {
                return it->second;
            }
        }
        std::shared_ptr<gfx::Image> image = paint();
        if (!image) {
            return nullptr;
        }
        std::vector<std::uint8_t> png = image->pngData();
        auto bytes = std::make_shared<const std::string>(png.begin(), png.end());
        std::lock_guard lock(mutex_);
        return pngs_.emplace(key, bytes).first->second;
    }

  private:
    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<const std::string>> pngs_;
};

IconCache& cache() {
    static IconCache c;
    return c;
}

Response notFound(const Request& request) {
    return Response::text(404, "no icon " + request.path + "\n");
}

Response mapIcon(const Request& request) {
    std::string_view rest = std::string_view(request.path).substr(kMapIcons.size());
    int scale = 1;
    if (rest.starts_with("_2x/")) {
        scale = 2;
    } else if (rest.starts_with("_3x/")) {
        scale = 3;
    } else if (!rest.starts_with("/")) {
        return notFound(request);
    }
    rest.remove_prefix(rest.find('/') + 1);
    if (!rest.ends_with(".png") || rest.find('/') != std::string_view::npos) {
        return notFound(request);
    }
    std::string name(rest.substr(0, rest.size() - 4));
    auto png = cache().get("map/" + std::to_string(scale) + "/" + name,
                           [&] { return paintMapIcon(name, scale); });
    return png ? Response::png(*png) : notFound(request);
}

Response trafficIcon(const Request& request) {
    std::string_view rest = std::string_view(request.path).substr(kTrafficIcons.size());
    if (!rest.ends_with("-l.png") || rest.find('/') != std::string_view::npos) {
        return notFound(request);
    }
    std::string name(rest.substr(0, rest.size() - 6));
    auto png = cache().get("traffic/" + name, [&] { return paintTrafficIcon(name); });
    return png ? Response::png(*png) : notFound(request);
}

}  // namespace

void installIconRoutes(EmbeddedService& service) {
    service.route(std::string(kMapIcons), mapIcon);
    service.route(std::string(kTrafficIcons), trafficIcon);
}

}  // namespace sorvan::server
