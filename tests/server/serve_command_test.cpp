// `sorvan serve` as a user runs it: a child process, its first output line, a signal to stop.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "sorvan/platform/graphics/image.hpp"
#include "support/service_harness.hpp"
#include "tile_painter.hpp"

extern char** environ;

namespace sorvan::server {
namespace {

const std::string kTool = std::string(SORVAN_BINARY_DIR) + "/tools/sorvan/sorvan";

struct Child {
    pid_t pid = -1;
    FILE* out = nullptr;
};

Child spawnServe(std::vector<std::string> args) {
    int pipeFds[2];
    EXPECT_EQ(::pipe(pipeFds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    args.insert(args.begin(), {kTool, "serve"});
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    Child child;
    EXPECT_EQ(posix_spawn(&child.pid, kTool.c_str(), &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    child.out = ::fdopen(pipeFds[0], "r");
    return child;
}

int exitStatus(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(ServeCommand, PrintsItsOriginFirstAndStopsCleanlyOnSignals) {
    for (int signal : {SIGTERM, SIGINT}) {
        Child child = spawnServe({"--quiet"});
        char line[256] = {};
        ASSERT_NE(std::fgets(line, sizeof line, child.out), nullptr);
        std::string origin(line);
        ASSERT_TRUE(origin.starts_with("http://127.0.0.1:")) << origin;
        origin.pop_back();  // the newline

        auto terms = sorvan::testing::fetch(*net::URL::fromString(origin + "/terms"));
        EXPECT_FALSE(terms.error);
        EXPECT_EQ(terms.status(), 200);

        ::kill(child.pid, signal);
        EXPECT_EQ(exitStatus(child.pid), 0);
        std::fclose(child.out);
    }
}

TEST(ServeCommand, ListensOnTheGivenPortAndRejectsBadOnes) {
    int port = sorvan::testing::closedPort();
    Child child = spawnServe({"--port", std::to_string(port), "--quiet"});
    char line[256] = {};
    ASSERT_NE(std::fgets(line, sizeof line, child.out), nullptr);
    EXPECT_EQ(std::string(line), "http://127.0.0.1:" + std::to_string(port) + "\n");

    // The port is taken now: a second server fails and says why.
    Child second = spawnServe({"--port=" + std::to_string(port)});
    EXPECT_EQ(exitStatus(second.pid), 1);
    std::fclose(second.out);

    ::kill(child.pid, SIGTERM);
    EXPECT_EQ(exitStatus(child.pid), 0);
    std::fclose(child.out);

    for (const char* bad : {"70000", "-1", "8o"}) {
        Child rejected = spawnServe({"--port", bad});
        EXPECT_EQ(exitStatus(rejected.pid), 2) << bad;
        std::fclose(rejected.out);
    }
}

TEST(ServeCommand, StampsEveryTileAndPrintsItsOriginAsJSONWhenAsked) {
    Child child = spawnServe({"--stamp", "--json", "-q"});
    char line[256] = {};
    ASSERT_NE(std::fgets(line, sizeof line, child.out), nullptr);
    auto first = nlohmann::json::parse(line, nullptr, false);
    ASSERT_TRUE(first.is_object()) << line;
    EXPECT_EQ(first.size(), 2u);
    std::string origin = first.value("origin", "");
    EXPECT_EQ(origin, "http://127.0.0.1:" + std::to_string(first.value("port", -1)));

    auto tile = sorvan::testing::fetch(*net::URL::fromString(
        origin + "/map/msn-server/img.php?mode=normal&res=4096&imgid=7148049596242115"));
    std::string body = tile.body();
    auto image = gfx::Image::fromData(
        std::span(reinterpret_cast<const std::uint8_t*>(body.data()), body.size()));
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->pixels(), paintTile("normal", 12, 3191, 1889, true)->pixels());

    ::kill(child.pid, SIGTERM);
    EXPECT_EQ(exitStatus(child.pid), 0);
    std::fclose(child.out);
}

}  // namespace
}  // namespace sorvan::server
