// What a drawn tile asks the clustering service, and how one answer becomes tag annotations.
#include <gtest/gtest.h>

#include <cmath>

#include "SorvanMapSDK/SMTagAnnotation.hpp"
#include "SorvanMapSDK/SMTagDelegate.hpp"
#include "SorvanMapSDK/SMTileOverlay.hpp"
#include "SorvanMapSDK/SMTileOverlayRenderer.hpp"
#include "SorvanMapSDK/ServiceConfig.hpp"
#include "mapview/globals.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "support/foundation_support.hpp"
#include "tags/tag_answer.hpp"
#include "tags/tag_registry.hpp"

namespace sorvan {
namespace {

struct NullDelegate : SMTagDelegate {
    void tagData(const std::vector<std::shared_ptr<SMTagAnnotation>>&) override {}
    void removeOldTagFromZoom(std::int64_t) override {}
};

// The map rect of tile (x, y) at zoom z of a 512-pixel tile overlay, and its zoom scale.
struct Tile {
    map::MapRect rect;
    double zoomScale;
};
Tile tile(int z, std::int64_t x, std::int64_t y) {
    double width = map::kMapWorldSize / std::exp2(z);
    return {{{static_cast<double>(x) * width, static_cast<double>(y) * width}, {width, width}},
            512.0 / width};
}

class TagRequest : public ::testing::Test {
  protected:
    void SetUp() override {
        config_.clusterService = "https://cluster.example";
        ServiceConfig::setCurrent(config_);
        renderer_->setTag(std::vector<std::string>{"temple", "bank"});
        renderer_->setApikey("K");
        renderer_->setLanguage("th");
        renderer_->setVisibleRange({1, 22});
    }
    void TearDown() override {
        ServiceConfig::setCurrent(ServiceConfig::fromEnvironment());
        globals::resetForTesting();
    }
    std::string address(int z, std::int64_t x, std::int64_t y) {
        Tile t = tile(z, x, y);
        auto request = renderer_->tagRequest(t.rect, t.zoomScale);
        return request ? request->url().absoluteString() : "none";
    }

