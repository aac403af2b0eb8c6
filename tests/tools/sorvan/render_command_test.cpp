// `sorvan render` as a user runs it, against the fixture's embedded service.
#include <filesystem>

#include "sdk/mapview/map_view_fixture.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "tool_run.hpp"

namespace sorvan::test {
namespace {

using Args = std::vector<std::string>;

class RenderCommandTest : public MapViewTest {
  protected:
    // `sorvan render` over the view below, with args after it.
    ToolRun render(const std::string& origin, const Args& args) {
        ToolCall call;
        call.args = {"render", "--center", "13.7563,100.5018", "--zoom", "14", "--size", "300x200"};
        call.args.insert(call.args.end(), args.begin(), args.end());
        call.env = {{"SORVAN_SERVICE_ORIGIN", origin}, {"SORVAN_HOME", home_.path()}};
        return runSorvan(call);
    }
    std::string out_ = home_.file("map.png");
};

TEST_F(RenderCommandTest, WritesThePictureAtTheScaleAsked) {
    ToolRun run = render(service_.origin(), {"--scale", "2", "--layers", "base,icons", "-o", out_});
    ASSERT_EQ(run.status, 0) << run.err;
    auto image = gfx::Image::fromFile(out_);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->pixelWidth(), 600);
    EXPECT_EQ(image->pixelHeight(), 400);
    EXPECT_FALSE(service_.requests("/map/msn-server/img.php").empty());
}

// A dead service, tiles without a picture and --partial are pinned with the tool's faults.
TEST_F(RenderCommandTest, RejectsBadArgumentsWithAUsageError) {
    const std::pair<Args, std::string> cases[] = {
        {{"--layers", "nosuch", "-o", out_}, "unknown layer mode 'nosuch'"},
        {{"--layers", "21", "-o", out_}, "needs a source"},
        {{"--layers", "base"}, "missing -o"},
        {{"--layers", "base", "--scale", "4", "-o", out_}, "--scale wants 1, 2 or 3"},
        {{"--center", "91,0", "--layers", "base", "-o", out_}, "--center"},
        {{"--wms-format", "4", "--layers", "base", "-o", out_}, "--wms-format needs --wms"},
        {{"--layers", "base", "--route", "13.75,100.49", "-o", out_}, "--route wants FROM_LAT"},
    };
    for (const auto& [args, message] : cases) {
        ToolRun run = render(service_.origin(), args);
        EXPECT_EQ(run.status, 2) << message;
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    }
    EXPECT_FALSE(std::filesystem::exists(out_));
}

// Pixels of the route's blue stroke, and of the icon service's gold temple disc that a temple
// hit is drawn with.
std::size_t countPixels(const gfx::Image& image, bool (*match)(int r, int g, int b)) {
    std::size_t n = 0;
    for (int y = 0; y < image.pixelHeight(); ++y) {
        for (int x = 0; x < image.pixelWidth(); ++x) {
            auto [r, g, b, a] = image.rgbaAt(x, y);
            n += match(r, g, b) ? 1 : 0;
        }
    }
    return n;
}
bool routeBlue(int r, int g, int b) {
    return b > 180 && r < 90 && g < 150;
}
bool templeGold(int r, int g, int b) {
    return r > 170 && g > 120 && g < 160 && b < 50;
}

TEST_F(RenderCommandTest, DrawsARouteAndSearchHitsOverTheTiles) {
    ToolRun plain = render(service_.origin(), {"--layers", "normal", "-o", out_});
    ASSERT_EQ(plain.status, 0) << plain.err;
    auto before = gfx::Image::fromFile(out_);
    ASSERT_NE(before, nullptr);
    service_.clearRequests();

    ToolRun run = render(service_.origin(),
                         {"--layers", "normal", "--route", "13.7516,100.4927:13.7600,100.5100",
                          "--search", "temple", "-o", out_});
    ASSERT_EQ(run.status, 0) << run.err;
    auto after = gfx::Image::fromFile(out_);
    ASSERT_NE(after, nullptr);
    // A 5-point line across a good part of a 300-point map, and at least one pin, drawn with
    // its icon (the picture waits for the icons to arrive).
    EXPECT_GT(countPixels(*after, routeBlue), countPixels(*before, routeBlue) + 300);
    EXPECT_GT(countPixels(*after, templeGold), countPixels(*before, templeGold) + 100);

    auto guide = service_.requests("/tvroute/json/route/guide");
    ASSERT_EQ(guide.size(), 1u);
    EXPECT_EQ(guide[0].queryItem("flat"), "13.751600");
    EXPECT_EQ(service_.requests("/tvroute/json/route/path").size(), 1u);
    auto search = service_.requests("/mapsearch/json/search");
    ASSERT_EQ(search.size(), 1u);
    EXPECT_EQ(search[0].queryItem("keyword"), "temple");
}

TEST_F(RenderCommandTest, ARouteOrSearchThatFailsWritesNothing) {
    const Args args = {"--layers", "normal", "-o", out_};
    auto with = [&](std::initializer_list<std::string> more) {
        Args all = args;
        all.insert(all.end(), more);
        return render(service_.origin(), all);
    };
    server::Fault failing;
    failing.status = 500;
    service_.injectFault("/tvroute/json/route/guide", failing);
    ToolRun run = with({"--route", "13.75,100.49:13.76,100.51"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("the routing service failed"), std::string::npos) << run.err;

    server::Fault malformed;
    malformed.malformedBody = true;
    service_.injectFault("/tvroute/json/route/guide", malformed);
    run = with({"--route", "13.75,100.49:13.76,100.51"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("sorvan render: "), std::string::npos) << run.err;

    service_.injectFault("/mapsearch/json/search", failing);
    run = with({"--search", "temple"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("the search service failed"), std::string::npos) << run.err;
    EXPECT_FALSE(std::filesystem::exists(out_));
}

}  // namespace
}  // namespace sorvan::test
