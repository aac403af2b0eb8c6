#include "sorvan/platform/foundation/glib_run_loop_source.hpp"

#include <glib.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

namespace sorvan::dispatch {
namespace {

using Clock = std::chrono::steady_clock;

// A private GLib context with the main run loop attached, iterated the way GTK would.
class GLibLoopTest : public ::testing::Test {
  protected:
    void SetUp() override {
        RunLoop::main().reset();
        context_ = g_main_context_new();
        source_ = std::make_unique<GLibRunLoopSource>(RunLoop::main(), context_);
    }
    void TearDown() override {
        source_.reset();
        g_main_context_unref(context_);
        RunLoop::main().reset();
    }

    // Blocks in GLib until done() or the deadline; returns how many iterations it took.
    template <typename Done>
    int iterateUntil(Done done, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
        // A guard so a broken source fails the test instead of hanging it.
        GSource* guard = g_timeout_source_new(static_cast<guint>(limit.count()));
        g_source_set_callback(
            guard, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
        g_source_attach(guard, context_);
        auto deadline = Clock::now() + limit;
        int iterations = 0;
        while (!done() && Clock::now() < deadline) {
            g_main_context_iteration(context_, TRUE);
            ++iterations;
        }
        g_source_destroy(guard);
        g_source_unref(guard);
        return iterations;
    }

    GMainContext* context_ = nullptr;
    std::unique_ptr<GLibRunLoopSource> source_;
};

TEST_F(GLibLoopTest, TasksPostedFromOtherThreadsWakeASleepingLoop) {
    std::atomic<int> ran{0};
    // Service results and tile arrivals reach the main queue exactly like this: a post from
    // a thread of their own while the host sleeps in poll.
    std::thread poster([&] {
        for (int i = 0; i < 3; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            RunLoop::main().async([&] { ++ran; });
        }
    });
    auto started = Clock::now();
    int iterations = iterateUntil([&] { return ran == 3; });
    poster.join();
    EXPECT_EQ(ran, 3);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(2));
    // One wake-up per post at most (and a spare): the loop slept in between.
    EXPECT_LE(iterations, 6);
    EXPECT_LE(source_->dispatchCount(), 6u);
}

TEST_F(GLibLoopTest, TimersFireOnTimeWithoutSpinning) {
    int fired = 0;
    auto started = Clock::now();
    Clock::time_point firstFire{};
    auto timer = Timer::scheduled(Duration(0.1), true, [&](Timer& t) {
        if (++fired == 1) {
            firstFire = Clock::now();
        }
        if (fired == 3) {
            t.invalidate();
        }
    });
    int iterations = iterateUntil([&] { return fired == 3; });
    EXPECT_EQ(fired, 3);
    auto firstDelay = std::chrono::duration<double>(firstFire - started).count();
    EXPECT_GE(firstDelay, 0.099);
    EXPECT_LT(firstDelay, 0.5);
    // Three fires over 300 ms: a spinning source would iterate thousands of times.
    EXPECT_LE(iterations, 10);
}

TEST_F(GLibLoopTest, AnIdleLoopHasNothingToDispatch) {
    EXPECT_FALSE(g_main_context_iteration(context_, FALSE));
    EXPECT_EQ(source_->dispatchCount(), 0u);

    // A task due in a while: GLib sleeps until then instead of looking again and again.
    bool ran = false;
    RunLoop::main().asyncAfter(Duration(0.2), [&] { ran = true; });
    gint timeout = -1;
    gint priority = 0;
    g_main_context_prepare(context_, &priority);
    GPollFD fds[8];
    g_main_context_query(context_, priority, &timeout, fds, 8);
    g_main_context_check(context_, priority, fds, 0);
    EXPECT_GT(timeout, 150);
    EXPECT_LE(timeout, 201);
    int iterations = iterateUntil([&] { return ran; });
    EXPECT_TRUE(ran);
    EXPECT_LE(iterations, 4);
}

TEST_F(GLibLoopTest, DestroyingTheSourceDetachesIt) {
    source_.reset();
    bool ran = false;
    RunLoop::main().async([&] { ran = true; });
    while (g_main_context_iteration(context_, FALSE)) {
    }
    EXPECT_FALSE(ran);
    EXPECT_EQ(RunLoop::main().drain(), 1u);
    EXPECT_TRUE(ran);
}

// A host with its own poll loop: the descriptor and the due time are all it needs.
TEST(RunLoopDescriptor, APollLoopWakesForPostsAndDueTimesOnly) {
    auto& loop = RunLoop::main();
    loop.reset();
    int fd = loop.wakeDescriptor();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fd, loop.wakeDescriptor());
    loop.drain();
    EXPECT_FALSE(loop.timeUntilDue().has_value());

    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 0), 0) << "an idle loop's descriptor must not be readable";

    std::atomic<bool> ran{false};
    std::thread poster([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        loop.async([&] { ran = true; });
    });
    EXPECT_EQ(poll(&p, 1, 2000), 1);
    poster.join();
    ASSERT_TRUE(loop.timeUntilDue().has_value());
    EXPECT_EQ(loop.timeUntilDue()->count(), 0.0);
    EXPECT_EQ(loop.drain(), 1u);
    EXPECT_TRUE(ran);
    EXPECT_EQ(poll(&p, 1, 0), 0) << "drain() empties the descriptor";

    bool late = false;
    loop.asyncAfter(Duration(0.05), [&] { late = true; });
    auto due = loop.timeUntilDue();
    ASSERT_TRUE(due.has_value());
    EXPECT_GT(due->count(), 0.02);
    EXPECT_LE(due->count(), 0.05);
    loop.drain();  // takes the wake from the post; the task is not due yet
    EXPECT_FALSE(late);
    EXPECT_EQ(poll(&p, 1, static_cast<int>(std::ceil(due->count() * 1000))), 0);
    EXPECT_EQ(loop.drain(), 1u);
    EXPECT_TRUE(late);
    loop.reset();
}

}  // namespace
}  // namespace sorvan::dispatch