    // Making an overlay prepares the tile cache folder: keep it in a scratch home.
    test::TempDir home_;
    test::ScopedEnv homeEnv_{"SORVAN_HOME", home_.path()};
    ServiceConfig config_;
    std::shared_ptr<SMTileOverlayRenderer> renderer_ = SMTileOverlayRenderer::create(
        SMTileOverlay::create({SMLayerModeNormal}, "K", std::nullopt, 0));
};

TEST_F(TagRequest, PathCarriesZoomIndexAndLanguageAndTheQueryTheNamesAndKey) {
    EXPECT_EQ(address(16, 51000, 30000),
              "https://cluster.example/ClusterService/json/cluster/epsg3857/16/1966131000/th?"
              "tag%5B0%5D=temple&tag%5B1%5D=bank&key=K");
    Tile t = tile(16, 51000, 30000);
    EXPECT_EQ(renderer_->tagRequest(t.rect, t.zoomScale)->valueForHeader("Referer"),
              "sorvan://" + Bundle::main().identifier());

    // An empty list asks with the key alone; so does a renderer with a delegate and no list.
    renderer_->setTag(std::vector<std::string>{});
    EXPECT_EQ(address(3, 5, 2),
              "https://cluster.example/ClusterService/json/cluster/epsg3857/3/21/th?key=K");
    auto delegate = std::make_shared<NullDelegate>();
    renderer_->setTag(std::nullopt);
    renderer_->setTagDelegate(delegate);
    EXPECT_EQ(address(3, 5, 2),
              "https://cluster.example/ClusterService/json/cluster/epsg3857/3/21/th?key=K");
    // Neither list nor delegate: unbound, nothing is asked.
    delegate.reset();
    EXPECT_EQ(address(3, 5, 2), "none");

    // Zoom 0 multiplies the row by 0; a box domain replaces the origin and keeps the path.
    renderer_->setTag(std::vector<std::string>{"a b"});
    renderer_->setVisibleRange({0, 22});
    renderer_->setLanguage("en");
    renderer_->setBoxDomain(net::URL::fromString("http://box.example:8080/some/path"));
    EXPECT_EQ(address(0, 0, 0),
              "http://box.example:8080/ClusterService/json/cluster/epsg3857/0/0/en?"
              "tag%5B0%5D=a%20b&key=K");
}

TEST_F(TagRequest, OnlyZoomsWithinTheRangeAskBothEndsIncluded) {
    renderer_->setVisibleRange({5, 3});
    EXPECT_EQ(address(4, 1, 1), "none");
    EXPECT_NE(address(5, 1, 1), "none");
    EXPECT_NE(address(8, 1, 1), "none");
    EXPECT_EQ(address(9, 1, 1), "none");
    // The default options' range reaches zoom 23.
    renderer_->setVisibleRange({1, 22});
    EXPECT_EQ(address(0, 0, 0), "none");
    EXPECT_NE(address(23, 1, 1), "none");
    EXPECT_EQ(address(24, 1, 1), "none");
}

TEST(TagAnswer, IconTypeDropsFourUTF16UnitsFromFiveOrMore) {
    EXPECT_EQ(tags::iconType("abcd"), std::nullopt);
    EXPECT_EQ(tags::iconType(""), std::nullopt);
    EXPECT_EQ(tags::iconType("a.png"), "a");
    EXPECT_EQ(tags::iconType("temple_5.png"), "temple_5");
    EXPECT_EQ(tags::iconType("วัด.png"), "วัด");
    // A character outside the basic plane counts twice.
    EXPECT_EQ(tags::iconType("\U0001F600.png"), "\U0001F600");
    EXPECT_EQ(tags::iconType("x\U0001F600pn"), "x");
    EXPECT_EQ(tags::iconType("\U0001F600pn"), std::nullopt);
}

TEST(TagAnswer, ItemsBecomeTagsOncePerIdAndZoom) {
    tags::TagRegistry registry;
    auto icon = SMIcon::withImage(nullptr);
    json::Value answer = json::Value::parse(R"({"data": [
        {"id": "A1", "name": "Wat", "icon": "temple.png", "lat": "13.5", "lon": 100.25},
        {"id": 12, "name": 7, "icon": "abcd", "lat": 1, "lon": 2},
        {"id": "A1", "name": "again in this answer"},
        {"id": "12"},
        {}
    ]})");
    auto first = tags::readTags(answer, 14, 77, icon, registry);
    ASSERT_EQ(first.size(), 4u);
    EXPECT_EQ(first[0]->poiid(), "A1");
    EXPECT_EQ(first[0]->name(), "Wat");
    EXPECT_EQ(first[0]->type(), "temple");
    EXPECT_EQ(first[0]->zoom(), 14);
    EXPECT_EQ(first[0]->setId(), 77);
    EXPECT_EQ(first[0]->customIcon(), icon);
    EXPECT_DOUBLE_EQ(first[0]->coordinate().latitude, 13.5);
    EXPECT_DOUBLE_EQ(first[0]->coordinate().longitude, 100.25);
    EXPECT_EQ(first[1]->poiid(), "12");
    EXPECT_EQ(first[1]->type(), std::nullopt);
    // The number 12 and the text "12" are different ids; an item with no id has one too.
    EXPECT_EQ(first[2]->poiid(), "12");
    EXPECT_EQ(first[3]->poiid(), std::nullopt);
    EXPECT_EQ(first[3]->coordinate().latitude, 0);
    EXPECT_EQ(registry.size(), 4u);

    // The same items at the same zoom again (12.0 is the number 12): nothing new. At another
    // zoom every item is new.
    json::Value again = json::Value::parse(R"({"data": [{"id": "A1"}, {"id": 12.0}]})");
    EXPECT_TRUE(tags::readTags(again, 14, 77, nullptr, registry).empty());
    EXPECT_EQ(tags::readTags(again, 15, 77, nullptr, registry).size(), 2u);
    EXPECT_TRUE(
        tags::readTags(json::Value::parse(R"({"meta": 1})"), 14, 1, nullptr, registry).empty());
}

TEST(TagAnswer, AnswersOfTheWrongShapeFaultAndLeaveTheRegistryAlone) {
    const std::pair<const char*, const char*> cases[] = {
        {R"([{"id": 1}])", "expected an object, found array"},
        {R"({"data": {"id": 1}})", "expected an array, found object"},
        {R"({"data": [{"id": "new"}, 5]})", "expected an object, found number"},
        {R"({"data": [{"id": "new", "icon": null}]})", "icon: expected a string, found null"},
        {R"({"data": [{"id": "new", "icon": 5}]})", "icon: expected a string, found number"},
        {R"({"data": [{"id": "new", "lat": {}}]})",
         "lat: expected a number or a string, found object"},
        {R"({"data": [{"id": "new", "lon": null}]})",
         "lon: expected a number or a string, found null"},
    };
    for (const auto& [body, reason] : cases) {
        tags::TagRegistry registry;
        try {
            tags::readTags(json::Value::parse(body), 14, 1, nullptr, registry);
            ADD_FAILURE() << "no fault for " << body;
        } catch (const json::StructureError& e) {
            EXPECT_EQ(e.reason(), reason) << body;
        }
        EXPECT_EQ(registry.size(), 0u) << body;
    }
}

}  // namespace
}  // namespace sorvan
