// The URL cache's backlog of writes: what waits for the writer thread stays under its cap however
// far behind the writer falls, and whatever leaves the backlog without being written never
// reaches the disk.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/url_cache_access.hpp"
#include "sorvan/platform/foundation/url_session.hpp"

namespace sorvan::net {
namespace {

namespace fs = std::filesystem;

// Large enough that a few dozen fill the backlog, small enough for the disk layer to take.
constexpr std::size_t kBody = 512 * 1024;

// Keeps the cache's writer thread busy until released (at the latest when destroyed, so that a
// failed assertion does not leave it blocked).
class WriterHold {
  public:
    WriterHold() {
        auto entered = std::make_shared<std::promise<void>>();
        auto started = entered->get_future();
        URLCacheAccess::onWriter(URLCache::shared(), [entered, gate = gate_] {
            entered->set_value();
            gate.wait();
        });
        started.wait();
    }
    ~WriterHold() { release(); }
    WriterHold(const WriterHold&) = delete;
    WriterHold& operator=(const WriterHold&) = delete;

    void release() {
        if (!released_) {
            released_ = true;
            open_.set_value();
        }
    }

  private:
    std::promise<void> open_;
    std::shared_future<void> gate_ = open_.get_future().share();
    bool released_ = false;
};

class URLCacheTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        home_ = fs::temp_directory_path() / ("sorvan-cache-test-" + std::to_string(::getpid()));
        fs::create_directories(home_);
        ::setenv("SORVAN_HOME", home_.c_str(), 1);
    }
    static void TearDownTestSuite() {
        URLCache::shared().removeAllCachedResponses();
        ::unsetenv("SORVAN_HOME");
        std::error_code ec;
        fs::remove_all(home_, ec);
    }
    void SetUp() override {
        ::setenv("SORVAN_HOME", home_.c_str(), 1);
        URLCache::shared().removeAllCachedResponses();
        // Every look-up past the backlog reads the file.
        URLCache::shared().setMemoryCapacity(0);
    }
    void TearDown() override {
        URLCache::shared().removeAllCachedResponses();
        URLCache::shared().setMemoryCapacity(4 * 1024 * 1024);
    }

    static URL address(int n) {
        return *URL::fromString("http://cache.test/tile?n=" + std::to_string(n));
    }
    // A body whose every byte says which answer (and which version of it) it belongs to.
    static Data body(int n, int version = 0) {
        Data data(kBody);
        for (std::size_t i = 0; i < data.size(); ++i) {
            data[i] = static_cast<std::uint8_t>(n * 7 + version * 13 + i % 251);
        }
        return data;
    }
    static void store(int n, int version = 0) {
        URLCache::shared().store(address(n), {address(n), 200, {}}, body(n, version));
    }
    // Whether the cache answers for n with exactly the body stored; false for a miss too.
    static bool holds(int n, int version = 0) {
        auto data = URLCache::shared().cachedData(address(n));
        return data && *data == body(n, version);
    }
    static bool misses(int n) { return !URLCache::shared().cachedData(address(n)); }
    // Files in the disk layer; anything but a finished response file fails the test.
    static std::size_t files() {
        std::size_t count = 0;
        std::error_code ec;
        for (const auto& e : fs::directory_iterator(URLCache::shared().diskPath(), ec)) {
            EXPECT_EQ(e.path().extension(), ".response") << e.path();
            ++count;
        }
        return count;
    }
    static std::size_t pending() { return URLCacheAccess::pendingBytes(URLCache::shared()); }
    static std::size_t entryBytes() { return kBody + 256; }

    static inline fs::path home_;
};

