// The sorvan tool when things around it go wrong: tiles that come without a picture, what it
// leaves on disk (private caches and preferences, the key kept out of lines and names,
// leftovers of a killed run), and where its output goes (links, pipes, full disks).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "sorvan/platform/graphics/image.hpp"
#include "tool_test.hpp"

namespace sorvan::test {
namespace {
namespace fs = std::filesystem;

class SorvanFaults : public ToolTest {
  protected:
    std::vector<std::string> render(const std::string& output,
                                    std::vector<std::string> more = {"--layers", "base"}) const {
        std::vector<std::string> args = {"render",  "--center", "13.7563,100.5018",
                                         "--zoom",  "14",       "--size",
                                         "300x200", "-o",       output};
        args.insert(args.end(), more.begin(), more.end());
        return args;
    }
    static std::string contents(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    static unsigned modeOf(const fs::path& path) {
        struct stat info {};
        return ::lstat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0u;
    }
};

// A process id that nothing runs under: a child that has exited and been reaped.
pid_t deadProcessId() {
    pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    return child;
}

TEST_F(SorvanFaults, CachesAndPreferencesArePrivateAndTheKeyShowsNowhere) {
    // A run killed between writing a tile and renaming it left its temporary file; a live
    // writer's file (this process) must survive the next start.
    const fs::path tiles = fs::path(home_.path()) / "caches" / "tileCache";
    fs::create_directories(tiles);
    const std::string name(76, 'A');
    const fs::path abandoned =
        tiles / (name + ".png." + std::to_string(deadProcessId()) + ".0.tmp");
    const fs::path live = tiles / (name + ".png." + std::to_string(::getpid()) + ".0.tmp");
    const fs::path unnamed = tiles / (name + ".png.tmp");
    for (const auto& file : {abandoned, live, unnamed}) {
        std::ofstream(file) << "half a tile";
    }
    ::chmod((fs::path(home_.path()) / "caches").c_str(), 0755);

    ToolRun run = sorvan(render(home_.file("map.png")), {{"SORVAN_LOG", "debug"}});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err.find("cli-key"), std::string::npos) << run.err;

    // The tool's own messages quote addresses too.
    ToolRun usage = sorvan(
        render(home_.file("map.png"), {"--template", "http://127.0.0.1:1/{z}/a b?key=cli-key"}));
    EXPECT_EQ(usage.status, 2);
    EXPECT_NE(usage.err.find("'http://127.0.0.1:1/{z}/a b?key=***' forms no URL"),
              std::string::npos)
        << usage.err;

    EXPECT_FALSE(fs::exists(abandoned));
    EXPECT_FALSE(fs::exists(unnamed));
    EXPECT_TRUE(fs::exists(live));
    fs::remove(live);

