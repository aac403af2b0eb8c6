#include "sorvan/platform/foundation/dispatch.hpp"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace sorvan::dispatch {

namespace {

using SteadyClock = std::chrono::steady_clock;
using TimePoint = SteadyClock::time_point;

// Converts seconds to the steady clock's tick, treating NaN and negatives as zero and capping
// at a century so that "never" does not overflow the time point.
SteadyClock::duration toSteady(Duration d) {
    double s = d.count();
    if (!(s > 0)) {
        return SteadyClock::duration::zero();
    }
    s = std::min(s, 100.0 * 365 * 24 * 3600);
    return std::chrono::duration_cast<SteadyClock::duration>(Duration(s));
}

class RealClock final : public Clock {
  public:
    TimePoint now() const override { return SteadyClock::now(); }
};

const std::shared_ptr<Clock>& realClock() {
    static const std::shared_ptr<Clock> clock = std::make_shared<RealClock>();
    return clock;
}

// Waits on a manual clock are sliced this finely so that advance() is noticed promptly
// without the clock having to know which loops use it.
constexpr auto kManualClockSlice = std::chrono::milliseconds(2);
// runUntil() looks at its predicate at least this often, even with nothing to run.
constexpr auto kPredicateSlice = std::chrono::milliseconds(5);

// Delayed entries are ordered by due time, then by submission, so equal deadlines keep FIFO.
using DelayKey = std::pair<TimePoint, std::uint64_t>;

// The main run loop belongs to the process's main thread until some thread drives it.
bool isProcessMainThread() {
    return static_cast<pid_t>(gettid()) == getpid();
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// ManualClock

struct ManualClock::Impl {
    mutable std::mutex mutex;
    TimePoint now = SteadyClock::now();
};

ManualClock::ManualClock() : impl_(std::make_shared<Impl>()) {}

TimePoint ManualClock::now() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->now;
}

void ManualClock::advance(Duration by) {
    std::lock_guard lock(impl_->mutex);
    impl_->now += toSteady(by);
}

// ---------------------------------------------------------------------------------------------
// Timer state (the run loop reads and writes it under its own mutex)

struct Timer::Impl {
    RunLoop* loop = nullptr;
    Duration interval{0};
    bool repeats = false;
    Action action;
    std::any userInfo;
    std::atomic<bool> valid{true};
    // Guarded by the loop's mutex.
    bool scheduled = false;
    DelayKey entry{};
};

// ---------------------------------------------------------------------------------------------
// RunLoop

struct RunLoop::Impl {
    struct Delayed {
        Task task;                   // a plain delayed task, or
        std::weak_ptr<Timer> timer;  // the timer whose fire this is
    };

    mutable std::mutex mutex;
    std::condition_variable wake;
    std::deque<Task> ready;
    std::map<DelayKey, Delayed> delayed;
    std::set<std::shared_ptr<Timer>> timers;
    std::shared_ptr<Clock> clock = realClock();
    bool clockIsReal = true;
    std::uint64_t sequence = 0;
    bool stopRequested = false;
    std::thread::id driver;
    int driveDepth = 0;
    std::optional<std::thread::id> lastDriver;

    // REQUIRES: mutex held.
    DelayKey keyAfter(SteadyClock::duration delay) { return {clock->now() + delay, sequence++}; }

    // Moves every delayed entry that is due into the ready queue, in due order.
    // REQUIRES: mutex held.
    void promoteDue() {
        if (delayed.empty()) {
            return;
        }
        TimePoint now = clock->now();
        while (!delayed.empty() && delayed.begin()->first.first <= now) {
            auto node = delayed.extract(delayed.begin());
            Delayed& d = node.mapped();
            if (auto timer = d.timer.lock()) {
                timer->impl_->scheduled = false;
                DelayKey due = node.key();
                ready.push_back([timer, due] { RunLoop::fireScheduled(timer, due.first); });
            } else if (d.task) {
                ready.push_back(std::move(d.task));
            }
        }
    }

    // The wall-clock moment to wake up for the earliest delayed entry, capped at limit.
    // REQUIRES: mutex held.
    TimePoint wakeTime(TimePoint limit) const {
        if (!clockIsReal) {
            return std::min(limit, SteadyClock::now() + kManualClockSlice);
        }
        if (delayed.empty()) {
            return limit;
        }
        return std::min(limit, delayed.begin()->first.first);
    }

