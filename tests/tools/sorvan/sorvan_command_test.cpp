// The sorvan tool as a whole: what every command shares (help, version, option forms, usage
// errors, --quiet and the log level), standard output as the PNG, and the progress line.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "SorvanMapSDK/SorvanMapSDK.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "tool_test.hpp"

namespace sorvan::test {
namespace {

class SorvanCommand : public ToolTest {
  protected:
    const std::vector<std::string> view_ = {"render", "--center",  "13.7563,100.5018", "--zoom",
                                            "14",     "--size",    "300x200",          "--layers",
                                            "base",   "--no-cache"};
};

// The names listed under "commands:" in `sorvan --help`.
std::vector<std::string> listedCommands(const std::string& help) {
    std::vector<std::string> names;
    std::istringstream lines(help.substr(help.find("\ncommands:\n") + 11));
    std::string line;
    while (std::getline(lines, line) && !line.empty()) {
        if (line.size() > 2 && line[2] != ' ') {
            names.push_back(line.substr(2, line.find(' ', 2) - 2));
        }
    }
    return names;
}

TEST_F(SorvanCommand, EveryCommandHasItsHelpTheVersionAndTheExitStatusTable) {
    const std::string version = std::string("SorvanMapSDK ") + SorvanMapSDKVersionString + "\n";
    ToolRun top = sorvan({"--help"});
    ASSERT_EQ(top.status, 0);
    EXPECT_TRUE(top.out.starts_with("usage: sorvan ")) << top.out;
    EXPECT_EQ(sorvan({"--version"}).out, version);
    EXPECT_EQ(sorvan({"help"}).out, top.out);

    std::vector<std::string> commands = listedCommands(top.out);
    for (const char* known : {"area", "render", "route", "search", "serve", "suggest", "utm"}) {
        EXPECT_NE(std::find(commands.begin(), commands.end(), known), commands.end()) << known;
    }
    const std::set<std::string> printingData = {"area",  "route",   "search",
                                                "serve", "suggest", "utm"};
    for (const std::string& name : commands) {
        SCOPED_TRACE(name);
        ToolRun help = sorvan({name, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_EQ(help.err, "");
        EXPECT_TRUE(help.out.starts_with("usage: sorvan " + name + " ")) << help.out;
        for (const char* part :
             {"-h,--help", "--version", "-q,--quiet",
              "\nexit status:\n  0  success\n  1  the work failed", "\n  2  usage error: "}) {
            EXPECT_NE(help.out.find(part), std::string::npos) << part << "\n" << help.out;
        }
        if (printingData.count(name) != 0) {
            EXPECT_NE(help.out.find("  --json "), std::string::npos) << help.out;
        }
        EXPECT_EQ(sorvan({name, "-h"}).out, help.out);
        ToolRun v = sorvan({name, "--version"});
        EXPECT_EQ(v.status, 0);
        EXPECT_EQ(v.out, version);
    }

    // No command at all is a usage error; the help goes to stderr then.
    ToolRun none = sorvan(std::vector<std::string>{});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.out, "");
    EXPECT_TRUE(none.err.starts_with("usage: sorvan ")) << none.err;
}

TEST_F(SorvanCommand, OptionsTakeTheirValueAfterAnEqualsSignOrAsTheNextArgument) {
    ToolRun spaced = sorvan(
        {"search", "siam", "--near", "13.7462,100.5347", "--limit", "2", "--lang", "en", "--json"});
    std::string spacedQuery = lastQuery("/mapsearch/json/search");
    ToolRun joined =
        sorvan({"search", "--near=13.7462,100.5347", "--limit=2", "--lang=en", "siam", "--json"});
    ASSERT_EQ(spaced.status, 0) << spaced.err;
    ASSERT_EQ(joined.status, 0) << joined.err;
    EXPECT_EQ(joined.out, spaced.out);
    EXPECT_EQ(lastQuery("/mapsearch/json/search"), spacedQuery);
    EXPECT_EQ(spacedQuery,
              "keyword=siam&locale=en&key=cli-key&lat=13.746200&lon=100.534700&span=&offset=0&"
              "limit=2");

    // A negative position is a value, not an option, in either form.
    for (const auto& near : {std::vector<std::string>{"--near", "-13.5,-100.25"},
                             std::vector<std::string>{"--near=-13.5,-100.25"}}) {
        std::vector<std::string> args{"search", "wat"};
        args.insert(args.end(), near.begin(), near.end());
        ToolRun r = sorvan(args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_NE(lastQuery("/mapsearch/json/search").find("&lat=-13.500000&lon=-100.250000&"),
                  std::string::npos);
    }

    // The last of a repeated option counts.
    ToolRun twice = sorvan(
        {"route", "13.7462,100.5347", "13.6900,100.7501", "--mode", "1", "--mode=2", "--json"});
    EXPECT_EQ(twice.status, 0) << twice.err;
    EXPECT_NE(lastQuery("/tvroute/json/route/guide").find("&mode=d&"), std::string::npos);
}

TEST_F(SorvanCommand, UsageErrorsExitTwoSayWhatIsWrongAndDoNothing) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"search", "x", "--bogus"}, "sorvan search: unknown option '--bogus'"},
        {{"search", "x", "y"}, "sorvan search: unexpected argument 'y'"},
        {{"search", "x", "--near"}, "sorvan search: --near needs a value"},
        {{"search", "x", "--limit", "1e3"},
         "sorvan search: --limit wants a whole number, got '1e3'"},
        {{"suggest", "x", "--offset= 12"},
         "sorvan suggest: --offset wants a whole number, got ' 12'"},
        {{"search", "x", "--lang", "fr"}, "sorvan search: --lang wants en or th, got 'fr'"},
        {{"search", "x", "--near", "91,0"},
         "sorvan search: --near: latitude out of range [-90, 90] in '91,0'"},
        {{"search"}, "sorvan search: KEYWORD is required"},
        {{"route", "13.7,100.5"}, "sorvan route: TO is required"},
        {{"route", "13.7,100.5", "13.8,100.6", "--mode", "0x1A"},
         "sorvan route: --mode wants a whole number, got '0x1A'"},
        {{"serve", "--port", "70000"},
         "sorvan serve: --port wants a whole number from 0 to 65535, got '70000'"},
        {{"utm", "--zone"}, "sorvan utm: unknown option '--zone'"},
        {{"render", "--zoom", "inf"},
         "sorvan render: --zoom wants a number from 0 to 20, got 'inf'"},
        {{"render", "--zoom", "3", "--size", "10x10", "--layers", "base"},
         "sorvan render: missing --center, -o"},
    };
    for (const auto& [args, message] : cases) {
        ToolRun r = sorvan(args);
        EXPECT_EQ(r.status, 2) << message;
        EXPECT_EQ(r.out, "") << message;
        EXPECT_EQ(r.err, message + "\n(see `sorvan " + args[0] + " --help`)\n");
    }
    ToolRun unknown = sorvan({"nosuch", "--json"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.err, "sorvan: unknown command 'nosuch' (see `sorvan --help`)\n");
    EXPECT_TRUE(service().requests().empty());
}

TEST_F(SorvanCommand, RenderWritesThePNGToStandardOutputButNotToATerminal) {
    std::vector<std::string> args = view_;
    args.insert(args.end(), {"-o", "-"});
    ToolRun r = sorvan(args);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    ASSERT_TRUE(r.out.starts_with("\x89PNG\r\n\x1a\n"));
    auto image = gfx::Image::fromData(
        std::span(reinterpret_cast<const std::uint8_t*>(r.out.data()), r.out.size()));
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->pixelWidth(), 300);
    EXPECT_EQ(image->pixelHeight(), 200);

