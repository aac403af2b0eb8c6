#include "foundation/dispatch/scheduler.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace sorvan::dispatch::detail {

namespace {

// Waits on a manual clock are sliced this finely so that advance() is noticed promptly
// without the clock having to know which queues use it.
constexpr auto kManualClockSlice = std::chrono::milliseconds(2);

}  // namespace

Scheduler::Scheduler() : clock_(realClock()) {}

Scheduler::~Scheduler() {
    int fd = wakeFd_.load();
    if (fd >= 0) {
        ::close(fd);
    }
}

int Scheduler::wakeDescriptor() {
    std::lock_guard lock(mutex_);
    int fd = wakeFd_.load();
    if (fd < 0) {
        fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        wakeFd_.store(fd);
        // Work that came before anyone looked must still wake the first poll.
        if (fd >= 0 && (!ready_.empty() || !delayed_.empty())) {
            std::uint64_t one = 1;
            [[maybe_unused]] auto n = ::write(fd, &one, sizeof one);
        }
    }
    return fd;
}

void Scheduler::signalWake() const {
    int fd = wakeFd_.load();
    if (fd < 0) {
        return;
    }
    std::uint64_t one = 1;
    // EAGAIN means the counter is full, which wakes the poll just as well.
    [[maybe_unused]] auto n = ::write(fd, &one, sizeof one);
}

void Scheduler::clearWake() {
    int fd = wakeFd_.load();
    if (fd < 0) {
        return;
    }
    std::uint64_t count = 0;
    [[maybe_unused]] auto n = ::read(fd, &count, sizeof count);
}

std::optional<SteadyClock::duration> Scheduler::timeUntilDue() const {
    std::lock_guard lock(mutex_);
    if (!ready_.empty()) {
        return SteadyClock::duration::zero();
    }
    if (delayed_.empty() || closed_) {
        return std::nullopt;
    }
    TimePoint current = clock_->now();
    TimePoint due = delayed_.begin()->first.first;
    if (due <= current) {
        return SteadyClock::duration::zero();
    }
    if (!clockIsReal_) {
        return std::chrono::duration_cast<SteadyClock::duration>(kManualClockSlice);
    }
    return due - current;
}

void Scheduler::post(Task task) {
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(task));
        // A claimed scheduler wakes its sleeper on release(); an awake one finds the task.
        wake = sleeping_ && !claimed_;
    }
    if (wake) {
        wake_.notify_one();
    }
    signalWake();
}

Scheduler::Id Scheduler::postAt(TimePoint due, DueTask task) {
    bool wake = false;
    Id id = 0;
    {
        std::lock_guard lock(mutex_);
        id = nextId_++;
        // A task that falls due before everything pending moves the sleeper's alarm.
        wake = sleeping_ && (delayed_.empty() || due < delayed_.begin()->first.first);
        delayed_.emplace(Key{due, id}, std::move(task));
        delayedIds_.emplace(id, due);
    }
    if (wake) {
        wake_.notify_one();
    }
    // A poller computes its timeout from the earliest due task: it must look again.
    signalWake();
    return id;
}

Scheduler::Id Scheduler::postAfter(SteadyClock::duration delay, Task task) {
    return postAt(now() + delay, [task = std::move(task)](TimePoint) { task(); });
}

bool Scheduler::cancel(Id id) {
    DueTask dropped;  // destroyed outside the lock
    std::lock_guard lock(mutex_);
    auto it = delayedIds_.find(id);
    if (it == delayedIds_.end()) {
        return false;
    }
    auto node = delayed_.extract(Key{it->second, id});
    delayedIds_.erase(it);
    dropped = std::move(node.mapped());
    return true;
}

void Scheduler::promoteDue() {
    if (delayed_.empty() || closed_) {
        return;
    }
    TimePoint current = clock_->now();
    while (!delayed_.empty() && delayed_.begin()->first.first <= current) {
        auto node = delayed_.extract(delayed_.begin());
        delayedIds_.erase(node.key().second);
        ready_.push_back([task = std::move(node.mapped()), due = node.key().first] { task(due); });
    }
}

