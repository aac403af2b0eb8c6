#include "sorvan/platform/foundation/defaults.hpp"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <thread>

#include "sorvan/platform/foundation/log.hpp"
#include "support/foundation_support.hpp"

extern char** environ;

namespace sorvan {
namespace {

using test::ScopedEnv;
using test::TempDir;
using Strings = std::vector<std::string>;

constexpr const char* kChildVariable = "SORVAN_DEFAULTS_TEST_CHILD_STORE";

// When this binary is started again as the "other process" of a test, it writes to the store
// named in the environment and leaves before the test framework starts.
[[maybe_unused]] const bool childRan = [] {
    if (const char* path = std::getenv(kChildVariable)) {
        auto store = Defaults::open(path);
        store->setString("from the child", "who");
        store->appendToStringArray("child", "list");
        std::_Exit(store->synchronize() ? 0 : 3);
    }
    return false;
}();

TEST(Defaults, KeepsStringsAndArraysApartAndAcrossReopening) {
    TempDir dir;
    const std::string path = dir.file("nested/dir/store.sqlite");
    {
        auto store = Defaults::open(path);
        EXPECT_EQ(store->stringForKey("cacheVersion"), std::nullopt);
        store->setString("3.13", "cacheVersion");
        store->setStringArray({}, "empty");
        store->setStringArray({"a", "", std::string("n\0ul", 4), "ไทย"}, "list");
        store->setString("was a string", "switch");
        store->setStringArray({"now an array"}, "switch");
        store->setString("plain", "appended");
        store->appendToStringArray("first", "appended");  // replaces the string
        store->appendToStringArray("x", "fresh");
        store->setStringArray({"gone"}, "removed");
        store->removeObjectForKey("removed");
        store->removeFirstOfStringArray(2, "absent");
        EXPECT_TRUE(store->synchronize());
    }
    auto store = Defaults::open(path);
    EXPECT_EQ(store->stringForKey("cacheVersion"), "3.13");
    EXPECT_EQ(store->stringArrayForKey("cacheVersion"), std::nullopt);
    EXPECT_EQ(store->stringArrayForKey("empty"), Strings{});
    EXPECT_EQ(store->stringForKey("empty"), std::nullopt);
    EXPECT_EQ(store->stringArrayForKey("list"), (Strings{"a", "", std::string("n\0ul", 4), "ไทย"}));
    EXPECT_EQ(store->stringArrayForKey("switch"), Strings{"now an array"});
    EXPECT_EQ(store->stringArrayForKey("appended"), Strings{"first"});
    EXPECT_EQ(store->stringArrayForKey("fresh"), Strings{"x"});
    EXPECT_EQ(store->stringArrayForKey("removed"), std::nullopt);
    EXPECT_EQ(store->stringArrayForKey("absent"), std::nullopt);

    store->removeFirstOfStringArray(10, "list");
    EXPECT_EQ(store->stringArrayForKey("list"), Strings{});
}

TEST(Defaults, SeesWhatAnotherProcessWrote) {
    TempDir dir;
    const std::string path = dir.file("shared.sqlite");
    auto store = Defaults::open(path);
    store->setStringArray({"parent"}, "list");
    EXPECT_EQ(store->stringForKey("who"), std::nullopt);

    const std::string variable = std::string(kChildVariable) + "=" + path;
    std::vector<char*> env;
    for (char** e = environ; *e; ++e) {
        env.push_back(*e);
    }
    env.push_back(const_cast<char*>(variable.c_str()));
    env.push_back(nullptr);
    char program[] = "/proc/self/exe";
    char* argv[] = {program, nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, program, nullptr, nullptr, argv, env.data()), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);