    std::size_t files = 0;
    for (const char* top : {"caches", "preferences"}) {
        const fs::path root = fs::path(home_.path()) / top;
        EXPECT_EQ(modeOf(root), 0700u) << root;
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            const std::string shown = entry.path().string();
            EXPECT_EQ(shown.find("cli-key"), std::string::npos) << shown;
            EXPECT_EQ(modeOf(entry.path()), entry.is_directory() ? 0700u : 0600u) << shown;
            files += entry.is_regular_file() ? 1 : 0;
        }
    }
    // Tiles, stored answers and the preference store were all written and checked.
    EXPECT_GT(files, 6u);
    EXPECT_TRUE(fs::exists(fs::path(home_.path()) / "caches" / "URLCache"));
}

TEST_F(SorvanFaults, TilesWithoutAPictureAreCountedNamedAndFailTheRender) {
    auto tinyPNG = gfx::Image::fromPixels(1, 1, {0xff336699u})->pngData();
    service().route("/bad/404", [](const server::Request&) {
        return server::Response::text(404, "no such tile");
    });
    service().route("/bad/500",
                    [](const server::Request&) { return server::Response::text(500, "broken"); });
    service().route("/bad/html", [](const server::Request&) {
        return server::Response::html("<html><body>sign in first</body></html>");
    });
    service().route("/bad/garbage", [](const server::Request&) {
        server::Response r;
        r.body = "\x01\x02 not a picture";
        return r;
    });
    service().route("/bad/empty", [](const server::Request&) { return server::Response::png(""); });
    service().route("/bad/tiny", [tinyPNG](const server::Request&) {
        return server::Response::png(std::string(tinyPNG.begin(), tinyPNG.end()));
    });
    const std::pair<std::string, std::string> cases[] = {
        {"404", "HTTP status 404 (text/plain"},
        {"500", "HTTP status 500 (text/plain"},
        {"html", "not an image (status 200, text/html"},
        {"garbage", "not an image (status 200, application/octet-stream, 16 bytes)"},
        {"empty", "an empty answer (status 200)"},
        {"tiny", "a 1 x 1 image instead of 256 x 256"},
    };
    const std::string out = home_.file("map.png");
    for (const auto& [path, cause] : cases) {
        const std::string layer = origin() + "/bad/" + path + "/{z}/{x}/{y}.png";
        ToolRun run = sorvan(render(out, {"--template", layer, "--no-cache"}));
        EXPECT_EQ(run.status, 1) << path;
        // How many tiles a 300 x 200 view needs depends on which finish first at the edges.
        EXPECT_TRUE(
            std::regex_search(run.err, std::regex("^sorvan render: ([1-9]) of \\1 tile\\(s\\) "
                                                  "came out without the picture of a "
                                                  "layer; the first: tile 14/")))
            << run.err;
        EXPECT_NE(run.err.find(", layer 0 (mode 21): " + cause), std::string::npos) << run.err;
        EXPECT_FALSE(fs::exists(out)) << path;
    }

    // A good layer under a failing one: the picture has gaps all the same.
    const std::string failing = origin() + "/bad/404/{z}/{x}/{y}.png";
    ToolRun gaps = sorvan(render(out, {"--layers", "base", "--template", failing, "--no-cache"}));
    EXPECT_EQ(gaps.status, 1);
    EXPECT_NE(gaps.err.find("layer 1 (mode 21): HTTP status 404"), std::string::npos) << gaps.err;

    ToolRun partial = sorvan(render(out, {"--template", failing, "--no-cache", "--partial"}));
    EXPECT_EQ(partial.status, 0) << partial.err;
    EXPECT_TRUE(partial.err.starts_with("sorvan render: warning: ")) << partial.err;
    EXPECT_NE(partial.err.find(" tile(s) came out without the picture of a layer"),
              std::string::npos);
    EXPECT_TRUE(fs::exists(out));

    // Nothing failed, but nothing drew either: the legal label alone is no map.
    fs::remove(out);
    ToolRun none = sorvan(render(out, {"--layers", "none"}));
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("the map came out blank"), std::string::npos) << none.err;
    EXPECT_FALSE(fs::exists(out));
}

TEST_F(SorvanFaults, ATimeoutBeyondTheClockStillWaitsForTheTiles) {
    const std::string usual = home_.file("usual.png"), patient = home_.file("patient.png");
    ASSERT_EQ(sorvan(render(usual)).status, 0);
    ToolRun run = sorvan(render(patient, {"--layers", "base", "--timeout", "1e10"}));
    ASSERT_EQ(run.status, 0) << run.err;
    auto a = gfx::Image::fromFile(usual), b = gfx::Image::fromFile(patient);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->pixels(), b->pixels());
}

TEST_F(SorvanFaults, OutputFollowsLinksKeepsTheModeAndWritesThroughPipes) {
    // A new file gets what the umask leaves of 0666, as a shell's redirection would.
    const fs::path fresh = home_.file("fresh.png");
    mode_t saved = ::umask(027);
    ToolRun created = sorvan(render(fresh));
    ::umask(saved);
    ASSERT_EQ(created.status, 0) << created.err;
    EXPECT_EQ(modeOf(fresh), 0640u);

    // A private file stays private.
    const fs::path kept = home_.file("kept.png");
    std::ofstream(kept) << "old";
    ::chmod(kept.c_str(), 0600);
    ASSERT_EQ(sorvan(render(kept)).status, 0);
    EXPECT_EQ(modeOf(kept), 0600u);
    EXPECT_TRUE(contents(kept).starts_with("\x89PNG"));

    // A link stays a link; what it names gets the picture, keeping its mode.
    const fs::path target = home_.file("target.png"), link = home_.file("link.png");
    std::ofstream(target) << "old";
    ::chmod(target.c_str(), 0640);
    fs::create_symlink(target, link);
    ASSERT_EQ(sorvan(render(link)).status, 0);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(modeOf(target), 0640u);
    EXPECT_TRUE(contents(target).starts_with("\x89PNG"));
    const fs::path dangling = home_.file("dangling.png"), later = home_.file("later.png");
    fs::create_symlink(later, dangling);
    ASSERT_EQ(sorvan(render(dangling)).status, 0);
    EXPECT_TRUE(fs::is_symlink(dangling));
    EXPECT_TRUE(contents(later).starts_with("\x89PNG"));

    // A pipe is written through, not replaced by a file.
    const fs::path fifo = home_.file("pipe");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::string received;
    std::thread reader([&] { received = contents(fifo); });
    ToolRun piped = sorvan(render(fifo));
    reader.join();
    EXPECT_EQ(piped.status, 0) << piped.err;
    EXPECT_TRUE(fs::is_fifo(fifo));
    EXPECT_TRUE(received.starts_with("\x89PNG"));
    auto image = gfx::Image::fromData(
        std::span(reinterpret_cast<const std::uint8_t*>(received.data()), received.size()));
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->pixelWidth(), 300);

    ToolRun directory = sorvan(render(home_.path()));
    EXPECT_EQ(directory.status, 1);
    EXPECT_EQ(directory.err,
              "sorvan render: cannot write the PNG to '" + home_.path() + "': is a directory\n");
    // Nothing is left beside the targets.
    for (const auto& entry : fs::directory_iterator(home_.path())) {
        EXPECT_FALSE(entry.path().filename().string().starts_with(".")) << entry.path();
    }
}