    service().clearRequests();
    ToolCall onTerminal;
    onTerminal.args = args;
    onTerminal.stdoutOnTerminal = true;
    ToolRun refused = sorvan(onTerminal);
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.out, "");
    EXPECT_NE(refused.err.find("which is a terminal here"), std::string::npos) << refused.err;
    EXPECT_TRUE(service().requests().empty());
}

TEST_F(SorvanCommand, QuietAndSorvanLogChooseWhichLinesOfTheKitReachStderr) {
    const std::string closed = closedOrigin();
    const std::string kitLine =
        "searchWithKeyword Error (wat,13.756300,100.501800): Could not connect to the server.\n";
    const std::string ownLine = "sorvan search: Could not connect to the server.\n";
    const std::string banner = "Sorvan Map SDK v3.13 by Tervane Technology Co. Ltd.\n";

    // By default the kit's errors and warnings, not its banner.
    ToolRun plain = sorvan({"search", "wat"}, {}, closed);
    EXPECT_EQ(plain.status, 1);
    EXPECT_EQ(plain.err, kitLine + ownLine);

    ToolRun quiet = sorvan({"search", "wat", "--quiet"}, {{"SORVAN_LOG", "debug"}}, closed);
    EXPECT_EQ(quiet.status, 1);
    EXPECT_EQ(quiet.err, ownLine);

    EXPECT_EQ(sorvan({"search", "wat"}, {{"SORVAN_LOG", "info"}}, closed).err,
              banner + kitLine + ownLine);
    EXPECT_EQ(sorvan({"search", "wat"}, {{"SORVAN_LOG", "off"}}, closed).err, ownLine);
    EXPECT_EQ(sorvan({"search", "wat"}, {{"SORVAN_LOG", "loud"}}, closed).err,
              "SORVAN_LOG: unknown level 'loud' (error, warning, info, debug or off); writing "
              "info and above\n" +
                  banner + kitLine + ownLine);

    // Quiet keeps the render's own verdict; the tiles' failures still decide it.
    std::vector<std::string> args = view_;
    args.insert(args.end(), {"-o", home_.file("map.png"), "-q"});
    ToolRun render = sorvan(args, {{"SORVAN_LOG", "off"}}, closed);
    EXPECT_EQ(render.status, 1);
    EXPECT_TRUE(render.err.starts_with("sorvan render: ")) << render.err;
    EXPECT_NE(render.err.find("tile request(s) failed; the first: TILE ERROR: "), std::string::npos)
        << render.err;
}