TEST_F(URLCacheTest, ABacklogPastItsCapIsWrittenByTheStoringThread) {
    const std::size_t cap = URLCacheAccess::maxPendingBytes();
    const int count = static_cast<int>(2 * cap / kBody);
    WriterHold hold;
    for (int n = 0; n < count; ++n) {
        store(n);
        ASSERT_LE(pending(), cap) << "after store " << n;
    }
    // The backlog fills up to the cap, not short of it, and every answer past it is on disk
    // already though the writer has not run.
    EXPECT_GT(pending(), cap - entryBytes());
    const std::size_t waiting = pending() / entryBytes();
    EXPECT_EQ(pending() % entryBytes(), 0u);
    EXPECT_EQ(files(), count - waiting);
    for (int n = 0; n < count; ++n) {
        EXPECT_TRUE(holds(n)) << n << " while the writer is held";
    }

    hold.release();
    URLCache::shared().flush();
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(files(), static_cast<std::size_t>(count));
    for (int n = 0; n < count; ++n) {
        EXPECT_TRUE(holds(n)) << n << " read back from its file";
    }
}

TEST_F(URLCacheTest, AnAnswerStoredAgainReplacesItsPendingWriteAndCountsOnce) {
    // Counted twice, the same tile reloaded would fill the backlog and force writes.
    const int times = static_cast<int>(2 * URLCacheAccess::maxPendingBytes() / kBody);
    WriterHold hold;
    for (int version = 0; version < times; ++version) {
        store(1, version);
    }
    EXPECT_EQ(pending(), entryBytes());
    EXPECT_EQ(files(), 0u);
    EXPECT_TRUE(holds(1, times - 1));

    hold.release();
    URLCache::shared().flush();
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(files(), 1u);
    EXPECT_TRUE(holds(1, times - 1));
}

TEST_F(URLCacheTest, ManyStoringThreadsKeepTheBacklogBounded) {
    constexpr int kThreads = 4;
    const std::size_t cap = URLCacheAccess::maxPendingBytes();
    const int perThread = static_cast<int>(2 * cap / kBody / kThreads);
    WriterHold hold;
    std::atomic<bool> done{false};
    std::size_t largest = 0;
    std::thread watcher([&] {
        while (!done) {
            largest = std::max(largest, pending());
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> storers;
    for (int t = 0; t < kThreads; ++t) {
        storers.emplace_back([t, perThread] {
            for (int i = 0; i < perThread; ++i) {
                store(t * perThread + i);
            }
        });
    }
    for (auto& s : storers) {
        s.join();
    }
    done = true;
    watcher.join();
    // Each storer may be over the cap by its own answer while it writes it, never more.
    EXPECT_LE(largest, cap + kThreads * entryBytes());
    EXPECT_LE(pending(), cap);
    EXPECT_GT(files(), 0u);

    hold.release();
    URLCache::shared().flush();
    EXPECT_EQ(files(), static_cast<std::size_t>(kThreads * perThread));
    for (int n = 0; n < kThreads * perThread; ++n) {
        EXPECT_TRUE(holds(n)) << n;
    }
}

TEST_F(URLCacheTest, WritesDroppedFromTheBacklogNeverReachTheDisk) {
    const std::size_t cap = URLCacheAccess::maxPendingBytes();
    const int count = static_cast<int>(cap / kBody + 8);
    WriterHold hold;
    for (int n = 0; n < count; ++n) {
        store(n);
    }
    ASSERT_GT(files(), 0u) << "some answers went past the cap";
    ASSERT_GT(pending(), 0u);

    // One answer still waiting, removed by itself.
    URLCache::shared().removeCachedResponse(address(0));
    EXPECT_TRUE(misses(0));
    EXPECT_EQ(pending(), cap / entryBytes() * entryBytes() - entryBytes());

    // Then everything, written or waiting.
    URLCache::shared().removeAllCachedResponses();
    EXPECT_EQ(pending(), 0u);
    EXPECT_EQ(files(), 0u);

    // The writer wakes up to nothing: no file appears, every look-up misses cleanly.
    hold.release();
    URLCache::shared().flush();
    std::promise<void> writerIdle;
    URLCacheAccess::onWriter(URLCache::shared(), [&] { writerIdle.set_value(); });
    writerIdle.get_future().wait();
    EXPECT_EQ(files(), 0u);
    for (int n = 0; n < count; ++n) {
        EXPECT_TRUE(misses(n)) << n;
    }

    // The cache goes on working afterwards.
    store(0, 1);
    URLCache::shared().flush();
    EXPECT_EQ(files(), 1u);
    EXPECT_TRUE(holds(0, 1));
}

}  // namespace
}  // namespace sorvan::net
