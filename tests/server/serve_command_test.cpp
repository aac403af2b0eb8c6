// `sorvan serve` as a user runs it: a child process, its first output line, a signal to stop.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "sorvan/platform/graphics/image.hpp"
#include "support/foundation_support.hpp"
#include "support/service_harness.hpp"
#include "tile_painter.hpp"
#include "wire.hpp"

extern char** environ;

namespace sorvan::server {
namespace {

const std::string kTool = std::string(SORVAN_BINARY_DIR) + "/tools/sorvan/sorvan";

struct Child {
    pid_t pid = -1;
    FILE* out = nullptr;
};

// Runs `sorvan serve ARGS`; stderr goes to errPath (or nowhere). With fdLimit, the service
// runs with at most that many open files.
Child spawnServe(std::vector<std::string> args, const std::string& errPath = "/dev/null",
                 int fdLimit = 0) {
    int pipeFds[2];
    EXPECT_EQ(::pipe(pipeFds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    args.insert(args.begin(), {kTool, "serve"});
    if (fdLimit > 0) {
        args.insert(
            args.begin(),
            {"/bin/sh", "-c", "ulimit -n " + std::to_string(fdLimit) + " && exec \"$@\"", "sh"});
    }
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    Child child;
    int spawned = posix_spawn(&child.pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0 || child.pid <= 0) {
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
        // Never go on with no child: a signal sent to pid -1 reaches every process we may signal.
        throw std::runtime_error("cannot start " + args[0] + ": " + std::strerror(spawned));
    }
    ::close(pipeFds[1]);
    child.out = ::fdopen(pipeFds[0], "r");
    return child;
}

// The origin the child prints first, without its newline ("" when it printed none).
std::string firstLine(const Child& child) {
    char line[256] = {};
    if (std::fgets(line, sizeof line, child.out) == nullptr) {
        return "";
    }
    std::string text(line);
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    return text;
}

int portOf(const std::string& origin) {
    return std::stoi(origin.substr(origin.rfind(':') + 1));
}

// Signals a child of this test, and only one: never a process group or every process.
void signalChild(pid_t pid, int signal) {
    ASSERT_GT(pid, 0);
    ::kill(pid, signal);
}

// The exit status, or -1 when the child is still running after timeoutSeconds (then killed).
int exitStatusWithin(pid_t pid, double timeoutSeconds) {
    auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            signalChild(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// CPU seconds (user + system) the process has used so far.
double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14 || i == 15) {
            ticks += std::stod(field);
        }
    }
    return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

std::string fileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Ends a child with signal and gives its exit status (-1: still running after timeoutSeconds).
int stop(Child& child, int signal = SIGTERM, double timeoutSeconds = 15) {
    signalChild(child.pid, signal);
    int status = exitStatusWithin(child.pid, timeoutSeconds);
    std::fclose(child.out);
    return status;
}

// The exit status of a child that ends by itself.
int ended(Child& child) {
    int status = exitStatusWithin(child.pid, 30);
    std::fclose(child.out);
    return status;
}

TEST(ServeCommand, PrintsItsOriginFirstAndStopsCleanlyOnSignals) {
    for (int signal : {SIGTERM, SIGINT}) {
        Child child = spawnServe({"--quiet"});
        std::string origin = firstLine(child);
        ASSERT_TRUE(origin.starts_with("http://127.0.0.1:")) << origin;

        auto terms = sorvan::testing::fetch(*net::URL::fromString(origin + "/terms"));
        EXPECT_FALSE(terms.error);
        EXPECT_EQ(terms.status(), 200);

        EXPECT_EQ(stop(child, signal), 0);
    }
}

TEST(ServeCommand, ListensOnTheGivenPortAndRejectsBadOnes) {
    int port = sorvan::testing::closedPort();
    Child child = spawnServe({"--port", std::to_string(port), "--quiet"});
    EXPECT_EQ(firstLine(child), "http://127.0.0.1:" + std::to_string(port));

    // The port is taken now: a second server fails and says why.
    Child second = spawnServe({"--port=" + std::to_string(port)});
    EXPECT_EQ(ended(second), 1);
    EXPECT_EQ(stop(child), 0);

    for (const char* bad : {"70000", "-1", "8o"}) {
        Child rejected = spawnServe({"--port", bad});
        EXPECT_EQ(ended(rejected), 2) << bad;
    }
}

TEST(ServeCommand, StampsEveryTileAndPrintsItsOriginAsJSONWhenAsked) {
    Child child = spawnServe({"--stamp", "--json", "-q"});
    const std::string line = firstLine(child);
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
    EXPECT_EQ(stop(child), 0);
}

TEST(ServeCommand, AccessLogEscapesControlCharactersAndHidesTheServiceKey) {
    sorvan::test::TempDir dir;
    const std::string errPath = dir.file("stderr");
    Child child = spawnServe({}, errPath);
    std::string origin = firstLine(child);
    ASSERT_TRUE(origin.starts_with("http://127.0.0.1:")) << origin;
    {
        test::Wire wire(portOf(origin));
        wire.get("/mapsearch/json/suggest?keyword=a&key=SECRET1&locale=th");
        EXPECT_EQ(wire.read().status, 200);
        wire.get("/terms?KEY=SECRET2&keyword=kept&%6Bey=SECRET3&key=&monkey=kept&dir=a\\b");
        EXPECT_EQ(wire.read().status, 200);
    }
    {
        // A terminal's escape sequence and a bell in the target: refused, and logged inert.
        test::Wire wire(portOf(origin));
        wire.send("GET /terms?key=SECRET4&x=\x1b]0;owned\x07\x1b[2J\xff HTTP/1.1\r\n\r\n");
        EXPECT_EQ(wire.read().status, 400);
    }
    EXPECT_EQ(stop(child, SIGTERM, 5), 0);

    std::string log = fileText(errPath);
    EXPECT_EQ(log,
              "GET /mapsearch/json/suggest?keyword=a&key=***&locale=th 200\n"
              "GET /terms?KEY=***&keyword=kept&%6Bey=***&key=&monkey=kept&dir=a\\\\b 200\n"
              "GET /terms?key=***&x=\\x1b]0;owned\\x07\\x1b[2J\\xff 400\n");
    EXPECT_EQ(log.find("SECRET"), std::string::npos);
}

TEST(ServeCommand, GivesUpIdleConnectionsThenRefusesAtTheDescriptorLimitWithoutSpinning) {
    Child child = spawnServe({"--quiet"}, "/dev/null", 32);
    std::string origin = firstLine(child);
    ASSERT_TRUE(origin.starts_with("http://127.0.0.1:")) << origin;
    const int port = portOf(origin);
    // More idle connections than the service has descriptors for.
    std::vector<std::unique_ptr<test::Wire>> held;
    for (int i = 0; i < 40; ++i) {
        held.push_back(std::make_unique<test::Wire>(port, 5));
    }
    test::Wire newcomer(port, 5);
    newcomer.get("/terms");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    double before = cpuSeconds(child.pid);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    double used = cpuSeconds(child.pid) - before;
    EXPECT_LT(used, 0.25) << "CPU seconds in two seconds of waiting: the service spins on accept";
    EXPECT_EQ(newcomer.read().status, 200) << "an idle connection is given up for a newcomer";

    // Once every connection is busy with a request, a newcomer is refused, and told why.
    newcomer.send("GET /terms HTTP/1.1\r\nHo");
    for (auto& h : held) {
        h->trySend("GET /terms HTTP/1.1\r\nHo");
    }
    test::Wire refusedClient(port, 5);
    refusedClient.get("/terms");
    auto refused = refusedClient.read();
    ASSERT_EQ(refused.status, 503);
    EXPECT_EQ(refused.body, "too many connections: no file descriptor left\n");
    EXPECT_EQ(refused.headers["connection"], "close");
    EXPECT_EQ(refused.headers["retry-after"], "1");
    EXPECT_EQ(stop(child, SIGTERM, 5), 0);
}

TEST(ServeCommand, StopsAtOnceWhateverItsClientsAreDoing) {
    Child child = spawnServe({"--quiet"});
    std::string origin = firstLine(child);
    ASSERT_TRUE(origin.starts_with("http://127.0.0.1:")) << origin;
    std::vector<std::unique_ptr<test::Wire>> clients;
    for (int i = 0; i < 12; ++i) {
        clients.push_back(std::make_unique<test::Wire>(portOf(origin), 5, 4096));
        if (i % 3 == 0) {
            clients.back()->trySend("GET /terms HTTP/1.1\r\nHo");
        } else if (i % 3 == 1) {
            clients.back()->trySend("GET /tiles/1/0/0.png?delay=600 HTTP/1.1\r\n\r\n");
        } else {
            // Tiles asked for and never read.
            for (int k = 0; k < 30; ++k) {
                clients.back()->trySend("GET /map/msn-server/img.php?mode=normal&res=4096&imgid=" +
                                        std::to_string(7148049596242115 + k * 923456789LL) +
                                        " HTTP/1.1\r\n\r\n");
            }
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    // It waits for no client and no delay, only for the tiles being painted right then (a few
    // milliseconds each; seconds in a sanitizer build on a busy machine).
    EXPECT_EQ(stop(child), 0);
    for (auto& c : clients) {
        EXPECT_TRUE(c->readToEnd());
    }
}

}  // namespace
}  // namespace sorvan::server
