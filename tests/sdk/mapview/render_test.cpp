// Render cases of the map view: each directory tests/render/mapview_*/ holds case.json (what
// to show) and expected.png. "{origin}" in a template stands for the embedded service.
//
//   {"center": [13.7563, 100.5018], "zoom": 14, "size": [512, 384], "scale": 1,
//    "language": 2, "layers": [{"mode": 0}, {"mode": 9, "alpha": 0.5},
//    {"mode": 21, "template": "{origin}/wms", "format": 5}]}
#include <cmath>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "map_view_fixture.hpp"
#include "support/render_compare.hpp"

namespace sorvan::test {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> renderCases() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(fs::path(SORVAN_TEST_DATA_DIR) / "render")) {
        std::string name = entry.path().filename().string();
        if (name.rfind("mapview_", 0) == 0 && fs::exists(entry.path() / "case.json")) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

TEST_F(MapViewTest, RendersEveryCaseLikeItsReference) {
    std::vector<std::string> cases = renderCases();
    ASSERT_FALSE(cases.empty());
    for (const std::string& name : cases) {
        SCOPED_TRACE(name);
        std::ifstream in(fs::path(SORVAN_TEST_DATA_DIR) / "render" / name / "case.json");
        nlohmann::json c = nlohmann::json::parse(in);

        double width = c["size"][0], height = c["size"][1];
        auto view = SorvanMapView::create({0, 0, width, height});
        view->setScreenScale(c.value("scale", 1.0));
        view->setKey("render-test");
        view->setCache(2);
        view->setLanguage(c.value("language", 0));
        map::MapPoint p = map::mapPointForCoordinate({c["center"][0], c["center"][1]});
        double zoom = c["zoom"];
        double w = width * std::exp2(20.0 - zoom), h = height * std::exp2(20.0 - zoom);
        view->setVisibleMapRect({{p.x - w / 2, p.y - h / 2}, {w, h}});

        std::vector<std::shared_ptr<SMLayer>> layers;
        for (const auto& l : c["layers"]) {
            auto layer = SMLayer::create(l["mode"].get<std::int64_t>());
            layer->setAlpha(l.value("alpha", 1.0));
            layer->setSourceLayer(
                replaceAll(l.value("template", std::string()), "{origin}", service_.origin()));
            layer->setTileFormat(l.value("format", std::int64_t{0}));
            layers.push_back(layer);
        }
        view->addSMLayers(layers);

        std::shared_ptr<gfx::Image> frame = view->render(std::chrono::seconds(30));
        ASSERT_NE(frame, nullptr);
        EXPECT_TRUE(matchesReference(*frame, name));
    }
}

}  // namespace
}  // namespace sorvan::test