    EXPECT_EQ(store->stringForKey("who"), "from the child");
    EXPECT_EQ(store->stringArrayForKey("list"), (Strings{"parent", "child"}));
}

TEST(Defaults, ConcurrentAppendsFromThreadsAndConnectionsLoseNothing) {
    TempDir dir;
    const std::string path = dir.file("busy.sqlite");
    auto one = Defaults::open(path);
    auto two = Defaults::open(path);
    constexpr int kThreads = 4, kEach = 150;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Defaults& store = t % 2 ? *one : *two;
            for (int i = 0; i < kEach; ++i) {
                store.appendToStringArray(std::to_string(t) + ":" + std::to_string(i), "list");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto list = one->stringArrayForKey("list").value_or(Strings{});
    ASSERT_EQ(list.size(), static_cast<std::size_t>(kThreads * kEach));
    // Each thread's elements appear in the order it appended them.
    std::vector<int> next(kThreads, 0);
    for (const auto& element : list) {
        const int t = std::stoi(element.substr(0, element.find(':')));
        EXPECT_EQ(element, std::to_string(t) + ":" + std::to_string(next[t]++));
    }
}

TEST(Defaults, LongArrayKeepsOrderThroughAppendsAndRemovals) {
    TempDir dir;
    auto store = Defaults::open(dir.file("tiles.sqlite"));
    std::deque<std::string> model;
    Strings initial;
    for (int i = 0; i < 10000; ++i) {
        initial.push_back("tile" + std::to_string(i));
    }
    store->setStringArray(initial, "tileList");
    model.assign(initial.begin(), initial.end());
    // The tile cache's pattern: append one, drop the oldest once over the limit.
    for (int i = 10000; i < 10300; ++i) {
        store->appendToStringArray("tile" + std::to_string(i), "tileList");
        model.push_back("tile" + std::to_string(i));
        if (model.size() > 10000) {
            store->removeFirstOfStringArray(1, "tileList");
            model.pop_front();
        }
    }
    store->removeFirstOfStringArray(3, "tileList");
    model.erase(model.begin(), model.begin() + 3);
    store->appendToStringArray("last", "tileList");
    model.push_back("last");
    EXPECT_EQ(store->stringArrayForKey("tileList"), Strings(model.begin(), model.end()));
}

TEST(Defaults, DamagedFileIsMovedAsideAndTheStoreStartsEmpty) {
    TempDir dir;
    const std::string path = dir.file("store.sqlite");
    const std::string garbage(4096, '\x5a');
    std::ofstream(path, std::ios::binary) << garbage;
    log::Capture capture;
    {
        auto store = Defaults::open(path);
        EXPECT_EQ(capture.lines(), Strings{"Defaults: " + path +
                                           " is damaged (file is not a database); moved it to " +
                                           path + ".corrupt and started empty"});
        EXPECT_EQ(store->stringForKey("k"), std::nullopt);
        store->setString("v", "k");
    }
    std::ifstream aside(path + ".corrupt", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(aside), {}), garbage);
    EXPECT_EQ(Defaults::open(path)->stringForKey("k"), "v");

    // Nowhere to write at all: values still work for the run.
    capture.clear();
    auto memory = Defaults::open("/dev/null/store.sqlite");
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].rfind("Defaults: cannot open /dev/null/store.sqlite (", 0), 0u);
    memory->appendToStringArray("a", "list");
    EXPECT_EQ(memory->stringArrayForKey("list"), Strings{"a"});
    EXPECT_TRUE(memory->synchronize());
}

TEST(Defaults, StandardStoreLivesUnderPreferencesNamedAfterTheApplication) {
    TempDir dir;
    ScopedEnv home("SORVAN_HOME", dir.path());
    EXPECT_EQ(Defaults::standardPath(),
              dir.path() + "/preferences/org.sorvan.platform_tests.defaults.sqlite");
    Defaults& standard = Defaults::standard();
    EXPECT_EQ(&standard, &Defaults::standard());
    standard.setString("yes", "standardTest");
    EXPECT_EQ(standard.stringForKey("standardTest"), "yes");
    standard.removeObjectForKey("standardTest");
}

}  // namespace
}  // namespace sorvan
