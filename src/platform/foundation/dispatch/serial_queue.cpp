// Serial queues. A queue is a scheduler and a token: whoever holds the token runs the queue's
// task, so the queue stays serial whichever thread runs it. Each queue has a thread of its own
// that runs what is queued; a thread that is at hand when the queue is idle may run one task
// in its place (runIfIdle), saving the hand-over to the queue's thread.
#include <pthread.h>

#include <cassert>
#include <exception>
#include <thread>

#include "foundation/dispatch/scheduler.hpp"
#include "foundation/dispatch/serial_queue_access.hpp"

namespace sorvan::dispatch {

namespace {

struct QueueState {
    explicit QueueState(std::string l) : label(std::move(l)) {}
    const std::string label;
    detail::Scheduler scheduler;
};

// The queue whose task the calling thread runs, if any.
thread_local const QueueState* tCurrent = nullptr;

// Marks the calling thread as running a task of a queue, for the length of one task.
class CurrentScope {
  public:
    explicit CurrentScope(const QueueState* state) : previous_(tCurrent) { tCurrent = state; }
    ~CurrentScope() { tCurrent = previous_; }
    CurrentScope(const CurrentScope&) = delete;
    CurrentScope& operator=(const CurrentScope&) = delete;

  private:
    const QueueState* previous_;
};

void work(const std::shared_ptr<QueueState>& state) {
    // Thread names are limited to 15 bytes; they only help debuggers.
    std::string name = state->label.substr(0, 15);
    pthread_setname_np(pthread_self(), name.c_str());
    while (auto task = state->scheduler.next(detail::TimePoint::max())) {
        CurrentScope scope(state.get());
        (*task)();
    }
}

}  // namespace

struct SerialQueue::Impl {
    std::shared_ptr<QueueState> state;
    std::thread thread;
};

SerialQueue::SerialQueue(std::string label) : impl_(std::make_unique<Impl>()) {
    impl_->state = std::make_shared<QueueState>(std::move(label));
    impl_->thread = std::thread([state = impl_->state] { work(state); });
}

SerialQueue::~SerialQueue() {
    impl_->state->scheduler.close();
    if (isCurrent() || impl_->thread.get_id() == std::this_thread::get_id()) {
        // Destroyed by one of its own tasks: the queue's thread holds the state, runs what is
        // left once that task returns, and ends by itself.
        impl_->thread.detach();
    } else {
        impl_->thread.join();
    }
}

void SerialQueue::async(Task task) {
    // The task may destroy this queue as soon as it is queued; the state it shares with the
    // queue's thread is held here until the wake-up is sent.
    std::shared_ptr<QueueState> state = impl_->state;
    state->scheduler.post(std::move(task));
}

void SerialQueue::asyncAfter(Duration delay, Task task) {
    auto d = detail::toSteady(delay);
    if (d == detail::SteadyClock::duration::zero()) {
        async(std::move(task));
        return;
    }
    std::shared_ptr<QueueState> state = impl_->state;
    state->scheduler.postAfter(d, std::move(task));
}

bool SerialQueue::isCurrent() const {
    return tCurrent == impl_->state.get();
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

bool SerialQueueAccess::runIfIdle(SerialQueue& queue, Task& task) {
    // The task may destroy the queue; the state outlives it here.
    std::shared_ptr<QueueState> state = queue.impl_->state;
    if (!state->scheduler.tryClaimIdle()) {
        return false;
    }
    struct Release {
        detail::Scheduler& scheduler;
        ~Release() { scheduler.release(); }
    } release{state->scheduler};
    CurrentScope scope(state.get());
    Task run = std::move(task);
    run();
    return true;
}

}  // namespace sorvan::dispatch
