// kill -9 at random moments of long renders that share one cache: whatever moment the process
// dies at, what it leaves behind must be whole. Every tile file in the disk cache is a picture,
// the preference store passes SQLite's integrity check, the tile list and the URL cache stay
// within their bounds, and a render that is left to finish draws the map from that cache.
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "sorvan/platform/foundation/defaults.hpp"
#include "sorvan/platform/graphics/image.hpp"
#include "support/foundation_support.hpp"
#include "support/service_harness.hpp"

extern char** environ;

namespace sorvan {
namespace {
namespace fs = std::filesystem;

const std::string kTool = std::string(SORVAN_BINARY_DIR) + "/tools/sorvan/sorvan";

class CrashSafety : public testing::ServiceTest {
  protected:
    // Starts a render of central Bangkok into out with the shared home; returns its pid.
    pid_t startRender(const std::string& out) {
        std::vector<std::string> args = {kTool,      "render",       "--center", "13.7563,100.5018",
                                         "--zoom",   "15",           "--size",   "1024x768",
                                         "--layers", "normal,icons", "-q",       "-o",
                                         out};
        // The test's own environment (sanitizer settings included), with the shared home and
        // the service.
        std::vector<std::string> env = {"SORVAN_HOME=" + home_.path(),
                                        "SORVAN_SERVICE_ORIGIN=" + origin(), "SORVAN_LOG=off"};
        for (char** e = environ; *e; ++e) {
            std::string_view entry(*e);
            if (!entry.starts_with("SORVAN_HOME=") &&
                !entry.starts_with("SORVAN_SERVICE_ORIGIN=") && !entry.starts_with("SORVAN_LOG=")) {
                env.emplace_back(entry);
            }
        }
        std::vector<char*> argv, envp;
        for (auto& a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        for (auto& e : env) {
            envp.push_back(e.data());
        }
        envp.push_back(nullptr);
        pid_t pid = 0;
        if (::posix_spawn(&pid, kTool.c_str(), nullptr, nullptr, argv.data(), envp.data()) != 0) {
            ADD_FAILURE() << "cannot start " << kTool;
            return 0;
        }
        return pid;
    }
    static int waitFor(pid_t pid) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    static std::string integrityOf(const std::string& path) {
        sqlite3* db = nullptr;
        std::string result = "cannot open";
        if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
            sqlite3_stmt* statement = nullptr;
            if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &statement, nullptr) ==
                    SQLITE_OK &&
                sqlite3_step(statement) == SQLITE_ROW) {
                result = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
            }
            sqlite3_finalize(statement);
        }
        sqlite3_close(db);
        return result;
    }
    static std::uintmax_t bytesUnder(const fs::path& dir) {
        std::uintmax_t total = 0;
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(dir, ec); it != fs::end(it);
             it.increment(ec)) {
            if (it->is_regular_file(ec)) {
                total += it->file_size(ec);
            }
        }
        return total;
    }

    test::TempDir home_;
};

TEST_F(CrashSafety, KilledRendersLeaveNothingBrokenBehind) {
    // Slow tiles, so that the kills land while tiles are fetched, decoded and stored.
    service().injectFault("/map/msn-server/img.php", {.count = -1, .delaySeconds = 0.01});
    std::mt19937 random(20261123);
    std::uniform_int_distribution<int> moment(50, 1500);
    const std::string out = home_.file("map.png");
    int killed = 0;
    ASSERT_EQ(::access(kTool.c_str(), X_OK), 0) << kTool;
    for (int round = 0; round < 16; ++round) {
        pid_t pid = startRender(out);
        // Never a pid of 0 or less: kill() would take that for a whole process group or for
        // every process there is.
        ASSERT_GT(pid, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(moment(random)));
        killed += ::kill(pid, SIGKILL) == 0;
        waitFor(pid);
    }
    EXPECT_GT(killed, 8) << "most renders must have been killed while they ran";

    const fs::path tiles = fs::path(home_.path()) / "caches" / "tileCache";
    int files = 0;
    for (const auto& entry : fs::directory_iterator(tiles)) {
        if (entry.path().extension() != ".png") {
            continue;  // a temporary file a kill left behind is never read as a tile
        }
        ++files;
        auto image = gfx::Image::fromFile(entry.path().string());
        ASSERT_TRUE(image) << "a broken tile file: " << entry.path();
        EXPECT_EQ(image->pixelWidth(), 256);
    }
    EXPECT_GT(files, 0);

    const fs::path preferences = fs::path(home_.path()) / "preferences";
    int stores = 0;
    for (const auto& entry : fs::directory_iterator(preferences)) {
        if (entry.path().extension() == ".sqlite") {
            ++stores;
            EXPECT_EQ(integrityOf(entry.path().string()), "ok") << entry.path();
            auto defaults = Defaults::open(entry.path().string());
            ASSERT_TRUE(defaults);
            auto list = defaults->stringArrayForKey("tileList");
            ASSERT_TRUE(list);
            EXPECT_LE(list->size(), 10001u);
        }
    }
    EXPECT_EQ(stores, 1);
    EXPECT_LE(bytesUnder(fs::path(home_.path()) / "caches" / "URLCache"), 64u << 20);

    // Left to finish, a render draws the map from what the kills left.
    service().clearFaults();
    pid_t last = startRender(out);
    ASSERT_GT(last, 0);
    ASSERT_EQ(waitFor(last), 0);
    auto map = gfx::Image::fromFile(out);
    ASSERT_TRUE(map);
    EXPECT_EQ(map->pixelWidth(), 1024);
    EXPECT_EQ(map->rgbaAt(512, 384)[3], 255);
}

}  // namespace
}  // namespace sorvan
