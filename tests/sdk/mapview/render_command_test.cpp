// `sorvan render` as a user runs it, against the fixture's embedded service.
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>

#include "map_view_fixture.hpp"
#include "sorvan/platform/graphics/image.hpp"

namespace sorvan::test {
namespace {

struct CommandRun {
    int status = -1;
    std::string output;  // stdout and stderr
};

class RenderCommandTest : public MapViewTest {
  protected:
    CommandRun render(const std::string& origin, const std::string& args) {
        std::string command = "SORVAN_SERVICE_ORIGIN=" + origin + " SORVAN_HOME=" + home_.path() +
                              " " + SORVAN_BINARY_DIR + "/tools/sorvan/sorvan render " + args +
                              " 2>&1";
        CommandRun run;
        FILE* pipe = ::popen(command.c_str(), "r");
        if (!pipe) {
            return run;
        }
        char buffer[512];
        while (std::fgets(buffer, sizeof buffer, pipe)) {
            run.output += buffer;
        }
        int status = ::pclose(pipe);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return run;
    }
    std::string out_ = home_.file("map.png");
    const std::string viewArgs_ = "--center 13.7563,100.5018 --zoom 14 --size 300x200 ";
};

TEST_F(RenderCommandTest, WritesThePictureAtTheScaleAsked) {
    CommandRun run =
        render(service_.origin(), viewArgs_ + "--scale 2 --layers base,icons -o " + out_);
    ASSERT_EQ(run.status, 0) << run.output;
    auto image = gfx::Image::fromFile(out_);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->pixelWidth(), 600);
    EXPECT_EQ(image->pixelHeight(), 400);
    EXPECT_FALSE(service_.requests("/map/msn-server/img.php").empty());
}

TEST_F(RenderCommandTest, RejectsBadArgumentsWithAUsageError) {
    const std::pair<std::string, std::string> cases[] = {
        {viewArgs_ + "--layers nosuch -o " + out_, "unknown layer mode 'nosuch'"},
        {viewArgs_ + "--layers 21 -o " + out_, "needs a source"},
        {viewArgs_ + "--layers base", "missing -o"},
        {viewArgs_ + "--layers base --scale 4 -o " + out_, "--scale wants 1, 2 or 3"},
        {"--center 91,0 --zoom 3 --size 10x10 --layers base -o " + out_, "--center"},
        {viewArgs_ + "--template 'http://x/{z}/a b' -o " + out_, "forms no URL"},
        {viewArgs_ + "--wms-format 4 --layers base -o " + out_, "--wms-format needs --wms"},
        {viewArgs_ + "--layers base --route 13.75,100.49 -o " + out_, "--route wants FROM_LAT"},
    };
    for (const auto& [args, message] : cases) {
        CommandRun run = render(service_.origin(), args);
        EXPECT_EQ(run.status, 2) << args;
        EXPECT_NE(run.output.find(message), std::string::npos) << run.output;
    }
    EXPECT_FALSE(std::filesystem::exists(out_));
}

TEST_F(RenderCommandTest, FailsClearlyInsteadOfWritingABlankMap) {
    CommandRun run = render("http://127.0.0.1:9", viewArgs_ + "--layers base -o " + out_);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("tile request(s) failed; the first: TILE ERROR: "), std::string::npos)
        << run.output;

    // Every tile answered 404: no error line from the kit, but nothing to show either.
    std::string missing = service_.origin() + "/tiles/{z}/{x}/{y}.png?status=404";
    run = render(service_.origin(), viewArgs_ + "--template '" + missing + "' -o " + out_);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("the map came out blank"), std::string::npos) << run.output;
    EXPECT_FALSE(std::filesystem::exists(out_));

    run =
        render(service_.origin(), viewArgs_ + "--template '" + missing + "' --partial -o " + out_);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(std::filesystem::exists(out_));
}

// Pixels of the route's blue stroke, and of the engine's default red pin.
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
bool pinRed(int r, int g, int b) {
    return r > 180 && g < 90 && b < 90;
}

TEST_F(RenderCommandTest, DrawsARouteAndSearchHitsOverTheTiles) {
    CommandRun plain = render(service_.origin(), viewArgs_ + "--layers normal -o " + out_);
    ASSERT_EQ(plain.status, 0) << plain.output;
    auto before = gfx::Image::fromFile(out_);
    ASSERT_NE(before, nullptr);
    service_.clearRequests();

    CommandRun run =
        render(service_.origin(), viewArgs_ +
                                      "--layers normal --route 13.7516,100.4927:13.7600,100.5100 "
                                      "--search temple -o " +
                                      out_);
    ASSERT_EQ(run.status, 0) << run.output;
    auto after = gfx::Image::fromFile(out_);
    ASSERT_NE(after, nullptr);
    // A 5-point line across a good part of a 300-point map, and at least one pin.
    EXPECT_GT(countPixels(*after, routeBlue), countPixels(*before, routeBlue) + 300);
    EXPECT_GT(countPixels(*after, pinRed), countPixels(*before, pinRed) + 30);

    auto guide = service_.requests("/tvroute/json/route/guide");
    ASSERT_EQ(guide.size(), 1u);
    EXPECT_EQ(guide[0].queryItem("flat"), "13.751600");
    EXPECT_EQ(service_.requests("/tvroute/json/route/path").size(), 1u);
    auto search = service_.requests("/mapsearch/json/search");
    ASSERT_EQ(search.size(), 1u);
    EXPECT_EQ(search[0].queryItem("keyword"), "temple");
}

TEST_F(RenderCommandTest, ARouteOrSearchThatFailsWritesNothing) {
    const std::string args = viewArgs_ + "--layers normal -o " + out_ + " ";
    server::Fault failing;
    failing.status = 500;
    service_.injectFault("/tvroute/json/route/guide", failing);
    CommandRun run = render(service_.origin(), args + "--route 13.75,100.49:13.76,100.51");
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("the routing service failed"), std::string::npos) << run.output;

    server::Fault malformed;
    malformed.malformedBody = true;
    service_.injectFault("/tvroute/json/route/guide", malformed);
    run = render(service_.origin(), args + "--route 13.75,100.49:13.76,100.51");
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("sorvan render: "), std::string::npos) << run.output;

    service_.injectFault("/mapsearch/json/search", failing);
    run = render(service_.origin(), args + "--search temple");
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("the search service failed"), std::string::npos) << run.output;
    EXPECT_FALSE(std::filesystem::exists(out_));
}

}  // namespace
}  // namespace sorvan::test