    bool acquire() {
        std::lock_guard lock(mutex);
        auto self = std::this_thread::get_id();
        if (driveDepth > 0 && driver != self) {
            return false;
        }
        driver = self;
        lastDriver = self;
        ++driveDepth;
        return true;
    }

    void release() {
        std::lock_guard lock(mutex);
        if (--driveDepth == 0) {
            driver = std::thread::id();
        }
    }

    // Releases the driver role however the driving call ends.
    class DriveGuard {
      public:
        explicit DriveGuard(Impl* impl) : impl_(impl), owns_(impl->acquire()) {}
        ~DriveGuard() {
            if (owns_) {
                impl_->release();
            }
        }
        bool owns() const { return owns_; }
        DriveGuard(const DriveGuard&) = delete;
        DriveGuard& operator=(const DriveGuard&) = delete;

      private:
        Impl* impl_;
        bool owns_;
    };

    // Runs one due task, waiting for one until `until` (never, when `until` is in the past).
    // Returns whether a task ran; gives up early on stop() when forRun is set.
    // REQUIRES: the calling thread drives the loop.
    bool runOne(TimePoint until, bool forRun = false) {
        Task task;
        {
            std::unique_lock lock(mutex);
            for (;;) {
                promoteDue();
                if (!ready.empty() || (forRun && stopRequested)) {
                    break;
                }
                TimePoint now = SteadyClock::now();
                if (now >= until) {
                    break;
                }
                wake.wait_until(lock, wakeTime(until));
                if (SteadyClock::now() >= until) {
                    promoteDue();
                    break;
                }
            }
            if (ready.empty()) {
                return false;
            }
            task = std::move(ready.front());
            ready.pop_front();
        }
        task();
        return true;
    }
};

RunLoop::RunLoop() : impl_(std::make_unique<Impl>()) {}

RunLoop::~RunLoop() {
    reset();
}

RunLoop& RunLoop::main() {
    // Never destroyed: threads may still post to the main queue while the process exits.
    static RunLoop* const loop = new RunLoop();
    return *loop;
}

void RunLoop::async(Task task) {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->ready.push_back(std::move(task));
    }
    impl_->wake.notify_all();
}

void RunLoop::asyncAfter(Duration delay, Task task) {
    auto d = toSteady(delay);
    if (d == SteadyClock::duration::zero()) {
        async(std::move(task));
        return;
    }
    {
        std::lock_guard lock(impl_->mutex);
        impl_->delayed.emplace(impl_->keyAfter(d), Impl::Delayed{std::move(task), {}});
    }
    impl_->wake.notify_all();
}

bool RunLoop::isCurrent() const {
    std::lock_guard lock(impl_->mutex);
    auto self = std::this_thread::get_id();
    if (impl_->driveDepth > 0) {
        return impl_->driver == self;
    }
    if (impl_->lastDriver) {
        return *impl_->lastDriver == self;
    }
    return isProcessMainThread();
}

void RunLoop::run() {
    Impl::DriveGuard guard(impl_.get());
    if (!guard.owns()) {
        // Another thread drives the loop; wait for stop() like it would.
        std::unique_lock lock(impl_->mutex);
        impl_->wake.wait(lock, [&] { return impl_->stopRequested; });
        return;
    }
    for (;;) {
        {
            std::lock_guard lock(impl_->mutex);
            if (impl_->stopRequested) {
                impl_->stopRequested = false;
                return;
            }
        }
        impl_->runOne(TimePoint::max(), true);
    }
}

void RunLoop::stop() {
    {
        std::lock_guard lock(impl_->mutex);
        impl_->stopRequested = true;
    }
    impl_->wake.notify_all();
}

bool RunLoop::runUntil(const std::function<bool()>& predicate, Duration timeout) {
    const TimePoint deadline = SteadyClock::now() + toSteady(timeout);
    Impl::DriveGuard guard(impl_.get());
    for (;;) {
        if (predicate()) {
            return true;
        }
        TimePoint now = SteadyClock::now();
        if (now >= deadline) {
            return predicate();
        }
        TimePoint slice = std::min(deadline, now + kPredicateSlice);
        if (guard.owns()) {
            impl_->runOne(slice);
        } else {
            std::this_thread::sleep_until(slice);
        }
    }
}

