// The core the run loop and the serial queues stand on: tasks ready in the order they came,
// delayed tasks in the order they fall due (equal moments keep the order they were added in),
// a clock for the delays, and one sleeper that is woken only when there is something for it.
//
// The scheduler also holds the queue's token: whoever runs a task holds it, so a queue is
// serial whoever runs it. The thread that waits in next() takes the token with each task it
// is handed and gives it back when it asks for the next one; another thread may take the token
// of an idle scheduler (nothing ready, nothing running) to run one task itself, in place of the
// sleeper, and must give it back with release().
//
// Thread-safe. Tasks are never run, and never destroyed, under the scheduler's lock: they may
// post to it again.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>

#include "foundation/dispatch/time.hpp"

namespace sorvan::dispatch::detail {

class Scheduler {
  public:
    using Id = std::uint64_t;
    /// A delayed task learns the moment it was due (on the scheduler's clock).
    using DueTask = std::function<void(TimePoint due)>;

    /// Pending work taken out at once, to be destroyed by the caller outside the lock.
    struct Dropped {
        std::deque<Task> ready;
        std::map<std::pair<TimePoint, Id>, DueTask> delayed;
    };

    Scheduler();

    /// Adds a task that is ready now, and wakes the sleeper if it sleeps (outside the lock).
    void post(Task task);
    /// Adds a task due at `due` on the scheduler's clock. Returns its id, for cancel().
    Id postAt(TimePoint due, DueTask task);
    Id postAfter(SteadyClock::duration delay, Task task);
    /// Takes back a delayed task that has not fallen due. False when it is gone.
    bool cancel(Id id);

    /// Hands the calling thread the next task, waiting for one until `until` (by the real
    /// clock; a time in the past means "do not wait"). Gives back the token taken with the
    /// previous task, and takes it with the new one. nullopt when the time is up, when
    /// interrupt() was called (only with stopOnInterrupt), or when the scheduler is closed and
    /// nothing is ready. REQUIRES: one thread at a time calls next().
    std::optional<Task> next(TimePoint until, bool stopOnInterrupt = false);
    /// Gives back the token next() handed out with the last task, without asking for another.
    void finishRun();

    /// Takes the token when nothing is ready and no task runs. The caller then runs one task
    /// in the queue's place and calls release().
    bool tryClaimIdle();
    /// Gives back a token taken by tryClaimIdle(), waking the sleeper for tasks that came
    /// meanwhile.
    void release();

    /// Makes a sleeping next(…, true) return, and every waitForInterrupt() too. The mark stays
    /// until takeInterrupt().
    void interrupt();
    /// True (and the mark removed) when interrupt() was called since the last take.
    bool takeInterrupt();
    /// Waits until interrupt() has been called (the mark is left in place).
    void waitForInterrupt();

    /// From now on next() hands out only the tasks that are ready (delayed ones never fall
    /// due) and returns nullopt when none is left.
    void close();

    /// Replaces the clock delays follow (nullptr: the real one). Pending delayed tasks keep
    /// the delay they had left.
    void setClock(std::shared_ptr<Clock> clock);
    TimePoint now() const;
    /// How many tasks are ready or delayed.
    std::size_t pendingCount() const;
    /// Takes out every pending task, restores the real clock and forgets an interrupt.
    Dropped clear();

    /// An eventfd that becomes readable whenever a task is added, for hosts that poll. Made on
    /// the first call; lives as long as the scheduler.
    int wakeDescriptor();
    /// Empties the wake descriptor (before a host runs what is due).
    void clearWake();
    /// How long until a task is due: zero when one is ready, nullopt when nothing is pending.
    /// Under a manual clock a pending delay is looked at again every few milliseconds.
    std::optional<SteadyClock::duration> timeUntilDue() const;

    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

  private:
    using Key = std::pair<TimePoint, Id>;

    // Signals the wake descriptor, if there is one. Called outside the lock.
    void signalWake() const;

    // REQUIRES: mutex_ held.
    void promoteDue();
    TimePoint wakeTime(TimePoint limit) const;

    mutable std::mutex mutex_;
    std::condition_variable wake_;     // the sleeper in next()
    std::condition_variable stopped_;  // waitForInterrupt()
    std::deque<Task> ready_;
    std::map<Key, DueTask> delayed_;
    std::unordered_map<Id, TimePoint> delayedIds_;
    std::shared_ptr<Clock> clock_;
    bool clockIsReal_ = true;
    Id nextId_ = 0;
    bool sleeping_ = false;
    bool claimed_ = false;      // a task runs (the token is out)
    bool runnerHolds_ = false;  // ... and it is the one next() handed out
    bool interrupted_ = false;
    bool closed_ = false;
    std::atomic<int> wakeFd_{-1};  // set once, under mutex_
};

}  // namespace sorvan::dispatch::detail
