// Timers on a run loop: each scheduled fire is one delayed task of the loop's scheduler.
#include <atomic>
#include <mutex>
#include <optional>

#include "foundation/dispatch/run_loop_impl.hpp"

namespace sorvan::dispatch {

using detail::SteadyClock;
using detail::TimePoint;

struct Timer::Impl {
    RunLoop* loop = nullptr;
    Duration interval{0};
    bool repeats = false;
    Action action;
    std::any userInfo;
    std::atomic<bool> valid{true};

    // Taken before the scheduler's lock, never after it.
    std::mutex mutex;
    std::optional<detail::Scheduler::Id> pending;  // the next fire, not yet due; guarded by mutex

    // REQUIRES: mutex held.
    void schedule(const std::shared_ptr<Timer>& timer, TimePoint due) {
        std::weak_ptr<Timer> weak = timer;
        pending = loop->impl_->scheduler.postAt(
            due, [weak](TimePoint at) { RunLoop::fireScheduled(weak.lock(), at); });
    }
};

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
    {
        std::lock_guard lock(loop.impl_->mutex);
        loop.impl_->timers.insert(timer);
    }
    std::lock_guard lock(t.mutex);
    t.schedule(timer, loop.impl_->scheduler.now() + detail::toSteady(t.interval));
    return timer;
}

// Called on the driving thread when a timer's scheduled moment has come.
void RunLoop::fireScheduled(const std::shared_ptr<Timer>& timer, TimePoint due) {
    if (!timer) {
        return;
    }
    Timer::Impl& t = *timer->impl_;
    {
        std::lock_guard lock(t.mutex);
        t.pending.reset();
    }
    if (!t.valid) {
        return;
    }
    t.action(*timer);
    if (!t.repeats) {
        timer->invalidate();
        return;
    }
    // invalidate() inside the action, a reset of the loop, or a fire already rescheduled wins.
    if (!t.loop->impl_->hasTimer(timer)) {
        return;
    }
    std::lock_guard lock(t.mutex);
    if (!t.valid || t.pending) {
        return;
    }
    auto step = detail::toSteady(t.interval);
    TimePoint now = t.loop->impl_->scheduler.now();
    TimePoint next = due + step;
    if (next <= now) {
        auto missed = (now - due) / step;
        next = due + step * (missed + 1);
    }
    t.schedule(timer, next);
}

void Timer::invalidate() {
    // Held until the end: the run loop's reference may be the last one, and the action's
    // captures may post to the loop when destroyed, so it must go after every lock.
    std::shared_ptr<Timer> self = weak_from_this().lock();
    RunLoop::Impl& l = *impl_->loop->impl_;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->valid = false;
        if (impl_->pending) {
            l.scheduler.cancel(*impl_->pending);
            impl_->pending.reset();
        }
    }
    if (self) {
        std::lock_guard lock(l.mutex);
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

}  // namespace sorvan::dispatch
