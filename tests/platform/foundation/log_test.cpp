#include "sorvan/platform/foundation/log.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/foundation_support.hpp"

namespace sorvan::log {
namespace {

using Lines = std::vector<std::pair<Level, std::string>>;

// Records what reaches the host's sink, and puts the level and sink back afterwards.
class LogLevels : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_ = level();
        previous_ = setSink([this](Level l, std::string_view line) {
            std::lock_guard lock(mutex_);
            seen_.emplace_back(l, std::string(line));
        });
    }
    void TearDown() override {
        setSink(std::move(previous_));
        setLevel(saved_);
    }
    Lines seen() {
        std::lock_guard lock(mutex_);
        Lines out = seen_;
        seen_.clear();
        return out;
    }
    static void writeOneOfEach() {
        error("e %d", 1);
        warning("w %s", "2");
        info("i %.1f", 3.0);
        debug("d");
    }

  private:
    Level saved_ = Level::info;
    Sink previous_;
    std::mutex mutex_;
    Lines seen_;
};

TEST_F(LogLevels, TheChosenLevelDecidesWhatReachesTheSink) {
    setLevel(Level::warning);
    writeOneOfEach();
    EXPECT_EQ(seen(), (Lines{{Level::error, "e 1"}, {Level::warning, "w 2"}}));

    setLevel(Level::debug);
    writeOneOfEach();
    EXPECT_EQ(seen(), (Lines{{Level::error, "e 1"},
                             {Level::warning, "w 2"},
                             {Level::info, "i 3.0"},
                             {Level::debug, "d"}}));

    setLevel(Level::off);
    writeOneOfEach();
    write("unlevelled");
    EXPECT_TRUE(seen().empty());
    EXPECT_FALSE(enabled(Level::error));

    // Lines written without a level are failure lines.
    setLevel(Level::error);
    writef("TILE ERROR: %s", "unsupported URL");
    write("route Error");
    info("not shown");
    EXPECT_EQ(seen(), (Lines{{Level::error, "TILE ERROR: unsupported URL"},
                             {Level::error, "route Error"}}));
}

TEST_F(LogLevels, SorvanLogNamesTheLevelAndTheHostMayOverrideIt) {
    const std::pair<const char*, Level> cases[] = {
        {"error", Level::error}, {"warning", Level::warning}, {"info", Level::info},
        {"debug", Level::debug}, {"off", Level::off},         {"DEBUG", Level::debug},
        {"", Level::info},
    };
    for (const auto& [value, expected] : cases) {
        test::ScopedEnv env("SORVAN_LOG", std::string(value));
        setLevelFromEnvironment();
        EXPECT_EQ(level(), expected) << value;
    }
    {
        test::ScopedEnv env("SORVAN_LOG", std::nullopt);
        setLevelFromEnvironment();
        EXPECT_EQ(level(), Level::info);
    }

    // An unknown name keeps info and says so, once, as a warning.
    {
        test::ScopedEnv env("SORVAN_LOG", std::string("loud"));
        Capture capture;
        setLevelFromEnvironment();
        EXPECT_EQ(level(), Level::info);
        auto entries = capture.entries();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].level, Level::warning);
        EXPECT_EQ(entries[0].text,
                  "SORVAN_LOG: unknown level 'loud' (error, warning, info, debug or off); "
                  "writing info and above");
    }

    test::ScopedEnv env("SORVAN_LOG", std::string("debug"));
    setLevelFromEnvironment();
    setLevel(Level::error);
    EXPECT_EQ(level(), Level::error);
    info("the host asked for errors only");
    EXPECT_TRUE(seen().empty());
}

TEST_F(LogLevels, CapturesSeeEveryLevelAndTakeLinesFromTheSink) {
    setLevel(Level::off);
    {
        Capture outer;
        writeOneOfEach();
        {
            Capture inner;
            error("inner");
            // A sink swapped while capturing does not take lines away from the capture.
            Sink swapped = setSink([](Level, std::string_view) { ADD_FAILURE(); });
            warning("still inner");
            setSink(std::move(swapped));
            EXPECT_EQ(inner.lines(), (std::vector<std::string>{"inner", "still inner"}));
        }
        auto entries = outer.entries();
        ASSERT_EQ(entries.size(), 4u);
        EXPECT_EQ(entries[2].level, Level::info);
        EXPECT_EQ(entries[2].text, "i 3.0");
        EXPECT_EQ(outer.lines(), (std::vector<std::string>{"e 1", "w 2", "i 3.0", "d"}));
    }
    EXPECT_TRUE(seen().empty());
    setLevel(Level::error);
    error("after the captures");
    EXPECT_EQ(seen(), (Lines{{Level::error, "after the captures"}}));
}

TEST_F(LogLevels, TheServiceKeyInAnAddressNeverReachesALine) {
    setLevel(Level::debug);
    Capture capture;
    debug("GET http://h/img.php?mode=normal&key=s3cret&HD=1 200");
    error("TILE ERROR: %s", "http://h/p?key=s3cret");
    warning("asked ?key=a%%20b#frag and \"&KEY=x\"");
    info("query keyword=siam&locale=en&key=cli-key");
    debug("no key= here, keyword=x&monkey=1&key=&turnkey=2");
    EXPECT_EQ(
        capture.lines(),
        (std::vector<std::string>{
            "GET http://h/img.php?mode=normal&key=***&HD=1 200", "TILE ERROR: http://h/p?key=***",
            "asked ?key=***#frag and \"&KEY=***\"", "query keyword=siam&locale=en&key=***",
            "no key= here, keyword=x&monkey=1&key=&turnkey=2"}));
    EXPECT_EQ(redacted("key=abc"), "key=***");
    EXPECT_EQ(redacted("x key=abc y"), "x key=*** y");
}

TEST_F(LogLevels, WritersOnSeveralThreadsLoseNoLineWhileTheLevelChanges) {
    Capture capture;
    std::atomic<bool> done{false};
    std::thread changer([&] {
        for (int i = 0; !done; ++i) {
            setLevel(i % 2 == 0 ? Level::off : Level::debug);
        }
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                debug("thread %d line %d", t, i);
            }
        });
    }
    for (auto& w : writers) {
        w.join();
    }
    done = true;
    changer.join();
    EXPECT_EQ(capture.lines().size(), 800u);
}

}  // namespace
}  // namespace sorvan::log