std::size_t RunLoop::drain() {
    Impl::DriveGuard guard(impl_.get());
    if (!guard.owns()) {
        return 0;
    }
    std::size_t count = 0;
    while (impl_->runOne(TimePoint::min())) {
        ++count;
    }
    return count;
}

void RunLoop::setClock(std::shared_ptr<Clock> clock) {
    bool real = clock == nullptr;
    if (real) {
        clock = realClock();
    }
    {
        std::lock_guard lock(impl_->mutex);
        // Re-key pending entries so each keeps the delay it had left on the old clock.
        TimePoint oldNow = impl_->clock->now();
        TimePoint newNow = clock->now();
        std::map<DelayKey, Impl::Delayed> rekeyed;
        for (auto& [key, entry] : impl_->delayed) {
            DelayKey k{newNow + (key.first - oldNow), key.second};
            if (auto timer = entry.timer.lock()) {
                timer->impl_->entry = k;
            }
            rekeyed.emplace(k, std::move(entry));
        }
        impl_->delayed.swap(rekeyed);
        impl_->clock = std::move(clock);
        impl_->clockIsReal = real;
    }
    impl_->wake.notify_all();
}

TimePoint RunLoop::now() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->clock->now();
}

void RunLoop::reset() {
    // Tasks and timers are destroyed outside the lock: their captures may post to this loop.
    std::deque<Task> ready;
    std::map<DelayKey, Impl::Delayed> delayed;
    std::set<std::shared_ptr<Timer>> timers;
    {
        std::lock_guard lock(impl_->mutex);
        ready.swap(impl_->ready);
        delayed.swap(impl_->delayed);
        timers.swap(impl_->timers);
        for (const auto& timer : timers) {
            timer->impl_->valid = false;
            timer->impl_->scheduled = false;
        }
        impl_->clock = realClock();
        impl_->clockIsReal = true;
        impl_->stopRequested = false;
    }
}

std::size_t RunLoop::pendingCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->ready.size() + impl_->delayed.size();
}

// Called on the driving thread when a timer's scheduled moment has come.
void RunLoop::fireScheduled(const std::shared_ptr<Timer>& timer, TimePoint due) {
    Timer::Impl& t = *timer->impl_;
    if (!t.valid) {
        return;
    }
    t.action(*timer);
    if (!t.repeats) {
        timer->invalidate();
        return;
    }
    Impl& loop = *t.loop->impl_;
    {
        std::lock_guard lock(loop.mutex);
        // invalidate() inside the action, or a fire() that already rescheduled, wins.
        if (!t.valid || t.scheduled || loop.timers.count(timer) == 0) {
            return;
        }
        auto step = toSteady(t.interval);
        TimePoint now = loop.clock->now();
        TimePoint next = due + step;
        if (next <= now) {
            auto missed = (now - due) / step;
            next = due + step * (missed + 1);
        }
        t.entry = {next, loop.sequence++};
        t.scheduled = true;
        loop.delayed.emplace(t.entry, Impl::Delayed{{}, timer});
    }
    loop.wake.notify_all();
}

// ---------------------------------------------------------------------------------------------
// Timer

Timer::Timer() : impl_(std::make_unique<Impl>()) {}

Timer::~Timer() = default;

std::shared_ptr<Timer> Timer::scheduled(Duration interval, bool repeats, Action action,
                                        std::any userInfo, RunLoop& loop) {
    std::shared_ptr<Timer> timer(new Timer());
    Impl& t = *timer->impl_;
    t.loop = &loop;
    t.interval = interval.count() > 0 ? interval : Duration(0.0001);
    t.repeats = repeats;
    t.action = std::move(action);
    t.userInfo = std::move(userInfo);
    RunLoop::Impl& l = *loop.impl_;
    {
        std::lock_guard lock(l.mutex);
        t.entry = l.keyAfter(toSteady(t.interval));
        t.scheduled = true;
        l.delayed.emplace(t.entry, RunLoop::Impl::Delayed{{}, timer});
        l.timers.insert(timer);
    }
    l.wake.notify_all();
    return timer;
}