TEST_F(SorvanCommand, BrokenTileAnswersAreNotKeptAndNoCacheKeepsNothing) {
    std::vector<std::string> args(view_.begin(), view_.end() - 1);  // without --no-cache
    args.insert(args.end(), {"-o", home_.file("map.png")});
    auto render = [&](bool noCache) {
        // Written even when tiles fail, so that the broken picture can be compared.
        std::vector<std::string> a = args;
        a.push_back("--partial");
        if (noCache) {
            a.push_back("--no-cache");
        }
        sorvan(a);
        std::ifstream in(home_.file("map.png"), std::ios::binary);
        std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
        auto image = gfx::Image::fromData(bytes);
        EXPECT_NE(image, nullptr);
        return image ? image->pixels() : std::vector<std::uint32_t>{};
    };
    auto urlCacheFiles = [&] {
        std::error_code ec;
        auto files = std::filesystem::directory_iterator(home_.path() + "/caches/URLCache", ec);
        return ec ? 0 : std::distance(begin(files), end(files));
    };
    // No cache at all: nothing is written anywhere.
    const auto healthy = render(true);
    EXPECT_EQ(urlCacheFiles(), 0);

    // Tiles answered 200 with bytes that are no picture, then the server heals: the next
    // render asks again and draws them.
    server::Fault garbage;
    garbage.count = -1;
    garbage.malformedBody = true;
    service().injectFault("/map/msn-server/img.php", garbage);
    EXPECT_NE(render(false), healthy);
    service().clearFaults();
    service().clearRequests();
    EXPECT_EQ(render(false), healthy);
    EXPECT_FALSE(service().requests("/map/msn-server/img.php").empty());
}

TEST_F(SorvanCommand, ALongRenderShowsProgressOnlyWhenStderrIsATerminal) {
    server::Fault slow;
    slow.count = -1;
    slow.delaySeconds = 1.5;
    service().injectFault("/map/msn-server/img.php", slow);
    // Each run slow: a home of its own, so no answer comes from an earlier run's cache.
    auto slowRender = [&](bool terminal, bool quiet) {
        TempDir home;
        ToolCall call;
        call.args = view_;
        call.args.insert(call.args.end(), {"-o", home.file("map.png")});
        if (quiet) {
            call.args.push_back("--quiet");
        }
        call.env = {{"SORVAN_HOME", home.path()}};
        call.stderrOnTerminal = terminal;
        return sorvan(call);  // its home replaces the test's
    };
    ToolRun shown = slowRender(true, false);
    ASSERT_EQ(shown.status, 0) << shown.err;
    EXPECT_TRUE(shown.err.starts_with("\rsorvan render: waiting for tiles, ")) << shown.err;
    EXPECT_TRUE(shown.err.ends_with(" s\033[K\r\033[K")) << shown.err;  // cleared at the end

    EXPECT_EQ(slowRender(true, true).err, "");
    ToolRun piped = slowRender(false, false);
    EXPECT_EQ(piped.status, 0);
    EXPECT_EQ(piped.err, "");
    EXPECT_GE(service().requests("/map/msn-server/img.php").size(), 3u);
}

}  // namespace
}  // namespace sorvan::test
