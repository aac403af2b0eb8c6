#include "sorvan/platform/foundation/dispatch.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "foundation/dispatch/serial_queue_access.hpp"

namespace sorvan::dispatch {
namespace {

// Every test starts and ends with an empty main loop on the real clock.
class MainLoopTest : public ::testing::Test {
  protected:
    void SetUp() override { RunLoop::main().reset(); }
    void TearDown() override { RunLoop::main().reset(); }
    RunLoop& loop() { return RunLoop::main(); }
};

using RunLoopTest = MainLoopTest;

// Timers on a manual clock.
class TimerTest : public MainLoopTest {
  protected:
    void SetUp() override {
        MainLoopTest::SetUp();
        loop().setClock(clock);
    }
    // Moves the clock on and runs what became due.
    void advance(double seconds) {
        clock->advance(Duration(seconds));
        loop().drain();
    }
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
};

TEST_F(RunLoopTest, RunsTasksInSubmissionOrderIncludingTasksPostedByTasks) {
    std::vector<int> order;
    loop().async([&] {
        order.push_back(1);
        loop().async([&] { order.push_back(4); });
    });
    loop().async([&] { order.push_back(2); });
    loop().async([&] { order.push_back(3); });
    EXPECT_EQ(loop().drain(), 4u);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(loop().drain(), 0u);
}

TEST_F(RunLoopTest, IsCurrentOnlyOnTheDrivingThread) {
    bool insideTask = false;
    bool fromOtherThread = true;
    loop().async([&] {
        insideTask = loop().isCurrent();
        std::thread([&] { fromOtherThread = loop().isCurrent(); }).join();
    });
    loop().drain();
    EXPECT_TRUE(insideTask);
    EXPECT_FALSE(fromOtherThread);
    // Between pumps the thread that drove it last still counts as the main thread.
    EXPECT_TRUE(loop().isCurrent());
}

TEST_F(RunLoopTest, RunUntilStopsAtPredicateOrTimeout) {
    std::atomic<bool> done{false};
    std::thread worker([&] { loop().async([&] { done = true; }); });
    EXPECT_TRUE(loop().runUntil([&] { return done.load(); }, Duration(5.0)));
    worker.join();

    EXPECT_FALSE(loop().runUntil([] { return false; }, Duration(0.02)));
}

TEST_F(RunLoopTest, RunReturnsAfterStopFromAnotherThread) {
    int ran = 0;
    loop().async([&] { ++ran; });
    std::thread stopper([&] { loop().async([&] { loop().stop(); }); });
    loop().run();
    stopper.join();
    EXPECT_EQ(ran, 1);
}

TEST_F(RunLoopTest, DelayedTasksFollowTheManualClock) {
    auto clock = std::make_shared<ManualClock>();
    loop().setClock(clock);
    std::vector<int> order;
    loop().asyncAfter(Duration(10.0), [&] { order.push_back(10); });
    loop().asyncAfter(Duration(5.0), [&] { order.push_back(5); });
    after(Duration(5.0), loop(), [&] { order.push_back(6); });
    loop().asyncAfter(Duration(-1.0), [&] { order.push_back(0); });  // a past delay runs now

    loop().drain();
    EXPECT_EQ(order, (std::vector<int>{0}));
    clock->advance(Duration(4.999));
    loop().drain();
    EXPECT_EQ(order, (std::vector<int>{0}));
    clock->advance(Duration(0.001));
    loop().drain();
    EXPECT_EQ(order, (std::vector<int>{0, 5, 6}));
    clock->advance(Duration(100.0));
    EXPECT_TRUE(loop().runUntil([&] { return order.size() == 4; }, Duration(5.0)));
    EXPECT_EQ(order.back(), 10);
}

TEST_F(RunLoopTest, SwitchingClocksKeepsTheDelayLeft) {
    loop().asyncAfter(Duration(60.0), [] {});
    auto clock = std::make_shared<ManualClock>();
    loop().setClock(clock);
    bool ran = false;
    loop().asyncAfter(Duration(30.0), [&] { ran = true; });
    clock->advance(Duration(59.0));
    EXPECT_EQ(loop().drain(), 1u);
    EXPECT_TRUE(ran);
    EXPECT_EQ(loop().pendingCount(), 1u);
    clock->advance(Duration(1.0));
    EXPECT_EQ(loop().drain(), 1u);
}

TEST_F(TimerTest, RepeatingTimerFiresOncePerIntervalUntilInvalidated) {
    int ticks = 0;
    auto timer = Timer::scheduled(Duration(180.0), true, [&](Timer&) { ++ticks; });
    advance(179.0);
    EXPECT_EQ(ticks, 0);
    for (int i = 1; i <= 5; ++i) {
        advance(180.0);
        EXPECT_EQ(ticks, i);
    }
    timer->invalidate();
    EXPECT_FALSE(timer->isValid());
    advance(1000.0);
    EXPECT_EQ(ticks, 5);
    EXPECT_EQ(loop().pendingCount(), 0u);
}

TEST_F(TimerTest, MissedFiresAreFoldedAndTheScheduleStaysFixed) {
    int ticks = 0;
    auto timer = Timer::scheduled(Duration(10.0), true, [&](Timer&) { ++ticks; });
    advance(35.0);  // due at 10, 20, 30: one fire
    EXPECT_EQ(ticks, 1);
    advance(4.0);  // 39: the next fire is at 40, not 45
    EXPECT_EQ(ticks, 1);
    advance(1.0);
    EXPECT_EQ(ticks, 2);
    timer->invalidate();
}

TEST_F(TimerTest, OneShotTimerFiresOnceAndInvalidatesItself) {
    int ticks = 0;
    bool validDuringAction = false;
    std::weak_ptr<Timer> weak;
    {
        auto timer = Timer::scheduled(Duration(1.0), false, [&](Timer& t) {
            ++ticks;
            validDuringAction = t.isValid();
        });
        weak = timer;
    }
    ASSERT_FALSE(weak.expired()) << "the run loop keeps a scheduled timer alive";
    advance(2.0);
    advance(2.0);
    EXPECT_EQ(ticks, 1);
    EXPECT_TRUE(validDuringAction);
    EXPECT_TRUE(weak.expired()) << "an invalidated timer is released by the run loop";
}

TEST_F(TimerTest, InvalidateInsideItsOwnActionStopsIt) {
    int ticks = 0;
    std::weak_ptr<Timer> weak = Timer::scheduled(Duration(1.0), true, [&](Timer& t) {
        if (++ticks == 2) {
            t.invalidate();
        }
    });
    for (int i = 0; i < 5; ++i) {
        advance(1.0);
    }
    EXPECT_EQ(ticks, 2);
    EXPECT_TRUE(weak.expired());
}

TEST_F(TimerTest, FireRunsNowWithUserInfoAndKeepsTheSchedule) {
    std::vector<std::string> seen;
    auto timer = Timer::scheduled(
        Duration(10.0), true,
        [&](Timer& t) { seen.push_back(std::any_cast<std::string>(t.userInfo())); },
        std::string("overlay"));
    clock->advance(Duration(6.0));
    timer->fire();
    EXPECT_EQ(seen.size(), 1u);
    advance(4.0);  // still due at 10
    EXPECT_EQ(seen, (std::vector<std::string>{"overlay", "overlay"}));

    auto once = Timer::scheduled(Duration(10.0), false, [&](Timer&) { seen.push_back("once"); });
    once->fire();
    EXPECT_FALSE(once->isValid());
    once->fire();  // firing an invalid timer does nothing
    EXPECT_EQ(seen.back(), "once");
    EXPECT_EQ(seen.size(), 3u);
    timer->invalidate();
}

TEST_F(RunLoopTest, TimersFireOnTheRealClockWhileTheLoopRuns) {
    int ticks = 0;
    auto timer = Timer::scheduled(Duration(0.001), true, [&](Timer&) { ++ticks; });
    EXPECT_TRUE(loop().runUntil([&] { return ticks >= 3; }, Duration(10.0)));
    timer->invalidate();
}

TEST(SerialQueue, RunsTasksInOrderOnItsOwnThread) {
    SerialQueue queue("test.serial");
    EXPECT_EQ(queue.label(), "test.serial");
    EXPECT_FALSE(queue.isCurrent());
    std::vector<int> order;
    std::atomic<bool> allCurrent{true};
    for (int i = 0; i < 100; ++i) {
        queue.async([&, i] {
            order.push_back(i);
            allCurrent = allCurrent && queue.isCurrent();
        });
    }
    queue.sync([] {});
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(order[i], i);
    }
    EXPECT_TRUE(allCurrent);
}

TEST(SerialQueue, SyncRethrowsTheTasksException) {
    SerialQueue queue("test.sync");
    EXPECT_THROW(queue.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    int value = 0;
    queue.sync([&] { value = 7; });
    EXPECT_EQ(value, 7);
}

TEST(SerialQueue, DelayedTasksRunByDueTime) {
    SerialQueue queue("test.after");
    std::mutex m;
    std::vector<int> order;
    Semaphore done;
    queue.asyncAfter(Duration(0.05), [&] {
        std::lock_guard lock(m);
        order.push_back(2);
        done.signal();
    });
    queue.asyncAfter(Duration(0.01), [&] {
        std::lock_guard lock(m);
        order.push_back(1);
    });
    queue.async([&] {
        std::lock_guard lock(m);
        order.push_back(0);
    });
    ASSERT_TRUE(done.waitFor(Duration(10.0)));
    std::lock_guard lock(m);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST(SerialQueue, DestructorRunsQueuedTasksAndDropsPendingDelays) {
    std::atomic<int> ran{0};
    {
        SerialQueue queue("test.drain");
        queue.async([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
        for (int i = 0; i < 10; ++i) {
            queue.async([&] { ++ran; });
        }
        queue.asyncAfter(Duration(3600.0), [&] { ran += 1000; });
    }
    EXPECT_EQ(ran, 10);
}

TEST(SerialQueue, MayBeDestroyedByItsOwnTask) {
    auto queue = std::make_shared<SerialQueue>("test.self");
    Semaphore done;
    std::atomic<bool> ranAfterRelease{false};
    auto* raw = queue.get();
    raw->async([&done, &ranAfterRelease, q = std::move(queue)]() mutable {
        q.reset();  // the last owner lets go on the queue's own thread
        ranAfterRelease = true;
        done.signal();
    });
    EXPECT_TRUE(done.waitFor(Duration(10.0)));
    EXPECT_TRUE(ranAfterRelease);
}

// Runs task in the queue's place once the queue is idle: right after a sync() returns, the
// queue's thread may still be finishing the task that answered it.
bool runWhenIdle(SerialQueue& queue, Task& task) {
    for (int i = 0; i < 5000; ++i) {
        if (SerialQueueAccess::runIfIdle(queue, task)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

TEST(SerialQueue, AnIdleQueueRunsATaskOnTheCallingThreadAndStaysSerial) {
    SerialQueue queue("test.inline");
    std::thread::id ranOn;
    bool currentInside = false;
    Task task = [&] {
        ranOn = std::this_thread::get_id();
        currentInside = queue.isCurrent();
    };
    ASSERT_TRUE(SerialQueueAccess::runIfIdle(queue, task));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_TRUE(currentInside);
    EXPECT_FALSE(queue.isCurrent());

    // While a task runs on the queue's thread, or one waits there, the queue is busy: the
    // task is left to its caller, untouched.
    Semaphore entered, leave;
    queue.async([&] {
        entered.signal();
        leave.wait();
    });
    entered.wait();
    int ranInline = 0;
    Task counted = [&] { ++ranInline; };
    EXPECT_FALSE(SerialQueueAccess::runIfIdle(queue, counted));
    leave.signal();
    queue.sync([] {});
    queue.async([&] { leave.wait(); });
    queue.async([] {});
    EXPECT_FALSE(SerialQueueAccess::runIfIdle(queue, counted));
    leave.signal();
    queue.sync([] {});
    ASSERT_TRUE(counted);
    EXPECT_EQ(ranInline, 0);

    // Tasks queued while a task runs in the queue's place wait for it, then run in order on
    // the queue's own thread.
    std::mutex m;
    std::vector<int> order;
    std::thread::id queuedOn;
    Task holder = [&] {
        for (int i = 1; i <= 3; ++i) {
            queue.async([&, i] {
                std::lock_guard lock(m);
                order.push_back(i);
                queuedOn = std::this_thread::get_id();
            });
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::lock_guard lock(m);
        order.push_back(0);
    };
    ASSERT_TRUE(runWhenIdle(queue, holder));
    queue.sync([] {});
    std::lock_guard lock(m);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_NE(queuedOn, std::this_thread::get_id());
}

TEST(SerialQueue, ATaskRunInItsPlaceMayDestroyTheQueue) {
    auto queue = std::make_shared<SerialQueue>("test.inline.self");
    std::atomic<int> ran{0};
    auto* raw = queue.get();
    raw->async([] { std::this_thread::sleep_for(std::chrono::milliseconds(5)); });
    raw->sync([] {});
    Task last = [&ran, q = std::move(queue)]() mutable {
        q->async([&ran] { ++ran; });  // queued behind this task
        q.reset();                    // the last owner lets go inside the task
        ++ran;
    };
    ASSERT_TRUE(runWhenIdle(*raw, last));
    for (int i = 0; i < 1000 && ran < 2; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(ran, 2) << "what was queued still runs on the queue's thread";
}

TEST(Semaphore, CountsSignalsAndTimesOut) {
    Semaphore sem(1);
    EXPECT_TRUE(sem.waitFor(Duration(0.0)));
    EXPECT_FALSE(sem.waitFor(Duration(0.01)));
    std::thread signaller([&] {
        sem.signal();
        sem.signal();
    });
    sem.wait();
    EXPECT_TRUE(sem.waitFor(Duration(10.0)));
    signaller.join();
}

TEST(Semaphore, NoSignalIsLostAmongWaitersThatGiveUp) {
    // Patient waiters block; impatient ones give up after a moment, racing the signals. A
    // wake-up spent on a waiter that gives up would leave a patient one asleep.
    constexpr int kPatientEach = 1500;
    constexpr int kImpatientTotal = 1000;
    constexpr int kSignals = 2 * kPatientEach + kImpatientTotal;
    Semaphore sem;
    std::atomic<int> stuck{0};
    std::atomic<int> impatientTaken{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w) {
        threads.emplace_back([&] {
            for (int i = 0; i < kPatientEach; ++i) {
                if (!sem.waitFor(Duration(30.0))) {
                    ++stuck;
                }
            }
        });
        threads.emplace_back([&] {
            while (impatientTaken < kImpatientTotal) {
                if (sem.waitFor(Duration(0.0002)) && ++impatientTaken > kImpatientTotal) {
                    --impatientTaken;
                    sem.signal();  // one too many: give it back
                }
            }
        });
        threads.emplace_back([&] {
            for (int i = 0; i < kSignals / 2; ++i) {
                sem.signal();
                if (i % 64 == 0) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(stuck, 0);
    EXPECT_EQ(impatientTaken, kImpatientTotal);
    EXPECT_FALSE(sem.waitFor(Duration(0.0))) << "every signal was taken exactly once";
}

TEST(Semaphore, MayBeDestroyedAsSoonAsTheWaitReturns) {
    for (int i = 0; i < 500; ++i) {
        auto sem = std::make_unique<Semaphore>();
        std::thread signaller([s = sem.get()] { s->signal(); });
        sem->wait();
        sem.reset();  // the signaller may still be inside signal()
        signaller.join();
    }
}

}  // namespace
}  // namespace sorvan::dispatch
