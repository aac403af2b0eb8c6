// The run loop: the main queue and the timers on it, driven by one thread at a time.
#include <unistd.h>

#include <algorithm>

#include "foundation/dispatch/run_loop_impl.hpp"

namespace sorvan::dispatch {

namespace {

using detail::SteadyClock;
using detail::TimePoint;

// runUntil() looks at its predicate at least this often, even with nothing to run.
constexpr auto kPredicateSlice = std::chrono::milliseconds(5);

// The main run loop belongs to the process's main thread until some thread drives it.
bool isProcessMainThread() {
    return static_cast<pid_t>(gettid()) == getpid();
}

// Runs the next due task, waiting for one until `until`. Returns whether one ran.
bool runOne(detail::Scheduler& scheduler, TimePoint until, bool forRun = false) {
    auto task = scheduler.next(until, forRun);
    if (!task) {
        return false;
    }
    (*task)();
    return true;
}

}  // namespace

bool RunLoop::Impl::acquire() {
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

void RunLoop::Impl::release() {
    std::lock_guard lock(mutex);
    if (--driveDepth == 0) {
        driver = std::thread::id();
    }
}

bool RunLoop::Impl::hasTimer(const std::shared_ptr<Timer>& timer) const {
    std::lock_guard lock(mutex);
    return timers.count(timer) != 0;
}

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
    impl_->scheduler.post(std::move(task));
}

void RunLoop::asyncAfter(Duration delay, Task task) {
    auto d = detail::toSteady(delay);
    if (d == SteadyClock::duration::zero()) {
        async(std::move(task));
        return;
    }
    impl_->scheduler.postAfter(d, std::move(task));
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
        impl_->scheduler.waitForInterrupt();
        return;
    }
    while (!impl_->scheduler.takeInterrupt()) {
        runOne(impl_->scheduler, TimePoint::max(), true);
    }
}

void RunLoop::stop() {
    impl_->scheduler.interrupt();
}

bool RunLoop::runUntil(const std::function<bool()>& predicate, Duration timeout) {
    const TimePoint deadline = SteadyClock::now() + detail::toSteady(timeout);
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
            runOne(impl_->scheduler, slice);
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
    impl_->scheduler.clearWake();
    std::size_t count = 0;
    while (runOne(impl_->scheduler, TimePoint::min())) {
        ++count;
    }
    return count;
}

int RunLoop::wakeDescriptor() {
    return impl_->scheduler.wakeDescriptor();
}

std::optional<Duration> RunLoop::timeUntilDue() const {
    auto due = impl_->scheduler.timeUntilDue();
    if (!due) {
        return std::nullopt;
    }
    return std::chrono::duration_cast<Duration>(*due);
}

void RunLoop::setClock(std::shared_ptr<Clock> clock) {
    impl_->scheduler.setClock(std::move(clock));
}

TimePoint RunLoop::now() const {
    return impl_->scheduler.now();
}

void RunLoop::reset() {
    // Tasks and timers are destroyed outside every lock: their captures may post to this loop.
    std::set<std::shared_ptr<Timer>> timers;
    {
        std::lock_guard lock(impl_->mutex);
        timers.swap(impl_->timers);
    }
    for (const auto& timer : timers) {
        timer->invalidate();
    }
    auto dropped = impl_->scheduler.clear();
}

std::size_t RunLoop::pendingCount() const {
    return impl_->scheduler.pendingCount();
}

}  // namespace sorvan::dispatch
