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

}  // namespace
}  // namespace sorvan::test
