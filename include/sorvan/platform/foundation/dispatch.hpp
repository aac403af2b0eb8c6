// Queues, run loops, semaphores and timers: the threading vocabulary of the whole SDK.
//
// The main queue is RunLoop::main(). A host runs it (run()); tests pump it (runUntil()).
// View, overlay and annotation changes happen on it, and timers fire on it. SerialQueue runs
// tasks one after another on its own thread (URL-session completions use one). Every class
// here is thread-safe unless a method says otherwise.
//
// Delayed tasks and timers of a run loop follow the run loop's clock, so a test can install a
// ManualClock and skip minutes at once:
//
//   auto clock = std::make_shared<ManualClock>();
//   RunLoop::main().setClock(clock);
//   auto timer = Timer::scheduled(180.0, true, [&](Timer&) { ++ticks; });
//   clock->advance(180.0);
//   RunLoop::main().drain();  // ticks == 1
#pragma once

#include <any>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sorvan/platform/export.hpp"

namespace sorvan::dispatch {

using Task = std::function<void()>;
using Duration = std::chrono::duration<double>;  // seconds

/// Time source for delayed tasks and timers. Tests install a ManualClock to skip 180 s.
class SORVAN_EXPORT Clock {
  public:
    virtual ~Clock() = default;
    virtual std::chrono::steady_clock::time_point now() const = 0;
};

/// A clock that moves only when advance() is called. Thread-safe.
class SORVAN_EXPORT ManualClock final : public Clock {
  public:
    ManualClock();
    std::chrono::steady_clock::time_point now() const override;
    void advance(Duration by);

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

/// Something tasks can be submitted to.
class SORVAN_EXPORT Queue {
  public:
    virtual ~Queue() = default;
    virtual void async(Task task) = 0;
    virtual void asyncAfter(Duration delay, Task task) = 0;
    /// True when called from a task this queue is running.
    virtual bool isCurrent() const = 0;
};

class Timer;

/// A run loop: the main queue, plus the timers scheduled on it.
///
/// One thread at a time drives the loop (run(), runUntil() or drain()); tasks run only on the
/// driving thread, in the order they became due. While another thread drives, runUntil() only
/// waits for its predicate and drain() runs nothing.
class SORVAN_EXPORT RunLoop final : public Queue {
  public:
    /// The process's main run loop. It lives until the process exits.
    static RunLoop& main();

    void async(Task task) override;
    void asyncAfter(Duration delay, Task task) override;
    /// True on the thread driving the loop. While no thread drives it, true on the thread that
    /// drove it last (before any, the process's main thread), so main-queue-only code called
    /// directly from a host's or a test's main thread passes its thread check.
    bool isCurrent() const override;

    /// Runs tasks and timers until stop() is called.
    void run();
    /// Makes run() return after the task it is running. When no run() is in progress, the next
    /// run() returns at once.
    void stop();
    /// Runs tasks and timers until predicate() is true (checked after each task and at least
    /// every few milliseconds) or the timeout passes. Returns the predicate's last value.
    bool runUntil(const std::function<bool()>& predicate, Duration timeout);
    /// Runs every task that is due now, without waiting. Returns how many ran. Empties the
    /// wake descriptor first, so a task posted meanwhile signals it again.
    std::size_t drain();

    /// For hosts with a poll loop of their own: a file descriptor that becomes readable when a
    /// task or timer is added (from any thread). The host polls it with the timeout
    /// timeUntilDue() gives, and calls drain() when it is readable or the timeout passed;
    /// drain() empties it. -1 when the system gave no descriptor. The loop owns it.
    ///
    ///   pollfd p{loop.wakeDescriptor(), POLLIN, 0};
    ///   for (;;) {
    ///       auto due = loop.timeUntilDue();
    ///       poll(&p, 1, due ? ceilMilliseconds(*due) : -1);
    ///       loop.drain();
    ///   }
    ///
    /// A GLib host attaches a GLibRunLoopSource instead, which does exactly this.
    int wakeDescriptor();
    /// How long until a task or timer is due: zero when one is ready now, nullopt when nothing
    /// is pending (wait for the descriptor only).
    std::optional<Duration> timeUntilDue() const;