void Timer::invalidate() {
    // Declared before the lock so that it is dropped after it: the run loop's reference may be
    // the last one, and the action's captures may post to the loop when destroyed.
    std::shared_ptr<Timer> self = weak_from_this().lock();
    RunLoop::Impl& l = *impl_->loop->impl_;
    std::lock_guard lock(l.mutex);
    impl_->valid = false;
    if (impl_->scheduled) {
        l.delayed.erase(impl_->entry);
        impl_->scheduled = false;
    }
    if (self) {
        l.timers.erase(self);
    }
}

bool Timer::isValid() const {
    return impl_->valid;
}

void Timer::fire() {
    if (!impl_->valid) {
        return;
    }
    auto keepAlive = shared_from_this();
    impl_->action(*this);
    if (!impl_->repeats) {
        invalidate();
    }
}

Duration Timer::interval() const {
    return impl_->interval;
}

bool Timer::repeats() const {
    return impl_->repeats;
}

const std::any& Timer::userInfo() const {
    return impl_->userInfo;
}

// ---------------------------------------------------------------------------------------------
// SerialQueue

namespace {

struct QueueState {
    std::string label;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Task> ready;
    std::map<DelayKey, Task> delayed;
    std::uint64_t sequence = 0;
    bool stopping = false;
    bool sleeping = false;  // the worker waits for work; only then is it worth a wake-up
    std::atomic<std::thread::id> worker{};

    void loop() {
        worker = std::this_thread::get_id();
        for (;;) {
            Task task;
            {
                std::unique_lock lock(mutex);
                for (;;) {
                    TimePoint now = SteadyClock::now();
                    while (!delayed.empty() && delayed.begin()->first.first <= now) {
                        ready.push_back(std::move(delayed.begin()->second));
                        delayed.erase(delayed.begin());
                    }
                    if (!ready.empty()) {
                        break;
                    }
                    if (stopping) {
                        // Dropped outside the lock: captures may post here again.
                        auto dropped = std::move(delayed);
                        delayed.clear();
                        lock.unlock();
                        return;
                    }
                    sleeping = true;
                    if (delayed.empty()) {
                        wake.wait(lock);
                    } else {
                        wake.wait_until(lock, delayed.begin()->first.first);
                    }
                    sleeping = false;
                }
                task = std::move(ready.front());
                ready.pop_front();
            }
            task();
        }
    }
};

}  // namespace

struct SerialQueue::Impl {
    std::shared_ptr<QueueState> state;
    std::thread thread;
};

SerialQueue::SerialQueue(std::string label) : impl_(std::make_unique<Impl>()) {
    impl_->state = std::make_shared<QueueState>();
    impl_->state->label = std::move(label);
    impl_->thread = std::thread([state = impl_->state] {
        // Thread names are limited to 15 bytes; they only help debuggers.
        std::string name = state->label.substr(0, 15);
        pthread_setname_np(pthread_self(), name.c_str());
        state->loop();
    });
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(impl_->state->mutex);
        impl_->state->stopping = true;
    }
    impl_->state->wake.notify_all();
    if (impl_->thread.get_id() == std::this_thread::get_id()) {
        // Destroyed by one of its own tasks: the thread holds the state and ends by itself.
        impl_->thread.detach();
    } else {
        impl_->thread.join();
    }
}

void SerialQueue::async(Task task) {
    // The task may destroy this queue as soon as the lock is released; the state it shares
    // with the worker thread is held here until the wake-up is sent. The wake-up goes out
    // after the lock is released, so that the worker does not wake only to wait for it.
    std::shared_ptr<QueueState> state = impl_->state;
    bool wake = false;
    {
        std::lock_guard lock(state->mutex);
        state->ready.push_back(std::move(task));
        wake = state->sleeping;
    }
    if (wake) {
        state->wake.notify_one();
    }
}

void SerialQueue::asyncAfter(Duration delay, Task task) {
    auto d = toSteady(delay);
    if (d == SteadyClock::duration::zero()) {
        async(std::move(task));
        return;
    }
    std::shared_ptr<QueueState> state = impl_->state;
    {
        std::lock_guard lock(state->mutex);
        state->delayed.emplace(DelayKey{SteadyClock::now() + d, state->sequence++},
                               std::move(task));
    }
    state->wake.notify_one();
}