TEST_F(SorvanFaults, AFullStandardOutputFailsEveryCommand) {
    const std::vector<std::vector<std::string>> commands = {
        {"search", "temple"},
        {"suggest", "tem"},
        {"route", "13.7516,100.4927", "13.7600,100.5100"},
        {"utm", "13.7563,100.5018"},
        {"area", "13.75,100.5", "13.76,100.5", "13.76,100.51"},
        {"--version"},
    };
    for (const auto& args : commands) {
        ToolCall call;
        call.args = args;
        call.env = {{"SORVAN_SERVICE_ORIGIN", origin()}, {"SORVAN_HOME", home_.path()}};
        call.stdoutFile = "/dev/full";
        ToolRun run = runSorvan(call);
        if (args.front() == "--version") {
            continue;  // CLI11 prints it; nothing the commands write
        }
        EXPECT_EQ(run.status, 1) << args.front();
        EXPECT_EQ(run.err, "sorvan " + args.front() +
                               ": cannot write to standard output: No space left on device\n")
            << args.front();
    }
    ToolCall png;
    png.args = render("-");
    png.env = {{"SORVAN_SERVICE_ORIGIN", origin()}, {"SORVAN_HOME", home_.path()}};
    png.stdoutFile = "/dev/full";
    ToolRun run = runSorvan(png);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err,
              "sorvan render: cannot write the PNG to standard output: No space left on "
              "device\n");
}

TEST_F(SorvanFaults, SearchSuggestAndRouteFailByOneRuleAndNameTheStatus) {
    // Read through as far as it goes: the kit delivers the first hit and logs the fault.
    answer("/mapsearch/json/search",
           R"({"data":[{"name":"Wat Pho","lat":13.7465,"lon":100.4927},"not a hit"]})");
    ToolRun search = sorvan({"search", "wat", "--quiet"});
    EXPECT_EQ(search.status, 1);
    EXPECT_EQ(search.out, "");
    EXPECT_TRUE(
        search.err.starts_with("sorvan search: the search service's answer could not be read: "))
        << search.err;

    answer("/mapsearch/json/suggest", R"({"data":[{"w":"wat"},{"x":1}]})");
    ToolRun suggest = sorvan({"suggest", "wa"});
    EXPECT_EQ(suggest.status, 1);
    EXPECT_EQ(suggest.out, "");
    EXPECT_EQ(suggest.err,
              "suggestWithKeyword Error (wa): a suggestion without \"w\"\n"
              "sorvan suggest: the search service's answer could not be read: a suggestion "
              "without \"w\"\n");

    // The kit reads an error page that is JSON like any answer; the command names its status.
    answer("/mapsearch/json/search", R"({"data":[]})", 500);
    ToolRun status = sorvan({"search", "wat"});
    EXPECT_EQ(status.status, 1);
    EXPECT_EQ(status.err, "sorvan search: the search service answered with HTTP status 500\n");

    service().route("/tvroute/json/route/guide", [](const server::Request&) {
        return server::Response::text(503, "over capacity");
    });
    ToolRun route = sorvan({"route", "13.7516,100.4927", "13.7600,100.5100", "--quiet"});
    EXPECT_EQ(route.status, 1);
    EXPECT_TRUE(route.err.starts_with("sorvan route: ")) << route.err;
    EXPECT_TRUE(route.err.ends_with(" (HTTP status 503)\n")) << route.err;

    for (const char* command : {"search", "suggest", "route"}) {
        // The table is wrapped: compare its words.
        std::string help =
            std::regex_replace(sorvan({command, "--help"}).out, std::regex("\\s+"), " ");
        EXPECT_NE(help.find("1 the work failed: no answer, a transport error, an HTTP status "
                            "other than 200"),
                  std::string::npos)
            << command << help;
    }
}

}  // namespace
}  // namespace sorvan::test