    /// Replaces the clock used for delayed tasks and timers (nullptr restores the real one).
    /// Delayed tasks already pending keep the delay they had left.
    void setClock(std::shared_ptr<Clock> clock);
    std::chrono::steady_clock::time_point now() const;

    /// Drops every pending task, invalidates every timer, restores the real clock and forgets
    /// a pending stop(). For tests, between cases. REQUIRES: no thread is driving the loop.
    void reset();
    /// How many tasks and scheduled timers are pending (due or not).
    std::size_t pendingCount() const;

    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;
    ~RunLoop() override;

  private:
    RunLoop();
    struct Impl;
    static void fireScheduled(const std::shared_ptr<Timer>& timer,
                              std::chrono::steady_clock::time_point due);
    friend class Timer;
    std::unique_ptr<Impl> impl_;
};

/// Runs tasks one at a time, in order, on a thread of its own. Delays follow the real clock.
/// The platform may run a task of an idle queue on a thread of its own instead (the URL
/// session runs a completion on its network thread that way); the queue stays serial, and
/// isCurrent() is true inside the task on whichever thread runs it.
class SORVAN_EXPORT SerialQueue final : public Queue {
  public:
    explicit SerialQueue(std::string label);
    /// Runs the tasks already queued (delayed tasks not yet due are dropped), then joins. When
    /// the last owner lets go from a task of this very queue, the thread finishes on its own.
    ~SerialQueue() override;
    void async(Task task) override;
    void asyncAfter(Duration delay, Task task) override;
    /// True when called from a task of this queue, whichever thread runs it.
    bool isCurrent() const override;
    /// Runs task on the queue and waits for it; an exception it throws is rethrown here.
    /// REQUIRES: not called from this queue (where it would deadlock; it runs the task inline).
    void sync(const Task& task);
    const std::string& label() const;

  private:
    friend struct SerialQueueAccess;
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// Counting semaphore.
class SORVAN_EXPORT Semaphore {
  public:
    explicit Semaphore(long value = 0);
    ~Semaphore();
    void signal();
    void wait();
    /// Returns false when the timeout passed first.
    bool waitFor(Duration timeout);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// Shorthand for queue.asyncAfter(delay, task).
inline void after(Duration delay, Queue& queue, Task task) {
    queue.asyncAfter(delay, std::move(task));
}

/// A one-shot or repeating timer on a run loop. The run loop keeps a scheduled timer alive
/// until it is invalidated (a one-shot timer invalidates itself after its action returns).
/// A repeating timer keeps a fixed schedule (start + k * interval); fires missed while the
/// loop was busy or the clock jumped are folded into one. An interval of zero or less is
/// taken as 0.1 ms. Fires on the run loop's thread; scheduling and invalidating are
/// thread-safe, and invalidate() may be called from inside the action.
class SORVAN_EXPORT Timer : public std::enable_shared_from_this<Timer> {
  public:
    using Action = std::function<void(Timer&)>;

    static std::shared_ptr<Timer> scheduled(Duration interval, bool repeats, Action action,
                                            std::any userInfo = {},
                                            RunLoop& loop = RunLoop::main());
    void invalidate();
    bool isValid() const;
    /// Runs the action now; a repeating timer keeps its schedule, a one-shot timer is
    /// invalidated. Does nothing on an invalid timer.
    void fire();
    Duration interval() const;
    bool repeats() const;
    const std::any& userInfo() const;

    ~Timer();

  private:
    Timer();
    struct Impl;
    std::unique_ptr<Impl> impl_;
    friend class RunLoop;
};

}  // namespace sorvan::dispatch