bool SerialQueue::isCurrent() const {
    return impl_->state->worker.load() == std::this_thread::get_id();
}

void SerialQueue::sync(const Task& task) {
    assert(!isCurrent() && "SerialQueue::sync called from its own queue");
    if (isCurrent()) {
        task();
        return;
    }
    Semaphore done;
    std::exception_ptr failure;
    async([&] {
        try {
            task();
        } catch (...) {
            failure = std::current_exception();
        }
        done.signal();
    });
    done.wait();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

const std::string& SerialQueue::label() const {
    return impl_->state->label;
}

// ---------------------------------------------------------------------------------------------
// Semaphore
//
// One 64-bit word holds the count (low half, also the futex word) and the number of sleeping
// waiters (high half). signal() is a single atomic add, plus a wake-up only when someone
// sleeps; after the add it touches nothing of the semaphore but the futex address, so the
// waiter may destroy the semaphore as soon as it returns.

namespace {

constexpr std::uint64_t kCountMask = 0xffffffffull;
constexpr std::uint64_t kOneWaiter = 1ull << 32;

std::uint64_t countOf(std::uint64_t word) {
    return word & kCountMask;
}

}  // namespace

struct Semaphore::Impl {
    std::atomic<std::uint64_t> word{0};

    std::uint32_t* futexWord() {
        static_assert(sizeof(std::atomic<std::uint64_t>) == sizeof(std::uint64_t));
        auto* halves = reinterpret_cast<std::uint32_t*>(&word);
        return std::endian::native == std::endian::little ? halves : halves + 1;
    }

    // Sleeps while the count is zero, at most until the timeout (when given).
    void sleep(const timespec* timeout) {
        ::syscall(SYS_futex, futexWord(), FUTEX_WAIT_PRIVATE, 0, timeout, nullptr, 0);
    }

    bool tryTake(std::uint64_t& seen, std::uint64_t alsoRemove) {
        while (countOf(seen) > 0) {
            if (word.compare_exchange_weak(seen, seen - 1 - alsoRemove)) {
                return true;
            }
        }
        return false;
    }

    // Takes one from the count, waiting until the deadline (none: for ever).
    bool take(std::optional<TimePoint> deadline) {
        std::uint64_t seen = word.load();
        if (tryTake(seen, 0)) {
            return true;
        }
        seen = word.fetch_add(kOneWaiter) + kOneWaiter;
        for (;;) {
            if (tryTake(seen, kOneWaiter)) {
                return true;
            }
            if (!deadline) {
                sleep(nullptr);
            } else {
                auto left = *deadline - SteadyClock::now();
                if (left <= SteadyClock::duration::zero()) {
                    // Leaves without taking only while the count is zero, so that no signal's
                    // wake-up is spent on a waiter that gives up.
                    seen = word.load();
                    for (;;) {
                        if (tryTake(seen, kOneWaiter)) {
                            return true;
                        }
                        if (word.compare_exchange_weak(seen, seen - kOneWaiter)) {
                            return false;
                        }
                    }
                }
                auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
                timespec ts{static_cast<time_t>(ns / 1'000'000'000),
                            static_cast<long>(ns % 1'000'000'000)};
                sleep(&ts);
            }
            seen = word.load();
        }
    }
};

Semaphore::Semaphore(long value) : impl_(std::make_unique<Impl>()) {
    impl_->word = static_cast<std::uint64_t>(std::clamp<long>(value, 0, INT_MAX));
}

Semaphore::~Semaphore() = default;

void Semaphore::signal() {
    Impl& impl = *impl_;
    std::uint32_t* address = impl.futexWord();
    if (impl.word.fetch_add(1) >= kOneWaiter) {
        ::syscall(SYS_futex, address, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
}

void Semaphore::wait() {
    impl_->take(std::nullopt);
}

bool Semaphore::waitFor(Duration timeout) {
    return impl_->take(SteadyClock::now() + toSteady(timeout));
}

}  // namespace sorvan::dispatch