TimePoint Scheduler::wakeTime(TimePoint limit) const {
    if (!clockIsReal_) {
        return std::min(limit, SteadyClock::now() + kManualClockSlice);
    }
    if (delayed_.empty() || closed_) {
        return limit;
    }
    return std::min(limit, delayed_.begin()->first.first);
}

std::optional<Task> Scheduler::next(TimePoint until, bool stopOnInterrupt) {
    std::unique_lock lock(mutex_);
    if (runnerHolds_) {
        runnerHolds_ = false;
        claimed_ = false;
    }
    for (;;) {
        promoteDue();
        if (!claimed_ && !ready_.empty()) {
            break;
        }
        if (stopOnInterrupt && interrupted_) {
            return std::nullopt;
        }
        if (closed_ && ready_.empty()) {
            return std::nullopt;
        }
        if (SteadyClock::now() >= until) {
            return std::nullopt;
        }
        sleeping_ = true;
        wake_.wait_until(lock, wakeTime(until));
        sleeping_ = false;
    }
    Task task = std::move(ready_.front());
    ready_.pop_front();
    claimed_ = true;
    runnerHolds_ = true;
    return task;
}

void Scheduler::finishRun() {
    std::lock_guard lock(mutex_);
    if (runnerHolds_) {
        runnerHolds_ = false;
        claimed_ = false;
    }
}

bool Scheduler::tryClaimIdle() {
    std::lock_guard lock(mutex_);
    if (claimed_ || !ready_.empty() || closed_) {
        return false;
    }
    claimed_ = true;
    return true;
}

void Scheduler::release() {
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        claimed_ = false;
        wake = sleeping_ && !ready_.empty();
    }
    if (wake) {
        wake_.notify_one();
    }
}

void Scheduler::interrupt() {
    {
        std::lock_guard lock(mutex_);
        interrupted_ = true;
    }
    wake_.notify_all();
    stopped_.notify_all();
}

bool Scheduler::takeInterrupt() {
    std::lock_guard lock(mutex_);
    return std::exchange(interrupted_, false);
}

void Scheduler::waitForInterrupt() {
    std::unique_lock lock(mutex_);
    stopped_.wait(lock, [&] { return interrupted_; });
}

void Scheduler::close() {
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
    }
    wake_.notify_all();
}

void Scheduler::setClock(std::shared_ptr<Clock> clock) {
    bool real = clock == nullptr;
    if (real) {
        clock = realClock();
    }
    {
        std::lock_guard lock(mutex_);
        // Pending entries are moved so that each keeps the delay it had left on the old clock.
        TimePoint oldNow = clock_->now();
        TimePoint newNow = clock->now();
        std::map<Key, DueTask> moved;
        for (auto& [key, task] : delayed_) {
            Key k{newNow + (key.first - oldNow), key.second};
            delayedIds_[key.second] = k.first;
            moved.emplace(k, std::move(task));
        }
        delayed_.swap(moved);
        clock_ = std::move(clock);
        clockIsReal_ = real;
    }
    wake_.notify_all();
    signalWake();
}

TimePoint Scheduler::now() const {
    std::lock_guard lock(mutex_);
    return clock_->now();
}

std::size_t Scheduler::pendingCount() const {
    std::lock_guard lock(mutex_);
    return ready_.size() + delayed_.size();
}

Scheduler::Dropped Scheduler::clear() {
    Dropped dropped;
    std::lock_guard lock(mutex_);
    dropped.ready.swap(ready_);
    dropped.delayed.swap(delayed_);
    delayedIds_.clear();
    clock_ = realClock();
    clockIsReal_ = true;
    interrupted_ = false;
    return dropped;
}

}  // namespace sorvan::dispatch::detail
